// SPDX-License-Identifier: Apache-2.0
// The application log that common code writes to, beside the agent's trace system.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <vector>

#include "foundation/AppLogCustomConfig.h"
#include "foundation/ILogger.h"

class CManualLock;

// All state is static and shared by every instance: the first instance installs a
// logger and the custom configuration, the last one releases them. Without an instance
// every call formats its text and drops it. Any thread may call; one recursive lock
// guards the state, and formatting uses per-thread buffers.
class CAppLog {
public:
    static constexpr std::size_t kTextBufferBytes = 2049;     // the caller's own text
    static constexpr std::size_t kMessageBufferBytes = 2561;  // the finished message

    // Counts the instance. Installs `logger` (taking ownership, replacing any earlier
    // one) or, with a null `logger`, creates a CSyslogLogger named `name` when there is
    // none. Creates and loads the custom configuration when there is none. Sets
    // `result` to 0, or to 0x8007000E when an object could not be allocated.
    CAppLog(long& result, const char* name, ILogger* logger);
    // Counts down; the last instance deletes the logger and the configuration.
    ~CAppLog();
    CAppLog(const CAppLog&) = delete;
    CAppLog& operator=(const CAppLog&) = delete;

    // Replaces the logger with a new CSyslogLogger named `name`. Returns 0, 0xFE00000A
    // when no instance exists, 0x8007000E when it cannot be allocated.
    static long UpdateLogger(const char* name);

    // Logs table message `id` with the arguments its format takes, importance 'T'.
    static void LogMessage(Logging::MessageID id, ...);

    // Formats the caller's text, then logs MID_DEBUG_MESSAGE with the thread id,
    // `function`, `file` and `line`.
    static void LogDebugMessage(const char* function, const char* file, int line,
                                Logging::DebugImportance importance, const char* format, ...)
        __attribute__((format(printf, 5, 6)));

    // Formats the caller's text, then logs MID_DEBUG_RETURN_CODE naming
    // `invokedFunction` and `code`. With a null `description`, a non-zero `code` below
    // 0xFE000000 is described by strerror_r; otherwise the description is empty.
    static void LogReturnCode(const char* function, const char* file, int line,
                              Logging::DebugImportance importance, const char* invokedFunction,
                              long code, const char* description, const char* format, ...)
        __attribute__((format(printf, 8, 9)));

    // Formats the caller's text, then logs MID_VERBOSE_MESSAGE with `level` and the
    // component's name. Does not test the level: callers ask IsLogVerboseMessage first.
    static void LogVerboseMessage(const char* function, const char* file, int line,
                                  Logging::DebugImportance importance, CUST_LOG_COMPONENT component,
                                  CUST_LOG_LEVEL level, const char* format, ...)
        __attribute__((format(printf, 7, 8)));

    // The component's name when `level` is not 0 and at most the level in force; ""
    // otherwise, and when there is no configuration.
    static std::string IsLogVerboseMessage(CUST_LOG_COMPONENT component, CUST_LOG_LEVEL level);
    // The names of the components that pass IsLogVerboseMessage, joined with " ".
    static std::string IsLogAggVerboseMessage(const std::vector<CUST_LOG_COMPONENT>& components,
                                              CUST_LOG_LEVEL level);
    // The level in force for `component`; 0 when unknown or without configuration.
    static CUST_LOG_LEVEL GetLogLevel(CUST_LOG_COMPONENT component);

    // The kernel id of the calling thread, looked up once per thread.
    static int GetCurrentThreadId();

private:
    // `importance` travels as an int: va_start needs a last parameter that is not promoted.
    static void logMessage(Logging::MessageID id, int importance, ...);
    static void logV(Logging::MessageID id, Logging::DebugImportance importance, va_list args);
    static CManualLock& getLock();

    static unsigned int sm_instanceCount;
    static ILogger* sm_pLogger;
    static CAppLogCustomConfig* sm_pCustomConfig;
};
