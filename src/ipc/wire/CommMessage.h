// SPDX-License-Identifier: Apache-2.0
// Message ids of the plug-in channel and their texts, shared by the agent and its clients.
#pragma once

#include <cstdint>
#include <string>

// What a packet is; `msg_id` of the packet header. Ids arrive from peers as any 32-bit value,
// so the type has a fixed underlying type and every value is representable.
enum eCOMM_MESSAGE_ID : uint32_t {
    COMM_MSG_SWG_STATE = 0x401,           // agent to plug-in: the state word as JSON
    COMM_MSG_SWG_REPORT = 0x402,          // agent to plug-in: the state number as JSON
    COMM_MSG_COLLECT_DATA_START = 0x403,  // plug-in to agent: start the statistics
    COMM_MSG_COLLECT_DATA_STOP = 0x404,   // plug-in to agent: stop the statistics
    COMM_MSG_SERVICE_STATS = 0x405,       // agent to plug-in: the statistics as JSON
    COMM_MSG_SRVC_STARTED = 0x406,        // agent to plug-in: starting or running; no payload
    COMM_MSG_SRVC_STOPPED = 0x407,        // agent to plug-in: not running; no payload
    COMM_MSG_QUIT = 0x408,                // internal: ends the thread that reads it
    COMM_MSG_DMN_CONNECT = 0x409,         // internal: the plug-in has connected
    COMM_MSG_PEER_DC = 0x40A,             // internal: the peer is gone
    COMM_MSG_HEARTBEAT = 0x40B,           // skipped by the sender and receiver threads
    COMM_MSG_NONE = 0x40C,                // a message not filled in yet
    COMM_MSG_END = 0x40D,                 // end of the enumeration
};

// "COMM_MSG_SWG_STATE" and so on for 0x401 to 0x40D; "unknown message type" for any other id.
std::string CommMessageText(uint32_t id);
