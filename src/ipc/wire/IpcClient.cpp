// SPDX-License-Identifier: Apache-2.0
// The client end of the plug-in channel.
#include "ipc/wire/IpcClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/GlobalUtils.h"
#include "ipc/wire/IpcPacket.h"

namespace {
using Clock = std::chrono::steady_clock;

int RemainingMs(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Waits for `events` on `fd` until `deadline`; false on timeout or error.
bool WaitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        pollfd entry{fd, events, 0};
        const int ready = poll(&entry, 1, RemainingMs(deadline));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}
}  // namespace

CIpcClient::~CIpcClient() { Close(); }

void CIpcClient::Close() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
    m_reader = CIpcFrameReader(false);
    m_pending.clear();
}

bool CIpcClient::Connect(uint16_t port, uint32_t identity, std::chrono::milliseconds timeout,
                         std::string& error) {
    Close();
    const Clock::time_point deadline = Clock::now() + timeout;
    m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_fd < 0) {
        error = ErrnoText(errno);
        return false;
    }
    sockaddr_in agent{};
    agent.sin_family = AF_INET;
    agent.sin_port = htons(port);
    agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int result = connect(m_fd, reinterpret_cast<const sockaddr*>(&agent), sizeof(agent));
    if (result != 0 && errno == EINPROGRESS) {
        int soError = 0;
        socklen_t length = sizeof(soError);
        if (!WaitFor(m_fd, POLLOUT, deadline)) {
            soError = ETIMEDOUT;
        } else {
            (void)getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &soError, &length);
        }
        errno = soError;
        result = soError == 0 ? 0 : -1;
    }
    if (result != 0) {
        error = ErrnoText(errno);
        Close();
        return false;
    }
    if (!SendBytes(EncodeIpcIdentity(identity), std::chrono::milliseconds(RemainingMs(deadline)))) {
        error = "the identity could not be sent";
        Close();
        return false;
    }
    return true;
}

bool CIpcClient::SendBytes(const std::string& bytes, std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    std::size_t sent = 0;
    while (m_fd >= 0 && sent < bytes.size()) {
        const ssize_t n = send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<std::size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!WaitFor(m_fd, POLLOUT, deadline)) return false;
        } else {
            return false;
        }
    }
    return m_fd >= 0;
}

bool CIpcClient::Send(const MSG_QUEUE_MSG& message, std::chrono::milliseconds timeout) {
    return SendBytes(EncodeIpcFrame(BuildPacket(message)), timeout);
}

CIpcClient::Received CIpcClient::Receive(MSG_QUEUE_MSG& message,
                                         std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    for (;;) {
        const unsigned char* data = reinterpret_cast<const unsigned char*>(m_pending.data());
        std::size_t size = m_pending.size();
        CIpcFrameReader::Status status = CIpcFrameReader::NeedMore;
        while (size > 0 && status == CIpcFrameReader::NeedMore)
            status = m_reader.Consume(data, size);
        m_pending.erase(0, m_pending.size() - size);
        if (status == CIpcFrameReader::FrameDone) {
            const std::vector<unsigned char>& frame = m_reader.FrameBytes();
            if (ParsePacket(frame.data(), frame.size(), message) != PacketStatus::Ok)
                return Received::Malformed;
            return Received::Message;
        }
        if (status != CIpcFrameReader::NeedMore) return Received::Malformed;
        if (m_fd < 0) return Received::Closed;
        if (!WaitFor(m_fd, POLLIN, deadline)) return Received::TimedOut;
        char buffer[4096];
        const ssize_t n = recv(m_fd, buffer, sizeof(buffer), 0);
        if (n > 0) {
            m_pending.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
            return Received::Closed;
        }
    }
}
