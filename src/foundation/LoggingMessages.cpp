// SPDX-License-Identifier: Apache-2.0
// Entries of the application log's message table.
#include "foundation/LoggingMessages.h"

namespace {
const LOGGING_MESSAGE kSetZero[] = {
    {"MID_UNKNOWN", 5, "%s", true},
    {"MID_DEBUG_MESSAGE", 7, "[TID=%d]\nFunction: %s\nFile: %s\nLine: %d\n%s", true},
    {"MID_DEBUG_RETURN_CODE", 7,
     "[TID=%d]\nFunction: %s\nFile: %s\nLine: %d\nInvoked Function: %s\nReturn Code: %d "
     "(0x%.8X)\nDescription: %s\n%s",
     true},
    {"MID_VERBOSE_MESSAGE", 7, "[TID=%d CLL=%d][%s] %s:%d(%s) %s", true},
};

const LOGGING_MESSAGE kProductMessage = {
    "MID_PRODUCT_MESSAGE", 6, "Client product message %u (no text in this build)", false};
const LOGGING_MESSAGE kUnknownMessage = {"MID_UNKNOWN_MESSAGE_ID", 4, "Unknown message ID %u",
                                         false};
}  // namespace

const CLoggingMessages::MessageSet CLoggingMessages::kSets[] = {
    {0, 4},     {101, 3},   {200, 6},   {2000, 162}, {3000, 38}, {4000, 2},
    {5000, 23}, {5900, 23}, {6100, 18}, {6200, 7},   {6300, 1},  {7000, 8},
};
const std::size_t CLoggingMessages::kSetCount = sizeof(kSets) / sizeof(kSets[0]);

bool CLoggingMessages::IsKnown(Logging::MessageID id) {
    for (std::size_t i = 0; i < kSetCount; ++i) {
        if (id >= kSets[i].first && id - kSets[i].first < kSets[i].count) return true;
    }
    return false;
}

const LOGGING_MESSAGE& CLoggingMessages::Lookup(Logging::MessageID id) {
    if (id < kSets[0].count) return kSetZero[id];
    return IsKnown(id) ? kProductMessage : kUnknownMessage;
}
