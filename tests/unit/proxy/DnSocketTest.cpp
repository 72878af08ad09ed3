// SPDX-License-Identifier: Apache-2.0
// CDnSocket sends, closes and connects, over socketpairs and loopback TCP.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "proxy/DnSocket.h"
#include "support/SocketPeers.h"

namespace {

using namespace std::chrono_literals;
using swg_test::UniqueFd;

struct StreamPair {
    UniqueFd peer;
    std::unique_ptr<CDnSocket> sock;
};

StreamPair MakeStreamPair() {
    int fds[2] = {-1, -1};
    StreamPair pair;
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return pair;
    pair.peer.Reset(fds[0]);
    pair.sock = std::make_unique<CDnSocket>(fds[1]);
    return pair;
}

// A stop request must send nothing at all and still report success.
TEST(DnSocketSendTest, SendCompleteWithStopOrNoLengthSendsNothing) {
    StreamPair pair = MakeStreamPair();
    ASSERT_TRUE(pair.sock);
    EXPECT_EQ(pair.sock->SendComplete("data", 4, 0, true), 0);
    EXPECT_EQ(pair.sock->SendComplete("data", 0, 0, false), 0);
    EXPECT_EQ(pair.sock->SendComplete("data", -5, 0, false), 0);
    EXPECT_FALSE(swg_test::WaitReadable(pair.peer.Get(), 50ms));
}

// A short send must be continued, not reported as the whole.
TEST(DnSocketSendTest, SendCompleteDeliversBufferLargerThanSocketBuffers) {
    StreamPair pair = MakeStreamPair();
    ASSERT_TRUE(pair.sock);
    const std::string payload = swg_test::PatternBytes(4 << 20, 7);
    std::string received;
    std::thread reader([&] {
        EXPECT_TRUE(swg_test::ReadExactly(pair.peer.Get(), payload.size(), received, 20s));
    });
    EXPECT_EQ(pair.sock->SendComplete(payload.data(), static_cast<int>(payload.size()), 0, false),
              static_cast<int>(payload.size()));
    reader.join();
    EXPECT_TRUE(received == payload);
}

// A gone peer must fail the send with -1, not kill the process with SIGPIPE.
TEST(DnSocketSendTest, SendToClosedPeerFailsWithoutSignal) {
    StreamPair pair = MakeStreamPair();
    ASSERT_TRUE(pair.sock);
    pair.peer.Reset();
    EXPECT_EQ(pair.sock->SendComplete("data", 4, 0, false), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(pair.sock->Send("x", 1, 0), -1);
    char byte = 0;
    EXPECT_EQ(pair.sock->Recv(&byte, 1, 0), 0);
}

// A double close, or a destructor that leaks, would close a reused descriptor or run out of them.
TEST(DnSocketLifetimeTest, CloseIsIdempotentAndDestructorCloses) {
    StreamPair pair = MakeStreamPair();
    ASSERT_TRUE(pair.sock);
    const int fd = pair.sock->GetSocket();
    EXPECT_EQ(pair.sock->CloseSocket(), 0);
    EXPECT_EQ(pair.sock->GetSocket(), -1);
    EXPECT_EQ(pair.sock->CloseSocket(), 0);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);

    StreamPair other = MakeStreamPair();
    ASSERT_TRUE(other.sock);
    const int owned = other.sock->GetSocket();
    other.sock.reset();
    EXPECT_EQ(::fcntl(owned, F_GETFD), -1);

    CDnSocket fresh(AF_INET6, SOCK_STREAM, 0);
    EXPECT_GE(fresh.GetSocket(), 0);
}

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
            ASSERT_NE(filler.Get(), -1);
            ::connect(filler.Get(), reinterpret_cast<sockaddr*>(&listener.address),
                      listener.length);
            const int state = CDnVSocket::IsSocketAvailable(filler.Get(), 2, 0, 200000);
            m_fillers.push_back(std::move(filler));
            if (state == SWG_SOCKET_TIMEOUT) return;
        }
        FAIL() << "accept queue never filled";
    }

    // Measures one Connect to `listener`.
    int TimedConnect(swg_test::LoopbackListener& listener, long timeout,
                     std::chrono::milliseconds& took) {
        CDnSocket sock(Family(), SOCK_STREAM, 0);
        const auto start = std::chrono::steady_clock::now();
        const int result = sock.Connect(reinterpret_cast<sockaddr*>(&listener.address),
                                        static_cast<int>(listener.length), timeout);
        took = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - start);
        return result;
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
    ASSERT_EQ(sock.Connect(reinterpret_cast<sockaddr*>(&listener.address),
                           static_cast<int>(listener.length), 2),
              0);
    EXPECT_EQ(::fcntl(sock.GetSocket(), F_GETFL) & O_NONBLOCK, 0);
    std::string peer;
    sock.GetPeerAddress(peer);
    EXPECT_EQ(peer, Family() == AF_INET ? "127.0.0.1" : "::1");
}

// A destination that never answers must give 60 after the timeout, not hang or fail early.
TEST_P(ConnectTest, TimedConnectToFullBacklogTimesOut) {
    swg_test::LoopbackListener listener = swg_test::ListenOnLoopback(Family(), 0);
    ASSERT_NE(listener.fd.Get(), -1);
    FillBacklog(listener);
    std::chrono::milliseconds took{};
    EXPECT_EQ(TimedConnect(listener, 1, took), SWG_SOCKET_TIMEOUT);
    EXPECT_GE(took.count(), 900);
    EXPECT_LT(took.count(), 5000);
}

// Connect(-1) must take the shared timeout, so the gateway connect is bounded in both families.
TEST_P(ConnectTest, DefaultTimeoutComesFromSharedSetting) {
    swg_test::LoopbackListener listener = swg_test::ListenOnLoopback(Family(), 0);
    ASSERT_NE(listener.fd.Get(), -1);
    FillBacklog(listener);
    CDnVSocket::m_dwTimeout = 1;
    std::chrono::milliseconds took{};
    EXPECT_EQ(TimedConnect(listener, -1, took), SWG_SOCKET_TIMEOUT);
    EXPECT_GE(took.count(), 900);
    EXPECT_LT(took.count(), 5000);
}

// A refused connect: errno on the blocking path; on the timed path the first read finds it.
TEST_P(ConnectTest, RefusedConnectIsReportedOnEitherPath) {
    swg_test::LoopbackListener listener = swg_test::ListenOnLoopback(Family(), 1);
    ASSERT_NE(listener.fd.Get(), -1);
    listener.fd.Reset();  // nothing listens on that port now
    std::chrono::milliseconds took{};
    EXPECT_EQ(TimedConnect(listener, 0, took), ECONNREFUSED);

    CDnSocket sock(Family(), SOCK_STREAM, 0);
    const int result = sock.Connect(reinterpret_cast<sockaddr*>(&listener.address),
                                    static_cast<int>(listener.length), 2);
    if (result == 0) {
        char byte = 0;
        EXPECT_EQ(sock.Recv(&byte, 1, 0), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
    } else {
        EXPECT_EQ(result, ECONNREFUSED);
    }
}

}  // namespace

namespace {

// The record made on accept must come out of Recv first, alone, and then the client's bytes.
TEST(DnSocketPrefixTest, RecvServesThePrefixBeforeTheDescriptorAndNeverMixesThem) {
    StreamPair pair = MakeStreamPair();
    ASSERT_TRUE(pair.sock);
    pair.sock->SetReceivePrefix("ABC", 3);
    ASSERT_TRUE(swg_test::WriteAll(pair.peer.Get(), "DEF", 1s));
    char buffer[16] = {};
    ASSERT_EQ(pair.sock->Recv(buffer, 2, 0), 2);
    EXPECT_EQ(std::string(buffer, 2), "AB");
    ASSERT_EQ(pair.sock->Recv(buffer, sizeof(buffer), 0), 1);
    EXPECT_EQ(buffer[0], 'C');
    ASSERT_EQ(pair.sock->Recv(buffer, sizeof(buffer), 0), 3);
    EXPECT_EQ(std::string(buffer, 3), "DEF");
}

// Readiness counts the prefix, so that a sniffer waiting for bytes does not wait in vain.
TEST(DnSocketPrefixTest, ReadinessCountsThePrefixAndPeekKeepsIt) {
    StreamPair pair = MakeStreamPair();
    ASSERT_TRUE(pair.sock);
    pair.sock->SetReceivePrefix("ABCD", 4);
    unsigned long readable = 0;
    int error = -1;
    EXPECT_TRUE(pair.sock->IsDataAvailable(readable, &error));
    EXPECT_EQ(readable, 4u);
    EXPECT_EQ(error, 0);
    ASSERT_TRUE(swg_test::WriteAll(pair.peer.Get(), "xy", 1s));
    ASSERT_TRUE(swg_test::WaitReadable(pair.sock->GetSocket(), 1s));
    EXPECT_EQ(pair.sock->GetReadable(), 6);

    char buffer[8] = {};
    ASSERT_EQ(pair.sock->Recv(buffer, 4, MSG_PEEK), 4);
    EXPECT_EQ(pair.sock->UnreadPrefixLength(), 4);
    ASSERT_EQ(pair.sock->Recv(buffer, 4, 0), 4);
    EXPECT_EQ(pair.sock->UnreadPrefixLength(), 0);
    EXPECT_EQ(pair.sock->GetReadable(), 2);
}

}  // namespace
