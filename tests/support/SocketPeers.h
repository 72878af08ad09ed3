// SPDX-License-Identifier: Apache-2.0
// Test peers over real kernel sockets: loopback TCP pairs, listeners, bounded reads and writes.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <string>

namespace swg_test {

// Closes its descriptor on destruction.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return m_fd; }
    // Gives up ownership; returns the descriptor.
    int Release();
    // Closes the descriptor held, if any, and takes `fd`.
    void Reset(int fd = -1);

private:
    int m_fd = -1;
};

// A loopback listener on port 0 of `family` (AF_INET or AF_INET6); -1 descriptor on failure.
struct LoopbackListener {
    UniqueFd fd;
    sockaddr_storage address{};
    socklen_t length = 0;
};
LoopbackListener ListenOnLoopback(int family, int backlog);

// A connected loopback TCP pair; both descriptors -1 on failure.
struct TcpPair {
    UniqueFd a;
    UniqueFd b;
};
TcpPair MakeTcpPair(int family);

// Writes all of `data` within `timeout`, without SIGPIPE; false on error or timeout.
bool WriteAll(int fd, const std::string& data, std::chrono::milliseconds timeout);
// Reads exactly `count` bytes within `timeout` into `out`; false (with what came) on error,
// end of stream or timeout.
bool ReadExactly(int fd, std::size_t count, std::string& out, std::chrono::milliseconds timeout);
// Reads until end of stream, an error, or a wait for more longer than `timeout`; what came.
std::string ReadToEnd(int fd, std::chrono::milliseconds timeout);
// Waits up to `timeout` for `fd` to be readable (data or end of stream).
bool WaitReadable(int fd, std::chrono::milliseconds timeout);
// FIONREAD of `fd`; -1 when the call fails.
int PendingBytes(int fd);
// `count` bytes of a fixed pseudo-random sequence chosen by `seed`, so that lost, doubled or
// reordered bytes change the content.
std::string PatternBytes(std::size_t count, unsigned seed);

}  // namespace swg_test
