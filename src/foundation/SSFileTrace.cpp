// SPDX-License-Identifier: Apache-2.0
// Syslog writer behind g_pTraceObject.
#include "foundation/SSFileTrace.h"

#include <syslog.h>

#include <cstdarg>
#include <sstream>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>

namespace {
constexpr int kSyslogFacilityDaemon = 0x18;

// Level names for the line header, indexed by level.
const char* const trace_heading[] = {"TRACE", "WARN", "ERR",    "THREAD", "USERINFO",
                                     "LOCK",  "LIC",  "BRIDGE", "HEADER", "LISTEN",
                                     "STATS", "API",  "IPC"};
const int ws_to_syslog_level[] = {5, 4, 3, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5};
constexpr unsigned int kLevels = sizeof(ws_to_syslog_level) / sizeof(ws_to_syslog_level[0]);
}  // namespace

int CSSFileTrace::SyslogPriority(unsigned int level) {
    return level < kLevels ? ws_to_syslog_level[level] : LOG_NOTICE;
}

const char* CSSFileTrace::LevelName(unsigned int level) {
    return level < kLevels ? trace_heading[level] : "";
}

long CSSFileTrace::Initialize(const char* identity, const char* /*directory*/,
                              const char* /*fileName*/, int appMode, unsigned int mask,
                              bool /*unused1*/, bool skipOpenlog, unsigned int, unsigned int,
                              unsigned int, unsigned int, unsigned int, unsigned int) {
    if (m_bInitialized) return 0;
    m_traceMask = mask;
    m_identity = identity != nullptr ? identity : "";
    m_appMode = appMode;
    m_bInitialized = true;
    // openlog keeps the pointer it is given, so hand it our own copy.
    if (!skipOpenlog) {
        openlog(m_identity.c_str(), SwgSyslogOptions(), kSyslogFacilityDaemon);
        m_bOpenedLog = true;
    }
    return 0;
}

CSSFileTrace::~CSSFileTrace() {
    // syslog still points at m_identity; closelog drops that pointer before it dangles.
    if (m_bOpenedLog) closelog();
}

void CSSFileTrace::PrintDebugString(const char* format, ...) {
    if (!m_bInitialized) return;
    std::string withEnd = std::string(format) + "\n";
    va_list args;
    va_start(args, format);
    SwgVsyslog(SyslogPriority(m_messageLevel), withEnd.c_str(), args);
    va_end(args);
}

void CSSFileTrace::GetLogMsgHeader(unsigned int level, std::string& header) {
    std::ostringstream out;
    out << LevelName(level) << " | " << boost::this_thread::get_id() << " | "
        << boost::posix_time::to_iso_extended_string(
               boost::posix_time::microsec_clock::local_time())
        << " | ";
    header = out.str();
}
