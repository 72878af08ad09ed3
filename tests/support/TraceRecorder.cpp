// SPDX-License-Identifier: Apache-2.0
// Test helper: the recording trace object.
#include "support/TraceRecorder.h"

#include <cstdarg>
#include <cstdio>

namespace swg_test {

TraceRecorder::TraceRecorder() : m_previous(g_pTraceObject) {
    m_traceMask = TRACE_MASK_DEBUG;
    m_bInitialized = true;
    g_pTraceObject = this;
}

TraceRecorder::~TraceRecorder() { g_pTraceObject = m_previous; }

void TraceRecorder::PrintDebugString(const char* format, ...) {
    va_list args;
    va_start(args, format);
    char buffer[2048];
    std::vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    std::lock_guard<std::mutex> hold(m_linesLock);
    m_lines.push_back({m_messageLevel, buffer});
}

void TraceRecorder::GetLogMsgHeader(unsigned int /*level*/, std::string& header) { header.clear(); }

std::vector<TraceLine> TraceRecorder::Lines() const {
    std::lock_guard<std::mutex> hold(m_linesLock);
    return m_lines;
}

std::vector<TraceLine> TraceRecorder::With(const std::string& fragment) const {
    std::vector<TraceLine> found;
    for (const TraceLine& line : Lines()) {
        if (line.text.find(fragment) != std::string::npos) found.push_back(line);
    }
    return found;
}

size_t TraceRecorder::Count(unsigned int level, const std::string& text) const {
    size_t count = 0;
    for (const TraceLine& line : Lines()) {
        if (line.level == level && line.text == text) ++count;
    }
    return count;
}

void TraceRecorder::Clear() {
    std::lock_guard<std::mutex> hold(m_linesLock);
    m_lines.clear();
}

}  // namespace swg_test
