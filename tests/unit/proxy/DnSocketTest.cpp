// SPDX-License-Identifier: Apache-2.0
// CDnSocket connects over loopback TCP, timed and blocking, IPv4 and IPv6.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "proxy/DnSocket.h"
#include "support/SocketPeers.h"

namespace {

using namespace std::chrono_literals;
using swg_test::UniqueFd;

// Restores the process-wide connect timeout that a test changed.
class ConnectTest : public ::testing::TestWithParam<int> {
protected:
    void TearDown() override { CDnVSocket::m_dwTimeout = 0; }

    int Family() const { return GetParam(); }

    // Fills the accept queue of a backlog-0 listener, so the next SYN is dropped and a
    // connect to it stays pending.
    void FillBacklog(swg_test::LoopbackListener& listener) {
        for (int i = 0; i < 8; ++i) {
            UniqueFd filler(::socket(Family(), SOCK_STREAM | SOCK_NONBLOCK, 0));
            ::connect(filler.Get(), reinterpret_cast<sockaddr*>(&listener.address),
                      listener.length);
            const int state = CDnVSocket::IsSocketAvailable(filler.Get(), 2, 0, 200000);
            m_fillers.push_back(std::move(filler));
            if (state == SWG_SOCKET_TIMEOUT) return;
        }
        FAIL() << "accept queue never filled";
    }

    int Connect(CDnSocket& sock, swg_test::LoopbackListener& listener, long timeout) {
        return sock.Connect(reinterpret_cast<sockaddr*>(&listener.address),
                            static_cast<int>(listener.length), timeout);
    }

    std::vector<UniqueFd> m_fillers;
};

INSTANTIATE_TEST_SUITE_P(Families, ConnectTest, ::testing::Values(AF_INET, AF_INET6),
                         [](const ::testing::TestParamInfo<int>& param) {
                             return param.param == AF_INET ? "IPv4" : "IPv6";
                         });

// A timed connect must leave the socket blocking, or later blocking reads would spin on EAGAIN.
TEST_P(ConnectTest, TimedConnectSucceedsAndRestoresBlockingMode) {
    swg_test::LoopbackListener listener = swg_test::ListenOnLoopback(Family(), 4);
    ASSERT_NE(listener.fd.Get(), -1);
    CDnSocket sock(Family(), SOCK_STREAM, 0);
    ASSERT_EQ(Connect(sock, listener, 2), 0);
    EXPECT_EQ(::fcntl(sock.GetSocket(), F_GETFL) & O_NONBLOCK, 0);
    std::string peer;
    sock.GetPeerAddress(peer);
    EXPECT_EQ(peer, Family() == AF_INET ? "127.0.0.1" : "::1");
}

// A destination that never answers must give 60 after the timeout, given or (-1) the shared
// one, not hang or fail early.
TEST_P(ConnectTest, TimedConnectToFullBacklogTimesOut) {
    swg_test::LoopbackListener listener = swg_test::ListenOnLoopback(Family(), 0);
    ASSERT_NE(listener.fd.Get(), -1);
    FillBacklog(listener);
    CDnVSocket::m_dwTimeout = 1;
    for (const long timeout : {1L, -1L}) {
        SCOPED_TRACE(timeout);
        CDnSocket sock(Family(), SOCK_STREAM, 0);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Connect(sock, listener, timeout), SWG_SOCKET_TIMEOUT);
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_GE(took, 900ms);
        EXPECT_LT(took, 5s);
    }
}

}  // namespace
