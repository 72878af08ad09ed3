// SPDX-License-Identifier: Apache-2.0
// The message table of the application log: ids, names, severities and formats.
#pragma once

#include <cstddef>

#include "foundation/ILogger.h"

// Ids of the messages the agent's code reaches.
enum : Logging::MessageID {
    MID_UNKNOWN = 0,
    MID_DEBUG_MESSAGE = 1,
    MID_DEBUG_RETURN_CODE = 2,
    MID_VERBOSE_MESSAGE = 3,
};

// One entry of the table. `format` is a printf format for the caller's arguments when
// `bTakesArguments` is set; otherwise it takes the message id alone (see Lookup).
struct LOGGING_MESSAGE {
    const char* name;
    Logging::Severity severity;
    const char* format;
    bool bTakesArguments;
};

// The table is a row of sets, each a first id and a count, searched in turn. Only the
// first set has texts here; the other sets are the wider client product's, so their
// ids are recognised but carry a generic text that does not read the caller's
// arguments (whose types this build cannot know). Read-only; any thread may use it.
class CLoggingMessages {
public:
    struct MessageSet {
        Logging::MessageID first;
        unsigned int count;
    };

    // The sets in search order.
    static const MessageSet kSets[];
    static const std::size_t kSetCount;

    // Takes an id; returns its entry. Ids of the first set get their own entry, ids of
    // the other sets the generic product entry ("MID_PRODUCT_MESSAGE", severity 6), and
    // any other id the fixed unknown entry ("MID_UNKNOWN_MESSAGE_ID", severity 4). The
    // last two format the id with "%u". Never fails.
    static const LOGGING_MESSAGE& Lookup(Logging::MessageID id);

    // Whether `id` lies in one of the sets.
    static bool IsKnown(Logging::MessageID id);
};
