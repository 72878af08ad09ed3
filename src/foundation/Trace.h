// SPDX-License-Identifier: Apache-2.0
// DNTRACE: the one macro every trace line goes through.
#pragma once

#include <string>

#include <boost/thread/lock_guard.hpp>

#include "foundation/SSTrace.h"

// Tests the level before any argument is evaluated, so a line that is off costs a
// pointer test and a mask test. Without a trace object only ERR lines reach syslog.
// The lock spans the level store and the print so the line goes out at its own level;
// the guard releases it even if formatting throws.
#define DNTRACE(level, ...)                                                         \
    do {                                                                            \
        CSSTrace* dn_trace_ = g_pTraceObject;                                       \
        const unsigned int dn_level_ = (level);                                     \
        if (dn_trace_ == nullptr) {                                                 \
            if (dn_level_ == ERR) CSSTrace::LogErrorEvent(__VA_ARGS__);             \
        } else if (dn_trace_->IsDebugLevelPresent(dn_level_)) {                     \
            std::string dn_header_;                                                 \
            dn_trace_->GetLogMsgHeader(dn_level_, dn_header_);                      \
            boost::lock_guard<boost::recursive_mutex> dn_guard_(dn_trace_->m_lock); \
            dn_trace_->m_header = dn_header_;                                       \
            dn_trace_->m_messageLevel = dn_level_;                                  \
            dn_trace_->PrintDebugString(__VA_ARGS__);                               \
        }                                                                           \
    } while (0)
