// SPDX-License-Identifier: Apache-2.0
// The relay end to end: a client and a server over loopback TCP, CSocketPair between them.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "proxy/DnSocket.h"
#include "proxy/SocketPair.h"
#include "support/SocketPeers.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using swg_test::UniqueFd;

long long MsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

// client <-> local ==relay== remote <-> server. The relay runs on its own thread with the
// pair on that thread's stack, as on a connection thread.
class SocketPairTest : public ::testing::Test {
protected:
    void SetUp() override {
        swg_test::TcpPair near = swg_test::MakeTcpPair(AF_INET);
        swg_test::TcpPair far = swg_test::MakeTcpPair(AF_INET);
        ASSERT_NE(near.a.Get(), -1);
        ASSERT_NE(far.a.Get(), -1);
        m_client = std::move(near.a);
        m_local = std::make_unique<CDnSocket>(near.b.Release());
        m_remote = std::make_unique<CDnSocket>(far.a.Release());
        m_server = std::move(far.b);
    }

    void TearDown() override { StopRelay(); }

    void StartRelay() {
        m_relay = std::async(std::launch::async, [this] {
            boost::function<bool()> callback = [this] {
                ++m_callbacks;
                return true;
            };
            CSocketPair pair(*m_remote, *m_local, m_exit, callback);
            return pair.ProxyLoop();
        });
    }

    // The relay's result if it ended within `timeout`.
    std::optional<int> RelayResult(std::chrono::milliseconds timeout) {
        if (!m_relay.valid() || m_relay.wait_for(timeout) != std::future_status::ready)
            return std::nullopt;
        return m_relay.get();
    }

    // Ends a relay that is still running the way the connection thread's Kill does.
    void StopRelay() {
        if (!m_relay.valid()) return;
        m_exit = true;
        (void)m_local->Shutdown(SHUT_RDWR);
        (void)m_remote->Shutdown(SHUT_RDWR);
        m_relay.wait();
    }

    // Moves a relay socket to descriptor `target`.
    void MoveTo(std::unique_ptr<CDnSocket>& sock, int target) {
        const int moved = ::dup2(sock->GetSocket(), target);
        ASSERT_EQ(moved, target);
        sock = std::make_unique<CDnSocket>(moved);
    }

    bool RaiseFileLimit(rlim_t needed) {
        if (::getrlimit(RLIMIT_NOFILE, &m_savedLimit) != 0) return false;
        m_limitChanged = true;
        rlimit raised = m_savedLimit;
        if (raised.rlim_cur >= needed) return true;
        raised.rlim_cur = needed;
        if (raised.rlim_max < needed) raised.rlim_max = needed;
        return ::setrlimit(RLIMIT_NOFILE, &raised) == 0;
    }

    ~SocketPairTest() override {
        if (m_limitChanged) ::setrlimit(RLIMIT_NOFILE, &m_savedLimit);
    }

    UniqueFd m_client;
    UniqueFd m_server;
    std::unique_ptr<CDnSocket> m_local;
    std::unique_ptr<CDnSocket> m_remote;
    std::atomic<bool> m_exit{false};
    std::atomic<int> m_callbacks{0};
    std::future<int> m_relay;
    rlimit m_savedLimit{};
    bool m_limitChanged = false;
};

// Lost, doubled or reordered bytes under load in either direction (buffer list bookkeeping).
TEST_F(SocketPairTest, MultiMegabyteTransferBothWaysArrivesIntact) {
    const std::string up = swg_test::PatternBytes(6 << 20, 1);
    const std::string down = swg_test::PatternBytes(6 << 20, 2);
    std::string gotUp;
    std::string gotDown;
    StartRelay();
    std::thread clientWriter([&] { EXPECT_TRUE(swg_test::WriteAll(m_client.Get(), up, 60s)); });
    std::thread serverWriter([&] { EXPECT_TRUE(swg_test::WriteAll(m_server.Get(), down, 60s)); });
    std::thread serverReader(
        [&] { EXPECT_TRUE(swg_test::ReadExactly(m_server.Get(), up.size(), gotUp, 60s)); });
    EXPECT_TRUE(swg_test::ReadExactly(m_client.Get(), down.size(), gotDown, 60s));
    clientWriter.join();
    serverWriter.join();
    serverReader.join();
    EXPECT_TRUE(gotUp == up) << "client to server differs, " << gotUp.size() << " bytes";
    EXPECT_TRUE(gotDown == down) << "server to client differs, " << gotDown.size() << " bytes";

    m_client.Reset();
    EXPECT_EQ(RelayResult(5s), SWG_RELAY_SIDE_FINISHED);
    EXPECT_EQ(m_callbacks.load(), 1);
}

// Bytes read while sniffing must reach the remote side before anything read later.
TEST_F(SocketPairTest, SniffedBytesReachRemoteFirst) {
    ASSERT_TRUE(m_local->AppendDataToBuffer("HEAD", 4));
    ASSERT_TRUE(swg_test::WriteAll(m_client.Get(), "TAIL", 1s));
    ASSERT_TRUE(swg_test::WaitReadable(m_local->GetSocket(), 1s));
    StartRelay();
    std::string got;
    ASSERT_TRUE(swg_test::ReadExactly(m_server.Get(), 8, got, 2s));
    EXPECT_EQ(got, "HEADTAIL");
}

// A failed flush of sniffed bytes must end the relay at once, before it reads anything more.
TEST_F(SocketPairTest, FailedFlushEndsBeforeAnySelect) {
    ASSERT_TRUE(m_local->AppendDataToBuffer("HEAD", 4));
    ASSERT_TRUE(swg_test::WriteAll(m_client.Get(), "TAIL", 1s));
    ASSERT_TRUE(swg_test::WaitReadable(m_local->GetSocket(), 1s));
    ASSERT_EQ(m_remote->Shutdown(SHUT_WR), 0);
    StartRelay();
    EXPECT_EQ(RelayResult(2s), -1);
    EXPECT_EQ(swg_test::PendingBytes(m_local->GetSocket()), 4);
}

// A lone byte from the remote must be held about 200 ms, not sent at once nor kept for good.
TEST_F(SocketPairTest, LoneRemoteByteIsDeliveredAfterTheHold) {
    StartRelay();
    std::this_thread::sleep_for(50ms);
    const auto sent = Clock::now();
    ASSERT_TRUE(swg_test::WriteAll(m_server.Get(), "X", 1s));
    ASSERT_TRUE(swg_test::WaitReadable(m_client.Get(), 3s));
    const auto arrived = Clock::now();
    std::string got;
    ASSERT_TRUE(swg_test::ReadExactly(m_client.Get(), 1, got, 1s));
    EXPECT_EQ(got, "X");
    EXPECT_GE(MsBetween(sent, arrived), 180);
    EXPECT_LT(MsBetween(sent, arrived), 1500);
}

// Bytes following a held byte must be appended behind it and reach the client in one write.
TEST_F(SocketPairTest, LoneByteAndFollowingBytesReachClientInOneRead) {
    const std::string rest = swg_test::PatternBytes(99, 3);
    StartRelay();
    std::this_thread::sleep_for(50ms);
    ASSERT_TRUE(swg_test::WriteAll(m_server.Get(), "\x17", 1s));
    std::this_thread::sleep_for(50ms);
    ASSERT_TRUE(swg_test::WriteAll(m_server.Get(), rest, 1s));
    ASSERT_TRUE(swg_test::WaitReadable(m_client.Get(), 3s));
    char first[4096];
    const ssize_t got = ::recv(m_client.Get(), first, sizeof(first), MSG_DONTWAIT);
    ASSERT_EQ(got, 100);
    EXPECT_EQ(std::string(first, 100), "\x17" + rest);
}

// The no-redirect exception must be removed once, at the 513th remote byte and not before.
TEST_F(SocketPairTest, CallbackFiresOnceAfter512RemoteBytes) {
    StartRelay();
    std::string got;
    ASSERT_TRUE(swg_test::WriteAll(m_client.Get(), swg_test::PatternBytes(2000, 4),
                                   1s));  // local bytes do not count
    ASSERT_TRUE(swg_test::ReadExactly(m_server.Get(), 2000, got, 2s));
    ASSERT_TRUE(swg_test::WriteAll(m_server.Get(), swg_test::PatternBytes(500, 5), 1s));
    ASSERT_TRUE(swg_test::ReadExactly(m_client.Get(), 500, got, 2s));
    ASSERT_TRUE(swg_test::WriteAll(m_server.Get(), swg_test::PatternBytes(12, 6), 1s));
    ASSERT_TRUE(swg_test::ReadExactly(m_client.Get(), 12, got, 2s));
    EXPECT_EQ(m_callbacks.load(), 0) << "fired at 512 bytes";

    ASSERT_TRUE(swg_test::WriteAll(m_server.Get(), "Z", 1s));
    ASSERT_TRUE(swg_test::ReadExactly(m_client.Get(), 1, got, 3s));
    EXPECT_EQ(m_callbacks.load(), 1);
    ASSERT_TRUE(swg_test::WriteAll(m_server.Get(), swg_test::PatternBytes(5000, 7), 1s));
    ASSERT_TRUE(swg_test::ReadExactly(m_client.Get(), 5000, got, 2s));
    EXPECT_EQ(m_callbacks.load(), 1);
}

// A remote that closes right after its data must not cut off what is still queued for the client.
TEST_F(SocketPairTest, RemoteCloseAfterDataStillDeliversTheData) {
    const std::string reply = swg_test::PatternBytes(40000, 8);
    ASSERT_TRUE(swg_test::WriteAll(m_server.Get(), reply, 1s));
    m_server.Reset();
    StartRelay();
    EXPECT_EQ(RelayResult(3s), 0);

    ASSERT_EQ(m_local->CloseSocket(), 0);
    std::string got;
    ASSERT_TRUE(swg_test::ReadExactly(m_client.Get(), reply.size(), got, 2s));
    EXPECT_TRUE(got == reply);
    char extra = 0;
    EXPECT_EQ(::recv(m_client.Get(), &extra, 1, 0), 0);
}

// A local half-close ends the relay (10058) without passing the half-close on: no Shutdown.
TEST_F(SocketPairTest, LocalHalfCloseEndsRelayWithoutHalfClosingRemote) {
    StartRelay();
    std::string got;
    ASSERT_TRUE(swg_test::WriteAll(m_client.Get(), "REQ", 1s));
    ASSERT_TRUE(swg_test::ReadExactly(m_server.Get(), 3, got, 2s));
    ASSERT_EQ(::shutdown(m_client.Get(), SHUT_WR), 0);
    EXPECT_EQ(RelayResult(2s), SWG_RELAY_SIDE_FINISHED);
    EXPECT_FALSE(swg_test::WaitReadable(m_server.Get(), 100ms))
        << "remote saw a FIN from the relay";

    // The response comes too late: the relay is gone, and the client only sees the close.
    ASSERT_TRUE(swg_test::WriteAll(m_server.Get(), "RESP", 1s));
    ASSERT_EQ(m_local->CloseSocket(), 0);
    EXPECT_FALSE(swg_test::ReadExactly(m_client.Get(), 1, got, 1s));
    EXPECT_EQ(got, "");
}

// An idle relay must notice the exit flag within its select timeout.
TEST_F(SocketPairTest, ExitFlagEndsIdleRelayWithinASecond) {
    StartRelay();
    std::this_thread::sleep_for(100ms);
    const auto asked = Clock::now();
    m_exit = true;
    EXPECT_EQ(RelayResult(1500ms), SWG_SOCKET_TIMEOUT);
    EXPECT_LT(MsBetween(asked, Clock::now()), 1500);
}

// With exit already set nothing may be relayed, not even the sniffed bytes.
TEST_F(SocketPairTest, ExitFlagSetBeforeStartRelaysNothing) {
    ASSERT_TRUE(m_local->AppendDataToBuffer("HEAD", 4));
    m_exit = true;
    StartRelay();
    EXPECT_EQ(RelayResult(1s), 0);
    EXPECT_FALSE(swg_test::WaitReadable(m_server.Get(), 100ms));
}

// Kill's way to stop a busy relay (descriptors shut down, flag set) must end it promptly.
TEST_F(SocketPairTest, ShutdownUnderRunningRelayEndsIt) {
    StartRelay();
    ASSERT_TRUE(swg_test::WriteAll(m_server.Get(), swg_test::PatternBytes(300000, 9),
                                   2s));  // client never reads
    std::this_thread::sleep_for(100ms);
    m_exit = true;
    ASSERT_EQ(m_local->Shutdown(SHUT_RDWR), 0);
    EXPECT_TRUE(RelayResult(1500ms).has_value());
}

// Descriptors above FD_SETSIZE must be relayed normally: glibc's fd_set would overflow there.
TEST_F(SocketPairTest, RelaysDescriptorsAbove1023) {
    if (!RaiseFileLimit(2100)) GTEST_SKIP() << "cannot raise RLIMIT_NOFILE";
    MoveTo(m_local, 2000);
    MoveTo(m_remote, 2001);
    const std::string up = swg_test::PatternBytes(100000, 10);
    const std::string down = swg_test::PatternBytes(100000, 11);
    StartRelay();
    std::thread serverSide([&] {
        std::string got;
        EXPECT_TRUE(swg_test::WriteAll(m_server.Get(), down, 5s));
        EXPECT_TRUE(swg_test::ReadExactly(m_server.Get(), up.size(), got, 5s));
        EXPECT_TRUE(got == up);
    });
    std::string got;
    EXPECT_TRUE(swg_test::WriteAll(m_client.Get(), up, 5s));
    EXPECT_TRUE(swg_test::ReadExactly(m_client.Get(), down.size(), got, 5s));
    serverSide.join();
    EXPECT_TRUE(got == down);
}

// A descriptor of 8192 or more must never be entered in the sets, so that side is never served.
TEST_F(SocketPairTest, DescriptorOf8192OrMoreIsNeverServed) {
    if (!RaiseFileLimit(8300)) GTEST_SKIP() << "cannot raise RLIMIT_NOFILE to 8300";
    MoveTo(m_local, 8200);
    ASSERT_TRUE(swg_test::WriteAll(m_client.Get(), "ping", 1s));
    ASSERT_TRUE(swg_test::WriteAll(m_server.Get(), "pong", 1s));
    StartRelay();
    EXPECT_FALSE(swg_test::WaitReadable(m_server.Get(), 700ms));
    EXPECT_FALSE(swg_test::WaitReadable(m_client.Get(), 10ms));
    EXPECT_EQ(swg_test::PendingBytes(m_local->GetSocket()), 4);
    m_exit = true;
    EXPECT_EQ(RelayResult(1500ms), SWG_SOCKET_TIMEOUT);
}

}  // namespace
