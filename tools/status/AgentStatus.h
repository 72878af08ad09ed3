// SPDX-License-Identifier: Apache-2.0
// What the status command learns from the agent, and how it prints it.
#pragma once

#include <string>

// The state word and the counters as the agent reported them. Counters are the agent's
// decimal texts, kept as text so that no value is rounded.
struct AgentStatus {
    std::string state = "unknown";
    std::string gateway;
    std::string http = "0";
    std::string https = "0";
    std::string bypassed = "0";
};

// Takes "swg_protection_state" of a COMM_MSG_SWG_STATE payload (or of the state file) into
// `status.state`. False when the text is not such an object.
bool ReadStateJson(const std::string& text, AgentStatus& status);
// Takes the counters and "tarnwall_proxy" of a COMM_MSG_SERVICE_STATS payload. False when the
// text is not such an object or a counter is not a decimal number.
bool ReadStatsJson(const std::string& text, AgentStatus& status);
// The state word of the agent's state file under the data path (SWG_DATA_ROOT or /opt);
// false when there is no readable file.
bool ReadStateFile(AgentStatus& status);

// Five aligned lines: state, gateway, http, https, bypassed.
std::string FormatBlock(const AgentStatus& status);
// One line for --watch: local time, the state, the gateway and the counters.
std::string FormatLine(const AgentStatus& status);
// One JSON object on one line; the counters as numbers.
std::string FormatJson(const AgentStatus& status);
