// SPDX-License-Identifier: Apache-2.0
// Helpers for the thread and event tests: polling with a hang guard, and a trace that records.
#pragma once

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/SSTrace.h"

namespace swg_test {

// Upper bound for anything that should happen "soon"; only a guard against hangs.
constexpr std::chrono::seconds kHangGuard{10};

// Polls `done` every millisecond until it holds or kHangGuard passes. Returns whether it held.
template <typename Predicate>
bool WaitUntil(Predicate done) {
    const auto giveUp = std::chrono::steady_clock::now() + kHangGuard;
    while (!done()) {
        if (std::chrono::steady_clock::now() > giveUp) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A trace object that keeps every line with its level, installed as g_pTraceObject for the
// life of the object (all levels on). Install it only while no other thread logs.
class RecordingTrace : public CSSTrace {
public:
    RecordingTrace() : m_previous(g_pTraceObject) {
        Initialize(TRACE_MASK_DEBUG);
        g_pTraceObject = this;
    }
    ~RecordingTrace() override { g_pTraceObject = m_previous; }

    void PrintDebugString(const char* format, ...) override __attribute__((format(printf, 2, 3))) {
        char text[1024];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        std::lock_guard<std::mutex> hold(m_linesLock);
        m_lines.emplace_back(m_messageLevel, text);
    }
    void GetLogMsgHeader(unsigned int /*level*/, std::string& header) override { header.clear(); }

    // Number of lines at `level` equal to `text`.
    int Count(unsigned int level, const std::string& text) {
        std::lock_guard<std::mutex> hold(m_linesLock);
        int n = 0;
        for (const auto& line : m_lines) {
            if (line.first == level && line.second == text) ++n;
        }
        return n;
    }
    // Number of lines at `level` that start with `prefix`.
    int CountPrefix(unsigned int level, const std::string& prefix) {
        std::lock_guard<std::mutex> hold(m_linesLock);
        int n = 0;
        for (const auto& line : m_lines) {
            if (line.first == level && line.second.compare(0, prefix.size(), prefix) == 0) ++n;
        }
        return n;
    }

private:
    CSSTrace* m_previous;
    std::mutex m_linesLock;
    std::vector<std::pair<unsigned int, std::string>> m_lines;
};

}  // namespace swg_test
