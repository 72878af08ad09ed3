// SPDX-License-Identifier: Apache-2.0
// The application log's writer on Linux: long messages go to syslog in marked pieces.
#pragma once

#include <string>
#include <vector>

#include "foundation/ILogger.h"

// Writes each message to the system log under the agent's identity "tsc_swgagent",
// facility daemon. Stateless apart from its name; safe to call from any thread.
class CSyslogLogger : public ILogger {
public:
    // The largest number of text bytes in one piece, before the marks are added.
    static constexpr std::size_t kPieceBytes = 1000;

    // Opens syslog with the agent's identity and options (SwgSyslogOptions). `name` is
    // the caller's log category; null is taken as "". Syslog lines carry the process
    // identity, so the name is kept for inspection only.
    explicit CSyslogLogger(const char* name);
    ~CSyslogLogger() override = default;

    // Writes `text` in pieces (SplitText) at the priority of PriorityFor(severity,
    // importance). Only `text` is written. Returns 0, or 0xFE000002 for a null `text`.
    long Log(Logging::Severity severity, const char* text, const char* name, Logging::MessageID id,
             Logging::DebugImportance importance) override;

    const std::string& Name() const { return m_name; }

    // Syslog priority of a message: severity 0-2 LOG_CRIT, 3 LOG_ERR, 4-6 LOG_NOTICE,
    // 7 and above LOG_ERR with importance 'E' and LOG_NOTICE otherwise.
    static int PriorityFor(Logging::Severity severity, Logging::DebugImportance importance);

    // Cuts `text` into pieces of at most kPieceBytes text bytes: a cut falls on the last
    // space or line feed within the next kPieceBytes (that character is dropped), or
    // after kPieceBytes when there is none. Every piece but the first starts with "<-- ",
    // every piece but the last ends with " -->", and line feeds become spaces. An empty
    // text gives one empty piece.
    static std::vector<std::string> SplitText(const std::string& text);

private:
    std::string m_name;
};
