// SPDX-License-Identifier: Apache-2.0
// The JSON texts the agent reports: the state and report messages, the state file, the
// statistics. cJSON stays inside the .cpp.
#pragma once

#include <string>

#include "config/OrgInfo.h"
#include "ipc/ServiceStats.h"

// {"version":1,"swg_protection_state":`word`}, unformatted. False when cJSON has no memory.
bool BuildStateMessageJson(const std::string& word, std::string& text);
// {"ver":1,"state":`number`}, unformatted. False when cJSON has no memory.
bool BuildStateReportJson(int number, std::string& text);
// The state file in cJSON's formatted print, no line end after the brace: "version",
// "swg_protection_state", "swg_proxy_fqdn", "exception_list", "inclusion_list" (the lists
// split at each ";", as lines ending in ";"). A list that cannot be built leaves its key out.
// False, with the log text in `failure`, when the object or its print fails.
bool BuildStateFileJson(const std::string& word, const OrgInfoRecord& info, std::string& text,
                        std::string& failure);
// The statistics message, unformatted: "version" 1, "web_connections_info" with the three
// counters as decimal strings, "tarnwall_proxy", and "user_message" unless it is empty.
// False, with the log text in `failure`, when an object cannot be created.
bool BuildServiceStatsJson(const SERVICE_STATS& stats, std::string& text, std::string& failure);
