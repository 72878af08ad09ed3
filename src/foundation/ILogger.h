// SPDX-License-Identifier: Apache-2.0
// The target behind the application log (CAppLog), and the types its messages carry.
#pragma once

#include <cstdint>

namespace Logging {
// Identifies an entry of the message table (CLoggingMessages).
using MessageID = unsigned int;
// Severity of a table entry: 0 (most severe) to 7 (debug), as syslog counts them.
using Severity = std::int32_t;
// A character code: 'E' (0x45) an error, 'I' (0x49) information, 'T' (0x54) a table message.
using DebugImportance = char;

constexpr DebugImportance kImportanceError = 0x45;
constexpr DebugImportance kImportanceInfo = 0x49;
constexpr DebugImportance kImportanceTable = 0x54;
}  // namespace Logging

// Writes finished application-log messages somewhere. Implementations are called with
// the CAppLog lock held, from any thread, and must not call back into CAppLog.
class ILogger {
public:
    // Writes `text` (the formatted message) with its table `severity`, message `name` and
    // `id`, and the caller's `importance`. Returns 0, or 0xFE000002 for a null `text`.
    virtual long Log(Logging::Severity severity, const char* text, const char* name,
                     Logging::MessageID id, Logging::DebugImportance importance) = 0;
    virtual ~ILogger() = default;
};
