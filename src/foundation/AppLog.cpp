// SPDX-License-Identifier: Apache-2.0
// The application log: message formatting, the shared logger and the custom levels.
#include "foundation/AppLog.h"

#include <cstring>
#include <mutex>
#include <new>

#include "foundation/GlobalConst.h"
#include "foundation/GlobalUtils.h"
#include "foundation/LoggingMessages.h"
#include "foundation/ManualLock.h"
#include "foundation/SyslogLogger.h"
#include "platform/ThisProcess.h"

namespace {
// The system's text for a code below the agent's own range; "" for 0 and the agent's codes.
std::string DescribeCode(long code) {
    const unsigned long code32 = static_cast<unsigned long>(code) & 0xFFFFFFFFUL;
    if (code32 == 0 || code32 >= static_cast<unsigned long>(SWG_E_MODULE_BASE)) return "";
    return ErrnoText(static_cast<int>(code32));
}
}  // namespace

unsigned int CAppLog::sm_instanceCount = 0;
ILogger* CAppLog::sm_pLogger = nullptr;
CAppLogCustomConfig* CAppLog::sm_pCustomConfig = nullptr;

CManualLock& CAppLog::getLock() {
    // Never destroyed: threads may still log while statics are torn down at exit.
    static CManualLock* lock = new CManualLock;
    return *lock;
}

CAppLog::CAppLog(long& result, const char* name, ILogger* logger) {
    CManualLockHolder hold(getLock());
    result = 0;
    ++sm_instanceCount;
    if (logger != nullptr) {
        if (logger != sm_pLogger) delete sm_pLogger;
        sm_pLogger = logger;
    } else if (sm_pLogger == nullptr) {
        sm_pLogger = new (std::nothrow) CSyslogLogger(name);
        if (sm_pLogger == nullptr) result = SWG_E_OUTOFMEMORY;
    }
    if (sm_pCustomConfig == nullptr) {
        sm_pCustomConfig = new (std::nothrow) CAppLogCustomConfig;
        if (sm_pCustomConfig == nullptr) {
            result = SWG_E_OUTOFMEMORY;
        } else {
            sm_pCustomConfig->initConfigurationMap();
        }
    }
}

CAppLog::~CAppLog() {
    CManualLockHolder hold(getLock());
    if (sm_instanceCount > 0 && --sm_instanceCount == 0) {
        delete sm_pLogger;
        sm_pLogger = nullptr;
        delete sm_pCustomConfig;
        sm_pCustomConfig = nullptr;
    }
}

long CAppLog::UpdateLogger(const char* name) {
    CManualLockHolder hold(getLock());
    if (sm_instanceCount == 0) return SWG_E_MODULE_NO_INSTANCE;
    ILogger* logger = new (std::nothrow) CSyslogLogger(name);
    if (logger == nullptr) return SWG_E_OUTOFMEMORY;
    delete sm_pLogger;
    sm_pLogger = logger;
    return 0;
}

int CAppLog::GetCurrentThreadId() {
    thread_local int cached = 0;
    if (cached == 0) cached = CurrentThreadId();
    return cached;
}

void CAppLog::logV(Logging::MessageID id, Logging::DebugImportance importance, va_list args) {
    thread_local char message[kMessageBufferBytes];
    const LOGGING_MESSAGE& entry = CLoggingMessages::Lookup(id);
    if (entry.bTakesArguments) {
        safe_vsnprintfA(message, sizeof(message), entry.format, args);
    } else {
        safe_snprintfA(message, sizeof(message), entry.format, id);
    }
    CManualLockHolder hold(getLock());
    if (sm_pLogger != nullptr) sm_pLogger->Log(entry.severity, message, entry.name, id, importance);
}

void CAppLog::logMessage(Logging::MessageID id, int importance, ...) {
    va_list args;
    va_start(args, importance);
    logV(id, static_cast<Logging::DebugImportance>(importance), args);
    va_end(args);
}

void CAppLog::LogMessage(Logging::MessageID id, ...) {
    va_list args;
    va_start(args, id);
    logV(id, Logging::kImportanceTable, args);
    va_end(args);
}

void CAppLog::LogDebugMessage(const char* function, const char* file, int line,
                              Logging::DebugImportance importance, const char* format, ...) {
    thread_local char text[kTextBufferBytes];
    va_list args;
    va_start(args, format);
    safe_vsnprintfA(text, sizeof(text), format, args);
    va_end(args);
    logMessage(MID_DEBUG_MESSAGE, importance, GetCurrentThreadId(),
               function != nullptr ? function : "", file != nullptr ? file : "", line, text);
}

void CAppLog::LogReturnCode(const char* function, const char* file, int line,
                            Logging::DebugImportance importance, const char* invokedFunction,
                            long code, const char* description, const char* format, ...) {
    thread_local char text[kTextBufferBytes];
    va_list args;
    va_start(args, format);
    safe_vsnprintfA(text, sizeof(text), format, args);
    va_end(args);
    const std::string described = description == nullptr ? DescribeCode(code) : "";
    if (description == nullptr) description = described.c_str();
    const auto code32 = static_cast<unsigned int>(static_cast<unsigned long>(code) & 0xFFFFFFFFUL);
    logMessage(MID_DEBUG_RETURN_CODE, importance, GetCurrentThreadId(),
               function != nullptr ? function : "", file != nullptr ? file : "", line,
               invokedFunction != nullptr ? invokedFunction : "", static_cast<int>(code32), code32,
               description, text);
}

void CAppLog::LogVerboseMessage(const char* function, const char* file, int line,
                                Logging::DebugImportance importance, CUST_LOG_COMPONENT component,
                                CUST_LOG_LEVEL level, const char* format, ...) {
    thread_local char text[kTextBufferBytes];
    va_list args;
    va_start(args, format);
    safe_vsnprintfA(text, sizeof(text), format, args);
    va_end(args);
    std::string name;
    {
        CManualLockHolder hold(getLock());
        if (sm_pCustomConfig != nullptr) name = sm_pCustomConfig->GetName(component);
    }
    logMessage(MID_VERBOSE_MESSAGE, importance, GetCurrentThreadId(), static_cast<int>(level),
               name.c_str(), file != nullptr ? file : "", line, function != nullptr ? function : "",
               text);
}

std::string CAppLog::IsLogVerboseMessage(CUST_LOG_COMPONENT component, CUST_LOG_LEVEL level) {
    CManualLockHolder hold(getLock());
    if (level == CUST_LOG_LEVEL_OFF || sm_pCustomConfig == nullptr) return "";
    if (level > sm_pCustomConfig->GetLevel(component)) return "";
    return sm_pCustomConfig->GetName(component);
}

std::string CAppLog::IsLogAggVerboseMessage(const std::vector<CUST_LOG_COMPONENT>& components,
                                            CUST_LOG_LEVEL level) {
    std::string names;
    for (CUST_LOG_COMPONENT component : components) {
        const std::string name = IsLogVerboseMessage(component, level);
        if (name.empty()) continue;
        if (!names.empty()) names += " ";
        names += name;
    }
    return names;
}

CUST_LOG_LEVEL CAppLog::GetLogLevel(CUST_LOG_COMPONENT component) {
    CManualLockHolder hold(getLock());
    return sm_pCustomConfig != nullptr ? sm_pCustomConfig->GetLevel(component) : CUST_LOG_LEVEL_OFF;
}
