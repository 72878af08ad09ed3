// SPDX-License-Identifier: Apache-2.0
// The trace object that the agent's own code writes to, through DNTRACE (Trace.h).
#pragma once

#include <atomic>
#include <cstdarg>
#include <string>

#include <boost/thread/recursive_mutex.hpp>

// Trace levels; the mask has one bit per level. Level 13 is a line switched off on purpose.
enum DnTraceLevel : unsigned int {
    TRACE = 0,
    WARN = 1,
    ERR = 2,
    THREAD = 3,
    USERINFO = 4,
    LOCK = 5,
    LIC = 6,
    BRIDGE = 7,
    HEADER = 8,
    LISTEN = 9,
    STATS = 10,
    API = 11,
    IPC = 12,
    TRACE_OFF = 13,
};

constexpr unsigned int TRACE_MASK_DEFAULT = 0x107;  // TRACE, WARN, ERR, HEADER
constexpr unsigned int TRACE_MASK_DEBUG = 0x1FFF;   // levels 0 to 12

// Base of the trace system. Any thread may log; the recursive mutex keeps the level
// of a line and its text together (DNTRACE holds it across both).
class CSSTrace {
public:
    CSSTrace() = default;
    virtual ~CSSTrace() = default;
    CSSTrace(const CSSTrace&) = delete;
    CSSTrace& operator=(const CSSTrace&) = delete;

    // Writes one line at m_messageLevel. Does nothing until initialised.
    virtual void PrintDebugString(const char* format, ...)
        __attribute__((format(printf, 2, 3))) = 0;
    // The printf-style text of `format` and its arguments, whole.
    static std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
    // Builds the line header (level name, thread id, local time) into `header`.
    virtual void GetLogMsgHeader(unsigned int level, std::string& header) = 0;

    // Sets the mask; returns 0.
    long Initialize(unsigned int mask);
    void Lock() { m_lock.lock(); }
    void UnLock() { m_lock.unlock(); }
    bool IsWarnMessage() const { return m_messageLevel == WARN; }
    bool IsErrorMessage() const { return m_messageLevel == ERR; }
    // Non-zero when `level` is on in the mask; level 13 is never on. Reads the mask
    // without the lock: a line racing a mask change may go either way.
    unsigned int IsDebugLevelPresent(unsigned int level) const;
    // Sets the mask, then applies the mask rule.
    void ChangeDebugLevel(unsigned int mask);
    // Applies the mask rule to the mask in force.
    void SetDebugLevel();
    // Writes `format` to syslog at priority 3 with a line end; needs no trace object.
    static void LogErrorEvent(const char* format, ...) __attribute__((format(printf, 1, 2)));

    unsigned int TraceMask() const { return m_traceMask; }

    // Public for the DNTRACE expansion at each call site.
    boost::recursive_mutex m_lock;
    // Atomic because IsDebugLevelPresent reads it without the lock.
    std::atomic<unsigned int> m_traceMask{TRACE_MASK_DEFAULT};
    unsigned int m_messageLevel = TRACE_MASK_DEFAULT;
    std::string m_header;
    bool m_bInitialized = false;
};

// The process-wide trace object; null until CSWGAgent::InitializeLogging. Atomic: the signal
// thread may log while the main thread installs it.
extern std::atomic<CSSTrace*> g_pTraceObject;

// syslog options of the process: LOG_PID|LOG_CONS|LOG_ODELAY|LOG_NDELAY, plus
// LOG_PERROR when SWG_LOG_STDERR=1 so that every line also reaches standard error.
int SwgSyslogOptions();

// Where every line of the logging family goes: the trace object, LogErrorEvent and the
// CAppLog logger. vsyslog by default; tests install a capture to read what would be
// written. Writers may be called from any thread at once.
using SwgSyslogWriter = void (*)(int priority, const char* format, va_list args);

// Installs `writer` (nullptr restores vsyslog) and returns the previous one. Never fails.
SwgSyslogWriter SwgSetSyslogWriter(SwgSyslogWriter writer);

// Hands one line to the installed writer at `priority`. Never fails.
void SwgVsyslog(int priority, const char* format, va_list args);
