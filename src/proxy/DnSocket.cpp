// SPDX-License-Identifier: Apache-2.0
// CDnSocket: sends, receives and connects on a plain TCP descriptor.
#include "proxy/DnSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/Trace.h"

CDnSocket::CDnSocket(int socket) : CDnVSocket(socket) {}

CDnSocket::CDnSocket(int family, int type, int protocol)
    : CDnVSocket(::socket(family, type, protocol)) {}

CDnSocket::~CDnSocket() { (void)CloseSocket(); }

int CDnSocket::Send(const char* buffer, int length, int /*flags*/) {
    // Callers' flags are ignored on purpose; MSG_NOSIGNAL only turns a gone peer into EPIPE.
    // Under a deadline the send never blocks: it waits for room with the deadline instead.
    const int extra = HasDeadline() ? MSG_DONTWAIT : 0;
    for (;;) {
        if (!WaitBeforeDeadline(POLLOUT)) return -1;
        const int sent = static_cast<int>(
            ::send(m_socket.load(), buffer, static_cast<size_t>(length), MSG_NOSIGNAL | extra));
        if (sent == -1 && extra != 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) continue;
        return sent;
    }
}

int CDnSocket::SendComplete(const char* buffer, int length, int flags, bool stop) {
    if (length < 1 || stop) return 0;
    int total = 0;
    while (total < length) {
        const int sent = Send(buffer + total, length - total, flags);
        if (sent > 0) {
            total += sent;
            continue;
        }
        if (sent == 0) {
            DNTRACE(ERR, "Socket : SendComplete returned 0");
            return -1;
        }
        const int saved = errno;
        // EINTR is retried like EINPROGRESS: a signal is not a failure of the connection.
        if (saved == EINPROGRESS || saved == EINTR) continue;
        // A passed deadline is the job's to report, with its connection.
        if (saved != ECONNRESET && !TimedOut())
            DNTRACE(ERR, "Socket : Failed to send %d bytes. Code : %d", length, saved);
        errno = saved;
        return -1;
    }
    return total;
}

int CDnSocket::Recv(char* buffer, int length, int flags) {
    // Like Receive with the line buffer, the prefix and the descriptor never meet in one call.
    const int fromPrefix = TakeFromPrefix(buffer, length, flags);
    if (fromPrefix > 0) return fromPrefix;
    const int fd = m_socket.load();
    const int extra = HasDeadline() ? MSG_DONTWAIT : 0;
    int received = -1;
    for (;;) {
        if (!WaitBeforeDeadline(POLLIN)) return -1;
        received = static_cast<int>(::recv(fd, buffer, static_cast<size_t>(length), flags | extra));
        if (received != -1 || extra == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) break;
    }
    if (received == -1) {
        const int saved = errno;
        if (saved != ECONNRESET)
            DNTRACE(ERR, "Socket : socket(%d) receive error. Code : %d", fd, saved);
        errno = saved;
    }
    return received;
}

int CDnSocket::Shutdown(int how) { return ::shutdown(m_socket.load(), how); }

int CDnSocket::Connect(const sockaddr* address, int length, long timeout) {
    long wait = timeout;
    if (wait == -1 && m_dwTimeout.load() != 0) wait = static_cast<long>(m_dwTimeout.load());
    if (wait < 1) {
        if (::connect(m_socket.load(), address, static_cast<socklen_t>(length)) == -1) return errno;
        return 0;
    }
    return ConnectAsynchronously(address, length, static_cast<unsigned int>(wait));
}

int CDnSocket::CloseSocket() {
    // exchange: a close from another thread (to wake a blocked reader) and the owner's own
    // close must not both reach close(2) with the same, possibly reused, number.
    const int fd = m_socket.exchange(-1);
    if (fd == -1) return 0;
    return ::close(fd);
}
