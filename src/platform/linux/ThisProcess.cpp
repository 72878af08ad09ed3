// SPDX-License-Identifier: Apache-2.0
// Facts about the running process on Linux: the thread id from gettid, the executable from
// /proc/self/exe.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/ThisProcess.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <climits>

int CurrentThreadId() { return static_cast<int>(syscall(SYS_gettid)); }

std::string OwnExecutablePath() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0) return "";
    return std::string(path, static_cast<std::size_t>(length));
}
