// SPDX-License-Identifier: Apache-2.0
// Test helper: moves the calling thread into a network namespace of its own.
#pragma once

#include <string>

namespace swg_test {

// Enters a fresh network namespace on the calling thread (unshare), and returns the thread
// to its original namespace on destruction. Threads and processes that this thread starts
// meanwhile live in the new namespace; nothing done there touches the host's interfaces or
// ruleset. Needs CAP_SYS_ADMIN.
class NetnsScope {
public:
    NetnsScope();
    ~NetnsScope();
    NetnsScope(const NetnsScope&) = delete;
    NetnsScope& operator=(const NetnsScope&) = delete;

    // True when the thread is in the new namespace; otherwise `Why` says what failed.
    bool Entered() const { return m_entered; }
    const std::string& Why() const { return m_why; }

    // Runs `command` with /bin/sh in the namespace (only when Entered); true on exit 0.
    bool Run(const std::string& command) const;

private:
    int m_home = -1;
    bool m_entered = false;
    std::string m_why;
};

}  // namespace swg_test
