// SPDX-License-Identifier: Apache-2.0
// Texts of the plug-in channel's message ids.
#include "ipc/wire/CommMessage.h"

std::string CommMessageText(uint32_t id) {
    static const char* const texts[] = {
        "COMM_MSG_SWG_STATE",
        "COMM_MSG_SWG_REPORT",
        "COMM_MSG_COLLECT_DATA_START",
        "COMM_MSG_COLLECT_DATA_STOP",
        "COMM_MSG_SERVICE_STATS",
        "COMM_MSG_SRVC_STARTED",
        "COMM_MSG_SRVC_STOPPED",
        "COMM_MSG_QUIT",
        "COMM_MSG_DMN_CONNECT",
        "COMM_MSG_PEER_DC",
        "COMM_MSG_HEARTBEAT",
        "COMM_MSG_NONE",
        "COMM_MSG_END",
    };
    if (id < COMM_MSG_SWG_STATE || id > COMM_MSG_END) return "unknown message type";
    return texts[id - COMM_MSG_SWG_STATE];
}
