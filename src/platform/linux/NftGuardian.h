// SPDX-License-Identifier: Apache-2.0
// A process that removes the diversion tables when the agent dies without removing it.
#if !defined(__linux__)
#error "Linux adapter"
#endif
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

// The fallback for kernels that refuse owned tables: a shell (sh) that holds one end of a
// socket pair on its standard input, ignores the termination signals and sits in its own
// session. When the agent's end closes without the word "done" (the agent died: SIGKILL,
// abort, out-of-memory kill) it runs `nft delete table inet tsc_swg`, then the same for the
// companion `inet tsc_swg_keep`, in the namespace it was started in, well within a second.
// Destroyed on any thread; not shared.
class CNftGuardian {
public:
    // Starts a guardian in the calling thread's network namespace; null with the reason in
    // `why` when none can be started (no sh, no descriptors).
    static std::unique_ptr<CNftGuardian> Start(std::string& why);
    // Tells the guardian that the table is gone already and reaps it (at most about a
    // second; then it is killed).
    ~CNftGuardian();
    CNftGuardian(const CNftGuardian&) = delete;
    CNftGuardian& operator=(const CNftGuardian&) = delete;

private:
    CNftGuardian(pid_t pid, int link) : m_pid(pid), m_link(link) {}
    pid_t m_pid;
    int m_link;  // the agent's end of the socket pair
};
