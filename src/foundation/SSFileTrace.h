// SPDX-License-Identifier: Apache-2.0
// The agent's trace object: despite its name it writes to the system log.
#pragma once

#include <string>

#include "foundation/SSTrace.h"

// Created once by the agent and kept for the life of the process; any thread may log
// through it (see CSSTrace).
class CSSFileTrace : public CSSTrace {
public:
    CSSFileTrace() = default;
    ~CSSFileTrace() override;

    // Sets mask, identity and mode once; later calls do nothing. Opens syslog under
    // `identity` unless `skipOpenlog`. The directory, file name and the numeric
    // rotation arguments are accepted for compatibility and have no effect.
    // Always returns 0.
    long Initialize(const char* identity, const char* directory, const char* fileName, int appMode,
                    unsigned int mask, bool unused1, bool skipOpenlog, unsigned int unused2,
                    unsigned int unused3, unsigned int unused4, unsigned int unused5,
                    unsigned int unused6, unsigned int unused7);

    // Formats the message with a line end and hands it to vsyslog at the priority of
    // m_messageLevel. The header is not written: syslog supplies identity, pid and time.
    void PrintDebugString(const char* format, ...) override __attribute__((format(printf, 2, 3)));
    // Sets `header` to "<level name> | <thread id> | <local ISO time> | ". Never fails.
    void GetLogMsgHeader(unsigned int level, std::string& header) override;

    // The identity given to Initialize and the application mode.
    const std::string& Identity() const { return m_identity; }
    int AppMode() const { return m_appMode; }

    // Syslog priority of a level; 5 (notice) for a level outside the table.
    static int SyslogPriority(unsigned int level);
    // Name of a level ("TRACE", "WARN", ...); "" outside the table.
    static const char* LevelName(unsigned int level);

private:
    std::string m_identity;
    int m_appMode = 0;
    bool m_bOpenedLog = false;  // openlog holds m_identity's buffer until closelog
};
