// SPDX-License-Identifier: Apache-2.0
// Helpers for tests of threads: polling with a hang guard, a trace that records, and a guard
// for the locale variables.
#pragma once

#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>

#include "support/TraceRecorder.h"

namespace swg_test {

// Upper bound for anything that should happen "soon"; only a guard against hangs.
constexpr std::chrono::seconds kHangGuard{10};

// Polls `done` every `step` until it holds or `limit` passes. Returns whether it held.
template <typename Predicate>
bool WaitUntil(Predicate done, std::chrono::milliseconds limit = kHangGuard,
               std::chrono::milliseconds step = std::chrono::milliseconds(1)) {
    const auto giveUp = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > giveUp) return done();
        std::this_thread::sleep_for(step);
    }
    return true;
}

// The recording trace object (installed as g_pTraceObject for its life, all levels on), with
// counts as int so that they compare with plain numbers. Install it only while no other
// thread logs.
class RecordingTrace : public TraceRecorder {
public:
    // Number of lines at `level` equal to `text`.
    int Count(unsigned int level, const std::string& text) const {
        return static_cast<int>(TraceRecorder::Count(level, text));
    }
    // Number of lines at `level` that start with `prefix`.
    int CountPrefix(unsigned int level, const std::string& prefix) const {
        int n = 0;
        for (const TraceLine& line : Lines()) {
            if (line.level == level && line.text.compare(0, prefix.size(), prefix) == 0) ++n;
        }
        return n;
    }
};

// Clears the locale variables and the data path, and puts them back as found.
class ScopedLocaleEnvironment {
public:
    ScopedLocaleEnvironment() {
        for (const char* name : kNames) {
            if (const char* value = std::getenv(name)) m_saved[name] = value;
            ::unsetenv(name);
        }
    }
    ~ScopedLocaleEnvironment() {
        for (const char* name : kNames) ::unsetenv(name);
        for (const auto& entry : m_saved) ::setenv(entry.first.c_str(), entry.second.c_str(), 1);
    }
    ScopedLocaleEnvironment(const ScopedLocaleEnvironment&) = delete;
    ScopedLocaleEnvironment& operator=(const ScopedLocaleEnvironment&) = delete;

private:
    static constexpr const char* kNames[] = {"LC_ALL", "LC_MESSAGES", "LANG", "SWG_DATA_ROOT"};
    std::map<std::string, std::string> m_saved;
};

}  // namespace swg_test
