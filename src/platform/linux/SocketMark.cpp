// SPDX-License-Identifier: Apache-2.0
// SO_MARK on Linux.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/SocketMark.h"

#include <sys/socket.h>

#include <cerrno>

int ApplyAgentSocketMark(int fd) {
    const uint32_t mark = SWG_SOCKET_MARK;
    if (setsockopt(fd, SOL_SOCKET, SO_MARK, &mark, sizeof(mark)) != 0) return errno;
    return 0;
}
