// SPDX-License-Identifier: Apache-2.0
// DNTRACE: the one macro every trace line goes through.
#pragma once

#include <string>

#include <boost/thread/lock_guard.hpp>

#include "foundation/SSTrace.h"

// Tests the level before any argument is evaluated, so a line that is off costs a
// pointer test and a mask test. Without a trace object only ERR lines reach syslog.
// The lock spans the level store and the print so the line goes out at its own level;
// the guard releases it even if printing throws. The text is formatted before the lock is
// taken: arguments that take locks of their own (the configuration's, say) would otherwise
// nest them inside the trace's, against code that logs while holding them.
#define DNTRACE(level, ...)                                                         \
    do {                                                                            \
        CSSTrace* dn_trace_ = g_pTraceObject;                                       \
        const unsigned int dn_level_ = (level);                                     \
        if (dn_trace_ == nullptr) {                                                 \
            if (dn_level_ == ERR) CSSTrace::LogErrorEvent(__VA_ARGS__);             \
        } else if (dn_trace_->IsDebugLevelPresent(dn_level_)) {                     \
            std::string dn_header_;                                                 \
            dn_trace_->GetLogMsgHeader(dn_level_, dn_header_);                      \
            const std::string dn_text_ = CSSTrace::Format(__VA_ARGS__);             \
            boost::lock_guard<boost::recursive_mutex> dn_guard_(dn_trace_->m_lock); \
            dn_trace_->m_header = dn_header_;                                       \
            dn_trace_->m_messageLevel = dn_level_;                                  \
            dn_trace_->PrintDebugString("%s", dn_text_.c_str());                    \
        }                                                                           \
    } while (0)
