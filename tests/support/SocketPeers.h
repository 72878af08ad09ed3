// SPDX-License-Identifier: Apache-2.0
// Test peers over real kernel sockets: socketpairs and loopback TCP pairs, listeners, bounded
// reads and writes.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <string>

#include "foundation/UniqueFd.h"
#include "proxy/DnSocket.h"

namespace swg_test {

using UniqueFd = CUniqueFd;

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

// A stream socketpair: the agent's end in a CDnSocket, the test's end as a descriptor. A null
// socket on failure.
struct SocketPairPeer {
    std::unique_ptr<CDnSocket> agentSide;
    UniqueFd peer;
};
SocketPairPeer MakeSocketPairPeer();

// A fixture: m_sock on one end of a fresh stream socketpair, the test playing the peer on
// m_peer. A read of m_sock that waits for bytes that never come fails after 5 s instead of
// hanging the suite.
class SocketPeerTest : public ::testing::Test {
protected:
    void SetUp() override;
    // Writes `bytes` to the agent's end (2 s bound).
    void PeerSends(const std::string& bytes);

    UniqueFd m_peer;
    std::unique_ptr<CDnSocket> m_sock;
};

// Writes all of `data` within `timeout`, without SIGPIPE; false on error or timeout.
bool WriteAll(int fd, const std::string& data, std::chrono::milliseconds timeout);
// Reads exactly `count` bytes within `timeout` into `out`; false (with what came) on error,
// end of stream or timeout.
bool ReadExactly(int fd, std::size_t count, std::string& out, std::chrono::milliseconds timeout);
// Reads until end of stream, an error, or a wait for more longer than `timeout`; what came.
std::string ReadToEnd(int fd, std::chrono::milliseconds timeout = std::chrono::seconds(2));
// Waits up to `timeout` for `fd` to be readable (data or end of stream).
bool WaitReadable(int fd, std::chrono::milliseconds timeout);
// FIONREAD of `fd`; -1 when the call fails.
int PendingBytes(int fd);
// `count` bytes of a fixed pseudo-random sequence chosen by `seed`, so that lost, doubled or
// reordered bytes change the content.
std::string PatternBytes(std::size_t count, unsigned seed);

// Makes socket(AF_NETLINK, ...) fail with EAFNOSUPPORT on the calling thread only, as on a
// kernel without sock_diag; threads it starts afterwards inherit the filter. False (errno)
// when the filter cannot be installed.
bool RefuseNetlinkOnThisThread();

}  // namespace swg_test
