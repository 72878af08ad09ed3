// SPDX-License-Identifier: Apache-2.0
// The protection state words, their numbers, and the state file's name.
#pragma once

#include <string>
#include <unordered_map>

// Forced updates go out even while the agent is backed off.
enum eSWGStateUpdate : int {
    SWG_STATE_UPDATE_NORMAL = 0,
    SWG_STATE_UPDATE_FORCED = 1,
};

// The seven words and their numbers: "protected" 1, "unprotected" 2, "disabled" 3,
// "disabled_due_to_vpn" 4, "disabled_due_to_trusted_network" 5, "config_error" 6,
// "cloud_service_unavailable" 7. Any other word is refused.
extern const std::unordered_map<std::string, int> umapSWGState;

// "SWGState.json", in the configuration folder.
extern const char g_szStateFileName[];
