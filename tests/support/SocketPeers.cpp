// SPDX-License-Identifier: Apache-2.0
// Test peers over real kernel sockets: loopback TCP pairs, listeners, bounded reads and writes.
#include "support/SocketPeers.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace swg_test {

LoopbackListener ListenOnLoopback(int family, int backlog) {
    LoopbackListener listener;
    listener.fd.Reset(::socket(family, SOCK_STREAM, 0));
    if (listener.fd.Get() == -1) return listener;
    if (family == AF_INET6) {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&listener.address);
        in6->sin6_family = AF_INET6;
        in6->sin6_addr = in6addr_loopback;
        listener.length = sizeof(sockaddr_in6);
    } else {
        auto* in4 = reinterpret_cast<sockaddr_in*>(&listener.address);
        in4->sin_family = AF_INET;
        in4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        listener.length = sizeof(sockaddr_in);
    }
    auto* address = reinterpret_cast<sockaddr*>(&listener.address);
    if (::bind(listener.fd.Get(), address, listener.length) == -1 ||
        ::listen(listener.fd.Get(), backlog) == -1 ||
        ::getsockname(listener.fd.Get(), address, &listener.length) == -1)
        listener.fd.Reset();
    return listener;
}

TcpPair MakeTcpPair(int family) {
    TcpPair pair;
    LoopbackListener listener = ListenOnLoopback(family, 1);
    if (listener.fd.Get() == -1) return pair;
    UniqueFd client(::socket(family, SOCK_STREAM, 0));
    if (client.Get() == -1 ||
        ::connect(client.Get(), reinterpret_cast<sockaddr*>(&listener.address), listener.length) ==
            -1)
        return pair;
    UniqueFd server(::accept(listener.fd.Get(), nullptr, nullptr));
    if (server.Get() == -1) return pair;
    pair.a = std::move(client);
    pair.b = std::move(server);
    return pair;
}

namespace {

int RemainingMs(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

bool PollFor(int fd, short events, std::chrono::steady_clock::time_point deadline) {
    pollfd entry{fd, events, 0};
    for (;;) {
        const int ready = ::poll(&entry, 1, RemainingMs(deadline));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

}  // namespace

bool WriteAll(int fd, const std::string& data, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::size_t done = 0;
    while (done < data.size()) {
        if (!PollFor(fd, POLLOUT, deadline)) return false;
        const ssize_t sent =
            ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            done += static_cast<std::size_t>(sent);
        } else if (sent == -1 && errno != EAGAIN && errno != EINTR) {
            return false;
        }
    }
    return true;
}

SocketPairPeer MakeSocketPairPeer() {
    int ends[2] = {-1, -1};
    SocketPairPeer result;
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return result;
    result.agentSide = std::make_unique<CDnSocket>(ends[0]);
    result.peer.Reset(ends[1]);
    return result;
}

void SocketPeerTest::SetUp() {
    SocketPairPeer pair = MakeSocketPairPeer();
    ASSERT_NE(pair.agentSide, nullptr);
    m_sock = std::move(pair.agentSide);
    m_peer = std::move(pair.peer);
    const timeval limit{5, 0};
    ASSERT_EQ(::setsockopt(m_sock->GetSocket(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
}

void SocketPeerTest::PeerSends(const std::string& bytes) {
    ASSERT_TRUE(WriteAll(m_peer.Get(), bytes, std::chrono::seconds(2)));
}

bool ReadExactly(int fd, std::size_t count, std::string& out, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    out.clear();
    char chunk[65536];
    while (out.size() < count) {
        if (!PollFor(fd, POLLIN, deadline)) return false;
        const std::size_t want = std::min(sizeof(chunk), count - out.size());
        const ssize_t got = ::recv(fd, chunk, want, MSG_DONTWAIT);
        if (got == 0) return false;
        if (got > 0) {
            out.append(chunk, static_cast<std::size_t>(got));
        } else if (errno != EAGAIN && errno != EINTR) {
            return false;
        }
    }
    return true;
}

std::string ReadToEnd(int fd, std::chrono::milliseconds timeout) {
    std::string all;
    char chunk[65536];
    while (WaitReadable(fd, timeout)) {
        const ssize_t got = ::recv(fd, chunk, sizeof(chunk), 0);
        if (got <= 0) break;
        all.append(chunk, static_cast<std::size_t>(got));
    }
    return all;
}

bool WaitReadable(int fd, std::chrono::milliseconds timeout) {
    return PollFor(fd, POLLIN, std::chrono::steady_clock::now() + timeout);
}

int PendingBytes(int fd) {
    int count = 0;
    return ::ioctl(fd, FIONREAD, &count) == -1 ? -1 : count;
}

std::string PatternBytes(std::size_t count, unsigned seed) {
    std::string bytes(count, '\0');
    std::uint32_t state = seed * 2654435761u + 1u;
    for (char& byte : bytes) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<char>(state & 0xff);
    }
    return bytes;
}

bool RefuseNetlinkOnThisThread() {
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_socket, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_NETLINK, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program{static_cast<unsigned short>(sizeof(code) / sizeof(code[0])), code};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace swg_test
