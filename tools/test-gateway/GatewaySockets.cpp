// SPDX-License-Identifier: Apache-2.0
// Socket steps of the test gateway; every wait also wakes when the stop descriptor is readable.
#include "GatewaySockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "foundation/GlobalUtils.h"

namespace testgw {
namespace {

constexpr std::size_t kMaxHeaderBlock = 64 * 1024;
constexpr std::size_t kRelayChunk = 16 * 1024;

using Clock = std::chrono::steady_clock;

int MsLeft(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

void SetNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL, 0);
    if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

std::string AddressText(const sockaddr_storage& address) {
    char text[INET6_ADDRSTRLEN] = {};
    if (address.ss_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
        inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof(text));
        return "[" + std::string(text) + "]:" + std::to_string(ntohs(v6.sin6_port));
    }
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
    inet_ntop(AF_INET, &v4.sin_addr, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(v4.sin_port));
}

bool IsTestIPv4(uint32_t hostOrder) {
    return (hostOrder >> 24) == 127 || (hostOrder >> 17) == (0xC612U >> 1);  // 198.18.0.0/15
}

// Loopback and the benchmarking networks that tests give their own hosts; nothing else, so
// that the tool never becomes an open relay to the outside.
bool IsTestAddress(const sockaddr* address) {
    if (address->sa_family == AF_INET) {
        return IsTestIPv4(ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr));
    }
    if (address->sa_family != AF_INET6) return false;
    const in6_addr& v6 = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    if (IN6_IS_ADDR_LOOPBACK(&v6)) return true;
    if (IN6_IS_ADDR_V4MAPPED(&v6)) {
        uint32_t v4 = 0;
        std::memcpy(&v4, &v6.s6_addr[12], 4);
        return IsTestIPv4(ntohl(v4));
    }
    static const unsigned char kBenchmark[6] = {0x20, 0x01, 0x00, 0x02, 0x00, 0x00};  // /48
    return std::memcmp(v6.s6_addr, kBenchmark, sizeof(kBenchmark)) == 0;
}

// One non-blocking connect within `timeoutMs`; the descriptor, or -1 with `error` set.
int ConnectOne(const addrinfo* candidate, int timeoutMs, int stopFd, std::string& error) {
    const int fd = socket(candidate->ai_family, candidate->ai_socktype | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        const int saved = errno;
        error = std::string("socket: ") + ErrnoText(saved);
        return -1;
    }
    SetNonBlocking(fd);
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    if (connect(fd, candidate->ai_addr, candidate->ai_addrlen) == 0) return fd;
    int saved = errno;
    if (saved == EINPROGRESS) {
        const WaitResult waited = WaitFor(fd, POLLOUT, timeoutMs, stopFd);
        socklen_t length = sizeof(saved);
        if (waited == WaitResult::Ready &&
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &saved, &length) == 0 && saved == 0) {
            return fd;
        }
        if (waited == WaitResult::Timeout) error = "connect timed out";
        if (waited == WaitResult::Stopped) error = "stopping";
    }
    if (error.empty()) error = std::string("connect: ") + ErrnoText(saved);
    close(fd);
    return -1;
}

struct Direction {
    int from;
    int to;
    std::string pending;
    bool reading = true;
    bool ended = false;  // FIN passed on
};

// One step of a direction after poll. False when the relay must end.
bool StepDirection(Direction& d, short fromEvents, short toEvents) {
    if (d.reading && d.pending.empty() && (fromEvents & (POLLIN | POLLHUP)) != 0) {
        char buffer[kRelayChunk];
        const ssize_t got = recv(d.from, buffer, sizeof(buffer), 0);
        if (got > 0) {
            d.pending.assign(buffer, static_cast<std::size_t>(got));
            toEvents |= POLLOUT;  // try at once; EAGAIN just waits for the next round
        } else if (got == 0) {
            d.reading = false;
        } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            return false;
        }
    }
    if (!d.pending.empty() && (toEvents & POLLOUT) != 0) {
        const ssize_t sent = send(d.to, d.pending.data(), d.pending.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            d.pending.erase(0, static_cast<std::size_t>(sent));
        } else if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            return false;
        }
    }
    if (!d.reading && d.pending.empty() && !d.ended) {
        shutdown(d.to, SHUT_WR);
        d.ended = true;
    }
    return true;
}

}  // namespace

WaitResult WaitFor(int fd, short events, int timeoutMs, int stopFd) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        pollfd fds[2] = {{fd, events, 0}, {stopFd, POLLIN, 0}};
        const int count = fd < 0 ? 1 : 2;
        pollfd* first = fd < 0 ? &fds[1] : &fds[0];
        const int result =
            poll(first, static_cast<nfds_t>(count), timeoutMs < 0 ? -1 : MsLeft(deadline));
        if (result < 0 && errno == EINTR) continue;
        if (result < 0) return WaitResult::Failed;
        if (fds[1].revents != 0) return WaitResult::Stopped;
        if (result == 0) return WaitResult::Timeout;
        return WaitResult::Ready;
    }
}

int OpenListener(const ListenAddress& address, bool refuse, std::string& bound,
                 std::string& error) {
    sockaddr_storage storage{};
    socklen_t length = 0;
    auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (inet_pton(AF_INET, address.host.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(address.port);
        length = sizeof(sockaddr_in);
    } else if (inet_pton(AF_INET6, address.host.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(address.port);
        length = sizeof(sockaddr_in6);
    } else {
        error = "listen address " + address.host + " is not a numeric address";
        return -1;
    }
    const int fd = socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&storage), length) != 0 ||
        (!refuse && listen(fd, 128) != 0) ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
        const int saved = errno;
        error = "cannot listen on " + address.host + ":" + std::to_string(address.port) + ": " +
                ErrnoText(saved);
        if (fd >= 0) close(fd);
        return -1;
    }
    SetNonBlocking(fd);
    bound = AddressText(storage);
    return fd;
}

int ConnectTo(const std::string& host, unsigned short port, bool anyDestination, int timeoutMs,
              int stopFd, std::string& error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int failed = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (failed != 0) {
        error = "cannot resolve " + host + ": " + gai_strerror(failed);
        return -1;
    }
    int fd = -1;
    error.clear();
    for (const addrinfo* candidate = found; candidate != nullptr && fd < 0;
         candidate = candidate->ai_next) {
        if (!anyDestination && !IsTestAddress(candidate->ai_addr)) {
            error = "destination outside the test networks";
            continue;
        }
        error.clear();
        fd = ConnectOne(candidate, timeoutMs, stopFd, error);
    }
    freeaddrinfo(found);
    return fd;
}

bool ReadHeaderBlock(int fd, int timeoutMs, int stopFd, std::string& block, std::string& extra,
                     std::string& error) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::string data;
    for (;;) {
        const std::size_t end = data.find("\r\n\r\n");
        if (end != std::string::npos) {
            block = data.substr(0, end + 4);
            extra = data.substr(end + 4);
            return true;
        }
        if (data.size() > kMaxHeaderBlock) {
            error = "header block larger than 64 KiB";
            return false;
        }
        const WaitResult waited = WaitFor(fd, POLLIN, MsLeft(deadline), stopFd);
        if (waited != WaitResult::Ready) {
            error = waited == WaitResult::Timeout ? "timed out reading the request" : "stopping";
            return false;
        }
        char buffer[4096];
        const ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
        if (got == 0) {
            error = data.empty() ? "closed before sending a request" : "closed mid-request";
            return false;
        }
        if (got < 0 && errno != EAGAIN && errno != EINTR) {
            const int saved = errno;
            error = std::string("recv: ") + ErrnoText(saved);
            return false;
        }
        if (got > 0) data.append(buffer, static_cast<std::size_t>(got));
    }
}

bool SendAll(int fd, const std::string& data, int timeoutMs, int stopFd) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t sent = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (sent > 0) {
            done += static_cast<std::size_t>(sent);
            continue;
        }
        if (sent < 0 && errno != EAGAIN && errno != EINTR) return false;
        if (WaitFor(fd, POLLOUT, MsLeft(deadline), stopFd) != WaitResult::Ready) return false;
    }
    return true;
}

void Relay(int client, int upstream, int stopFd) {
    SetNonBlocking(client);
    SetNonBlocking(upstream);
    Direction up{client, upstream, {}};
    Direction down{upstream, client, {}};
    while (!up.ended || !down.ended) {
        // Read a side only while its last chunk is delivered: the buffers stay bounded.
        const short clientWants = static_cast<short>(
            (up.reading && up.pending.empty() ? POLLIN : 0) | (down.pending.empty() ? 0 : POLLOUT));
        const short upstreamWants =
            static_cast<short>((down.reading && down.pending.empty() ? POLLIN : 0) |
                               (up.pending.empty() ? 0 : POLLOUT));
        // A side with nothing to do is left out (negative fd): poll reports POLLHUP even
        // unasked, and a hung-up side waiting for the other would spin.
        pollfd fds[3] = {{clientWants != 0 ? client : -1, clientWants, 0},
                         {upstreamWants != 0 ? upstream : -1, upstreamWants, 0},
                         {stopFd, POLLIN, 0}};
        if (poll(fds, 3, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[2].revents != 0) return;
        if (((fds[0].revents | fds[1].revents) & (POLLERR | POLLNVAL)) != 0) return;
        if (!StepDirection(up, fds[0].revents, fds[1].revents)) return;
        if (!StepDirection(down, fds[1].revents, fds[0].revents)) return;
    }
}

void ResetAndClose(int fd) {
    const linger hard{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    close(fd);
}

void CloseGracefully(int fd, int stopFd) {
    shutdown(fd, SHUT_WR);
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(1);
    char buffer[4096];
    while (WaitFor(fd, POLLIN, MsLeft(deadline), stopFd) == WaitResult::Ready) {
        const ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) break;
    }
    close(fd);
}

}  // namespace testgw
