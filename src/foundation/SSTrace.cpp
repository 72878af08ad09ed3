// SPDX-License-Identifier: Apache-2.0
// Mask handling of the trace object and the syslog path that needs no object.
#include "foundation/SSTrace.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/GlobalConst.h"

std::atomic<CSSTrace*> g_pTraceObject{nullptr};

namespace {
constexpr unsigned int kLevelsMask = 0x1FFF;
constexpr unsigned int kWarnErr = (1u << WARN) | (1u << ERR);
constexpr int kSyslogFacilityDaemon = 0x18;

void DefaultWriter(int priority, const char* format, va_list args) {
    vsyslog(priority, format, args);
}

std::atomic<SwgSyslogWriter> g_syslogWriter{&DefaultWriter};
}  // namespace

SwgSyslogWriter SwgSetSyslogWriter(SwgSyslogWriter writer) {
    return g_syslogWriter.exchange(writer != nullptr ? writer : &DefaultWriter);
}

void SwgVsyslog(int priority, const char* format, va_list args) {
    g_syslogWriter.load()(priority, format, args);
}

int SwgSyslogOptions() {
    int options = LOG_PID | LOG_CONS | LOG_ODELAY | LOG_NDELAY;
    const char* toStderr = std::getenv("SWG_LOG_STDERR");
    if (toStderr != nullptr && std::strcmp(toStderr, "1") == 0) options |= LOG_PERROR;
    return options;
}

long CSSTrace::Initialize(unsigned int mask) {
    m_traceMask = mask;
    return 0;
}

unsigned int CSSTrace::IsDebugLevelPresent(unsigned int level) const {
    if (level == TRACE_OFF || level >= 32) return 0;
    return m_traceMask.load(std::memory_order_relaxed) & (1u << level);
}

void CSSTrace::ChangeDebugLevel(unsigned int mask) {
    m_traceMask = mask;
    SetDebugLevel();
}

void CSSTrace::SetDebugLevel() {
    if (m_bInitialized) return;
    // An object that was never initialised must still report warnings and errors.
    unsigned int mask = m_traceMask;
    if ((mask & kWarnErr) != kWarnErr || (mask & ~kLevelsMask) != 0) {
        mask &= kLevelsMask;
        mask |= kWarnErr;
    }
    m_traceMask = mask;
}

void CSSTrace::LogErrorEvent(const char* format, ...) {
    openlog(g_szAPP_PROCESS_NAME, SwgSyslogOptions(), kSyslogFacilityDaemon);
    std::string withEnd = std::string(format) + "\n";
    va_list args;
    va_start(args, format);
    SwgVsyslog(LOG_ERR, withEnd.c_str(), args);
    va_end(args);
}

std::string CSSTrace::Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list sizing;
    va_copy(sizing, args);
    const int length = std::vsnprintf(nullptr, 0, format, sizing);
    va_end(sizing);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(&text[0], text.size() + 1, format, args);
    va_end(args);
    return text;
}
