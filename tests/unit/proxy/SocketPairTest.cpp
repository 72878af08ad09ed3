// SPDX-License-Identifier: Apache-2.0
// The relay end to end: a client and a server over loopback TCP, CSocketPair between them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "proxy/DnSocket.h"
#include "proxy/SocketPair.h"
#include "support/SocketPeers.h"
#include "support/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using swg_test::PatternBytes;
using swg_test::ReadExactly;
using swg_test::UniqueFd;
using swg_test::WriteAll;

// client <-> local ==relay== remote <-> server. The relay runs on its own thread with the
// pair on that thread's stack, as on a connection thread. Every case runs spliced (SIGPIPE
// ignored, as in the agent) and copied (SIGPIPE left to its default, where the relay must
// not splice).
class SocketPairTest : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        m_savedPipe = std::signal(SIGPIPE, GetParam() ? SIG_IGN : SIG_DFL);
        m_basePipeEnds = OpenPipeEnds();
        swg_test::TcpPair near = swg_test::MakeTcpPair(AF_INET);
        swg_test::TcpPair far = swg_test::MakeTcpPair(AF_INET);
        ASSERT_NE(near.a.Get(), -1);
        ASSERT_NE(far.a.Get(), -1);
        m_client = std::move(near.a);
        m_local = std::make_unique<CDnSocket>(near.b.Release());
        m_remote = std::make_unique<CDnSocket>(far.a.Release());
        m_server = std::move(far.b);
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &m_savedLimit), 0);
    }

    void TearDown() override {
        if (m_relay.valid()) {  // ends a running relay the way the connection thread's Kill does
            m_exit = true;
            (void)m_local->Shutdown(SHUT_RDWR);
            (void)m_remote->Shutdown(SHUT_RDWR);
            m_relay.wait();
        }
        ::setrlimit(RLIMIT_NOFILE, &m_savedLimit);
        std::signal(SIGPIPE, m_savedPipe);
    }

    void StartRelay() {
        m_relay = std::async(std::launch::async, [this] {
            ::pthread_getcpuclockid(::pthread_self(), &m_relayClock);
            m_relayStarted = true;
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

    // "HEAD" was read while sniffing, "TAIL" waits in the local socket.
    void SniffedHeadThenTail() {
        ASSERT_TRUE(m_local->AppendDataToBuffer("HEAD", 4));
        ASSERT_TRUE(WriteAll(m_client.Get(), "TAIL", 1s));
        ASSERT_TRUE(swg_test::WaitReadable(m_local->GetSocket(), 1s));
    }

    // Moves a relay socket to descriptor `target`, raising the descriptor limit as needed;
    // false when the limit cannot be raised.
    bool MoveTo(std::unique_ptr<CDnSocket>& sock, int target) {
        rlimit raised = m_savedLimit;
        raised.rlim_cur = std::max<rlim_t>(raised.rlim_cur, target + 100);
        raised.rlim_max = std::max(raised.rlim_max, raised.rlim_cur);
        if (::setrlimit(RLIMIT_NOFILE, &raised) != 0) return false;
        if (::dup2(sock->GetSocket(), target) != target) return false;
        sock = std::make_unique<CDnSocket>(target);
        return true;
    }

    // Pipe ends open in this process (the test runner's output may be pipes too).
    static int OpenPipeEnds() {
        int count = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            const auto target = std::filesystem::read_symlink(entry.path(), error);
            if (target.string().rfind("pipe:", 0) == 0) ++count;
        }
        return count;
    }

    // Carries 256 KB from `from` to `to` through the relay, so that the direction goes bulk,
    // and checks that it got its pipe (short exchanges copy).
    void BulkGetsAPipe(int from, int to) {
        const std::string bulk = PatternBytes(256 << 10, 13);
        std::string got;
        ASSERT_TRUE(WriteAll(from, bulk, 2s));
        ASSERT_TRUE(ReadExactly(to, bulk.size(), got, 3s));
        ASSERT_TRUE(got == bulk);
        ASSERT_TRUE(swg_test::WaitUntil([&] { return OpenPipeEnds() - m_basePipeEnds == 2; }))
            << "the bulk direction did not get a pipe";
    }

    // Sends from the client without blocking until nothing has gone for 300 ms; the count.
    long FillFromClient() {
        const std::string chunk = PatternBytes(4096, 10);
        long total = 0;
        const auto start = Clock::now();
        auto lastProgress = start;
        while (Clock::now() - lastProgress < 300ms && Clock::now() - start < 5s) {
            const ssize_t sent =
                ::send(m_client.Get(), chunk.data(), chunk.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (sent > 0) {
                total += sent;
                lastProgress = Clock::now();
            } else {
                std::this_thread::sleep_for(5ms);
            }
        }
        return total;
    }

    __sighandler_t m_savedPipe = SIG_DFL;
    int m_basePipeEnds = 0;
    UniqueFd m_client;
    UniqueFd m_server;
    std::unique_ptr<CDnSocket> m_local;
    std::unique_ptr<CDnSocket> m_remote;
    std::atomic<bool> m_exit{false};
    std::atomic<int> m_callbacks{0};
    std::future<int> m_relay;
    std::atomic<bool> m_relayStarted{false};
    clockid_t m_relayClock{};
    rlimit m_savedLimit{};
};

// Lost, doubled or reordered bytes under load in either direction (buffer list bookkeeping),
// also on descriptors above FD_SETSIZE, where glibc's fd_set would overflow.
TEST_P(SocketPairTest, MultiMegabyteTransferBothWaysArrivesIntact) {
    const bool high = MoveTo(m_local, 2000) && MoveTo(m_remote, 2001);
    if (!high) GTEST_LOG_(WARNING) << "relaying on low descriptors only";
    const std::string up = PatternBytes(6 << 20, 1);
    const std::string down = PatternBytes(6 << 20, 2);
    std::string gotUp;
    std::string gotDown;
    StartRelay();
    std::thread clientWriter([&] { EXPECT_TRUE(WriteAll(m_client.Get(), up, 60s)); });
    std::thread serverWriter([&] { EXPECT_TRUE(WriteAll(m_server.Get(), down, 60s)); });
    std::thread serverReader(
        [&] { EXPECT_TRUE(ReadExactly(m_server.Get(), up.size(), gotUp, 60s)); });
    EXPECT_TRUE(ReadExactly(m_client.Get(), down.size(), gotDown, 60s));
    clientWriter.join();
    serverWriter.join();
    serverReader.join();
    EXPECT_TRUE(gotUp == up) << "client to server differs, " << gotUp.size() << " bytes";
    EXPECT_TRUE(gotDown == down) << "server to client differs, " << gotDown.size() << " bytes";
    m_client.Reset();
    EXPECT_EQ(RelayResult(5s), SWG_RELAY_SIDE_FINISHED);
}

// Bytes read while sniffing must reach the remote side before anything read later.
TEST_P(SocketPairTest, SniffedBytesReachRemoteFirst) {
    SniffedHeadThenTail();
    StartRelay();
    std::string got;
    ASSERT_TRUE(ReadExactly(m_server.Get(), 8, got, 2s));
    EXPECT_EQ(got, "HEADTAIL");
}

// A failed flush of sniffed bytes must end the relay at once, before it reads anything more.
TEST_P(SocketPairTest, FailedFlushEndsBeforeAnySelect) {
    SniffedHeadThenTail();
    ASSERT_EQ(m_remote->Shutdown(SHUT_WR), 0);
    StartRelay();
    EXPECT_EQ(RelayResult(2s), -1);
    EXPECT_EQ(swg_test::PendingBytes(m_local->GetSocket()), 4);
}

// A lone byte from the remote must be held about 200 ms, not sent at once nor kept for good;
// bytes following a held byte go behind it and reach the client in one write. Spliced, a
// download first gives the remote-to-client direction its pipe.
TEST_P(SocketPairTest, LoneRemoteByteIsHeldThenSentWithWhatFollows) {
    StartRelay();
    ASSERT_TRUE(swg_test::WaitUntil([&] { return m_relayStarted.load(); }));
    if (GetParam()) {
        ASSERT_NO_FATAL_FAILURE(BulkGetsAPipe(m_server.Get(), m_client.Get()));
    }
    const auto sent = Clock::now();
    ASSERT_TRUE(WriteAll(m_server.Get(), "X", 1s));
    ASSERT_TRUE(swg_test::WaitReadable(m_client.Get(), 3s));
    const auto held = Clock::now() - sent;
    EXPECT_GE(held, 180ms);
    EXPECT_LT(held, 1500ms);
    std::string got;
    ASSERT_TRUE(ReadExactly(m_client.Get(), 1, got, 1s));
    EXPECT_EQ(got, "X");

    const std::string rest = PatternBytes(99, 3);
    ASSERT_TRUE(WriteAll(m_server.Get(), "\x17", 1s));
    ASSERT_TRUE(
        swg_test::WaitUntil([&] { return swg_test::PendingBytes(m_remote->GetSocket()) == 0; }));
    ASSERT_TRUE(WriteAll(m_server.Get(), rest, 1s));
    ASSERT_TRUE(swg_test::WaitReadable(m_client.Get(), 3s));
    char first[4096];
    ASSERT_EQ(::recv(m_client.Get(), first, sizeof(first), MSG_DONTWAIT), 100);
    EXPECT_EQ(std::string(first, 100), "\x17" + rest);
}

// The no-redirect exception must be removed once, at the 513th remote byte and not before;
// local bytes do not count.
TEST_P(SocketPairTest, CallbackFiresOnceAfter512RemoteBytes) {
    StartRelay();
    std::string got;
    const auto pass = [&](int from, int to, std::size_t count, unsigned seed) {
        ASSERT_TRUE(WriteAll(from, PatternBytes(count, seed), 1s));
        ASSERT_TRUE(ReadExactly(to, count, got, 3s));
    };
    pass(m_client.Get(), m_server.Get(), 2000, 4);
    pass(m_server.Get(), m_client.Get(), 500, 5);
    pass(m_server.Get(), m_client.Get(), 12, 6);
    EXPECT_EQ(m_callbacks.load(), 0) << "fired at 512 bytes";
    pass(m_server.Get(), m_client.Get(), 1, 7);
    EXPECT_EQ(m_callbacks.load(), 1);
    pass(m_server.Get(), m_client.Get(), 5000, 8);
    EXPECT_EQ(m_callbacks.load(), 1);
}

// A remote that closes right after its data must not cut off what is still queued for the client.
TEST_P(SocketPairTest, RemoteCloseAfterDataStillDeliversTheData) {
    const std::string reply = PatternBytes(40000, 8);
    ASSERT_TRUE(WriteAll(m_server.Get(), reply, 1s));
    m_server.Reset();
    StartRelay();
    EXPECT_EQ(RelayResult(3s), 0);
    ASSERT_EQ(m_local->CloseSocket(), 0);
    std::string got;
    ASSERT_TRUE(ReadExactly(m_client.Get(), reply.size(), got, 2s));
    EXPECT_TRUE(got == reply);
    char extra = 0;
    EXPECT_EQ(::recv(m_client.Get(), &extra, 1, 0), 0);
}

// A local half-close ends the relay (10058) without passing the half-close on: no Shutdown.
TEST_P(SocketPairTest, LocalHalfCloseEndsRelayWithoutHalfClosingRemote) {
    StartRelay();
    std::string got;
    ASSERT_TRUE(WriteAll(m_client.Get(), "REQ", 1s));
    ASSERT_TRUE(ReadExactly(m_server.Get(), 3, got, 2s));
    ASSERT_EQ(::shutdown(m_client.Get(), SHUT_WR), 0);
    EXPECT_EQ(RelayResult(2s), SWG_RELAY_SIDE_FINISHED);
    EXPECT_FALSE(swg_test::WaitReadable(m_server.Get(), 100ms)) << "remote saw a FIN";
}

// A direction whose buffers are all full must drop its read interest; otherwise the waiting
// bytes make every select return at once and the relay spins.
TEST_P(SocketPairTest, FullDirectionDoesNotSpin) {
    StartRelay();
    ASSERT_TRUE(swg_test::WaitUntil([&] { return m_relayStarted.load(); }));
    std::thread writer([&] { (void)WriteAll(m_client.Get(), PatternBytes(16 << 20, 9), 900ms); });
    std::this_thread::sleep_for(400ms);  // the server reads nothing: both buffers fill
    timespec before{};
    timespec after{};
    ASSERT_EQ(::clock_gettime(m_relayClock, &before), 0);
    std::this_thread::sleep_for(400ms);
    ASSERT_EQ(::clock_gettime(m_relayClock, &after), 0);
    writer.join();
    const long busyUs =
        (after.tv_sec - before.tv_sec) * 1000000L + (after.tv_nsec - before.tv_nsec) / 1000;
    EXPECT_LT(busyUs, 100000) << "the relay used the CPU while nothing could move";
}

// A descriptor of 8192 or more must never be entered in the sets, so that side is never served.
TEST_P(SocketPairTest, DescriptorOf8192OrMoreIsNeverServed) {
    if (!MoveTo(m_local, 8200)) GTEST_SKIP() << "cannot raise RLIMIT_NOFILE to 8300";
    ASSERT_TRUE(WriteAll(m_client.Get(), "ping", 1s));
    ASSERT_TRUE(WriteAll(m_server.Get(), "pong", 1s));
    StartRelay();
    EXPECT_FALSE(swg_test::WaitReadable(m_server.Get(), 700ms));
    EXPECT_FALSE(swg_test::WaitReadable(m_client.Get(), 10ms));
    EXPECT_EQ(swg_test::PendingBytes(m_local->GetSocket()), 4);
    m_exit = true;
    EXPECT_EQ(RelayResult(1500ms), SWG_SOCKET_TIMEOUT);
}

// A direction must hold at most three buffers' worth (48 KB) while its target takes nothing,
// on either path; bytes not in a socket queue (sent counts once: at the receiver) are in the
// relay.
TEST_P(SocketPairTest, StalledDirectionHoldsAtMost48KB) {
    StartRelay();
    ASSERT_TRUE(swg_test::WaitUntil([&] { return m_relayStarted.load(); }));
    // An upload first, so that the direction stalls on its pipe.
    if (GetParam()) {
        ASSERT_NO_FATAL_FAILURE(BulkGetsAPipe(m_client.Get(), m_server.Get()));
    }
    const long written = FillFromClient();
    int clientOut = 0;
    int localIn = 0;
    int remoteOut = 0;
    int serverIn = 0;
    ASSERT_EQ(::ioctl(m_client.Get(), SIOCOUTQNSD, &clientOut), 0);
    ASSERT_EQ(::ioctl(m_local->GetSocket(), SIOCINQ, &localIn), 0);
    ASSERT_EQ(::ioctl(m_remote->GetSocket(), SIOCOUTQNSD, &remoteOut), 0);
    ASSERT_EQ(::ioctl(m_server.Get(), SIOCINQ, &serverIn), 0);
    const long held = written - clientOut - localIn - remoteOut - serverIn;
    EXPECT_GT(held, 0);
    EXPECT_LE(held, 3 * 16384);
}

// With every descriptor below 4096 taken the relay must not make pipes (they would push the
// sockets of a full listener out of the select sets) and must carry the bytes by copying.
TEST_P(SocketPairTest, CrowdedDescriptorsStillRelayByCopying) {
    rlimit raised = m_savedLimit;
    raised.rlim_cur = std::max<rlim_t>(raised.rlim_cur, 4200);
    raised.rlim_max = std::max(raised.rlim_max, raised.rlim_cur);
    if (::setrlimit(RLIMIT_NOFILE, &raised) != 0) GTEST_SKIP() << "cannot raise RLIMIT_NOFILE";
    std::vector<UniqueFd> fillers;
    for (int fd = 0; fd < 4096; ++fd)
        if (::fcntl(fd, F_GETFD) == -1) fillers.emplace_back(::dup2(m_client.Get(), fd));
    StartRelay();
    std::string got;
    ASSERT_TRUE(WriteAll(m_client.Get(), PatternBytes(100000, 11), 2s));
    ASSERT_TRUE(ReadExactly(m_server.Get(), 100000, got, 3s));
    EXPECT_TRUE(got == PatternBytes(100000, 11));
    ASSERT_TRUE(WriteAll(m_server.Get(), PatternBytes(100000, 12), 2s));
    ASSERT_TRUE(ReadExactly(m_client.Get(), 100000, got, 3s));
    EXPECT_TRUE(got == PatternBytes(100000, 12));
    EXPECT_EQ(OpenPipeEnds(), m_basePipeEnds);
}

INSTANTIATE_TEST_SUITE_P(Relay, SocketPairTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& param) {
                             return param.param ? "Spliced" : "Copied";
                         });

}  // namespace
