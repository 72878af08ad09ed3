// SPDX-License-Identifier: Apache-2.0
// Test helper: per-thread network namespaces.
#include "support/NetnsScope.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace swg_test {
namespace {
constexpr char kThreadNetns[] = "/proc/thread-self/ns/net";

ino_t InodeOf(const char* path) {
    struct stat info {};
    return stat(path, &info) == 0 ? info.st_ino : 0;
}
}  // namespace

NetnsScope::NetnsScope() {
    m_home = open(kThreadNetns, O_RDONLY | O_CLOEXEC);
    if (m_home < 0) {
        m_why = std::string("cannot open ") + kThreadNetns + ": " + std::strerror(errno);
        return;
    }
    const ino_t home = InodeOf(kThreadNetns);
    if (unshare(CLONE_NEWNET) != 0) {
        m_why = std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno);
        return;
    }
    if (home == 0 || InodeOf(kThreadNetns) == home) {
        m_why = "the thread did not change its network namespace";
        return;
    }
    m_entered = true;
}

NetnsScope::~NetnsScope() {
    if (m_home < 0) return;
    if (m_entered && setns(m_home, CLONE_NEWNET) != 0) std::abort();
    close(m_home);
}

bool NetnsScope::Run(const std::string& command) const {
    if (!m_entered) return false;
    // fork copies the calling thread, and with it the thread's namespace.
    const int status = std::system(command.c_str());
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace swg_test
