// SPDX-License-Identifier: Apache-2.0
// The real listener on port 5002 in a network namespace of its own: relay, holds, closes, limits.
#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "proxy/ListenThread.h"
#include "support/SocketPeers.h"
#include "support/TestServers.h"
#include "unit/foundation/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using swg_test::UniqueFd;

// Test hosts of the namespace, on its loopback interface.
constexpr const char* kHostA = "198.18.0.1";
constexpr const char* kUnroutable = "198.18.9.9";

int Shell(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str());
}

// Each test runs in a fresh network namespace: the main thread leaves the host's, and every
// thread it starts afterwards (listener, pool, connection threads, test servers) is born in
// the new one. Port 5002 is therefore free, and no byte can leave the namespace.
class ListenerIntegrationTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root: the listener runs in a network namespace of its own";
        if (::unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "unshare(CLONE_NEWNET) failed: " << std::strerror(errno);
        ASSERT_EQ(Shell("ip link set lo up"), 0);
        ASSERT_EQ(Shell(std::string("ip addr add ") + kHostA + "/32 dev lo"), 0);
        StartListener(false);
    }

    void TearDown() override {
        for (auto& listener : m_listeners) listener->Deinitialize();
        m_listeners.clear();
    }

    CDnListenThread& StartListener(
        bool ipv6, std::uint32_t maxThreads = CDnConnectionThreadPoolThread::kMaxThreads) {
        m_listeners.push_back(
            std::make_unique<CDnListenThread>(CDnListenThread::kListenPort, maxThreads));
        CDnListenThread& listener = *m_listeners.back();
        EXPECT_TRUE(listener.Initialize(ipv6));
        EXPECT_EQ(listener.StartThread(), 0);
        EXPECT_TRUE(swg_test::WaitUntil([&] { return listener.IsListening(); }));
        return listener;
    }

    CDnListenThread& Listener() { return *m_listeners.front(); }

    // A client of the listener that has sent the record naming `destination`, then `payload`.
    UniqueFd Client(const sockaddr_storage& destination, const std::string& payload = "",
                    const char* listener = "127.0.0.1") {
        UniqueFd client = swg_test::ConnectTo(swg_test::Endpoint(listener, 5002));
        EXPECT_NE(client.Get(), -1);
        EXPECT_TRUE(swg_test::WriteAll(client.Get(),
                                       swg_test::SessionRecordFor(destination) + payload, 5s));
        return client;
    }

    int Started() { return m_trace.Count(LISTEN, "Listener : Connection started"); }

    swg_test::RecordingTrace m_trace;
    std::vector<std::unique_ptr<CDnListenThread>> m_listeners;
};

// What a handler saw, for the test thread to wait on.
struct Seen {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<swg_test::StreamDigest> digests;
    std::vector<std::string> texts;

    template <typename T>
    void Add(std::vector<T>& to, T value) {
        std::lock_guard<std::mutex> hold(lock);
        to.push_back(std::move(value));
        changed.notify_all();
    }
    bool WaitFor(std::size_t digestsCount, std::size_t textsCount, std::chrono::seconds limit) {
        std::unique_lock<std::mutex> hold(lock);
        return changed.wait_for(hold, limit, [&] {
            return digests.size() >= digestsCount && texts.size() >= textsCount;
        });
    }
};

constexpr std::uint64_t kLarge = 100ull << 20;

// Bytes must pass both ways at once, unchanged, in a small echo exchange.
TEST_F(ListenerIntegrationTest, SmallTransferBothWaysAtOnceIsIntact) {
    swg_test::TestServer echo(swg_test::Endpoint(kHostA, 0), swg_test::EchoHandler);
    UniqueFd client = Client(echo.Address());
    const std::uint64_t size = 1 << 20;
    swg_test::StreamDigest received;
    std::thread reader([&] { received = swg_test::ReceiveDigest(client.Get(), size, 20s); });
    const swg_test::StreamDigest sent = swg_test::SendPattern(client.Get(), size, 3, 20s);
    reader.join();
    EXPECT_EQ(sent.Length(), size);
    EXPECT_EQ(received.Length(), size);
    EXPECT_EQ(received.Value(), sent.Value());
}

// 100 MB from client to server: every byte arrives in order, and the client's close after
// its last byte does not cut the tail off.
TEST_F(ListenerIntegrationTest, LargeUploadArrivesWhole) {
    Seen seen;
    swg_test::TestServer sink(swg_test::Endpoint(kHostA, 0), [&](int fd) {
        seen.Add(seen.digests, swg_test::ReceiveDigest(fd, ~0ull, 120s));
    });
    UniqueFd client = Client(sink.Address());
    const swg_test::StreamDigest sent = swg_test::SendPattern(client.Get(), kLarge, 5, 120s);
    ASSERT_EQ(sent.Length(), kLarge);
    ASSERT_EQ(::shutdown(client.Get(), SHUT_WR), 0);
    ASSERT_TRUE(seen.WaitFor(1, 0, 120s));
    EXPECT_EQ(seen.digests[0].Length(), kLarge);
    EXPECT_EQ(seen.digests[0].Value(), sent.Value());
}

// 100 MB from server to client, then the server closes: all of it still reaches the client.
TEST_F(ListenerIntegrationTest, LargeDownloadArrivesWholeBeforeTheClose) {
    swg_test::TestServer source(swg_test::Endpoint(kHostA, 0),
                                [](int fd) { (void)swg_test::SendPattern(fd, kLarge, 9, 120s); });
    UniqueFd client = Client(source.Address(), "hi\n");
    const swg_test::StreamDigest received = swg_test::ReceiveDigest(client.Get(), ~0ull, 120s);
    EXPECT_EQ(received.Length(), kLarge);
    EXPECT_EQ(received.Value(), swg_test::PatternDigest(kLarge, 9).Value());
}

// A short answer followed at once by the server's close is delivered, then the close.
TEST_F(ListenerIntegrationTest, RemoteCloseAfterDataStillDeliversTheData) {
    swg_test::TestServer server(swg_test::Endpoint(kHostA, 0),
                                [](int fd) { (void)swg_test::WriteAll(fd, "hello world", 1s); });
    UniqueFd client = Client(server.Address(), "hi\n");
    std::string received;
    ASSERT_TRUE(swg_test::ReadExactly(client.Get(), 11, received, 5s));
    EXPECT_EQ(received, "hello world");
    char byte = 0;
    ASSERT_TRUE(swg_test::WaitReadable(client.Get(), 5s));
    EXPECT_EQ(::recv(client.Get(), &byte, 1, 0), 0);
}

// A lone byte (a TLS record header, say) is held back 200 ms so that its record can follow.
TEST_F(ListenerIntegrationTest, LoneByteFromTheServerIsDeliveredAfter200Ms) {
    std::atomic<std::int64_t> sentAt{0};
    swg_test::TestServer server(swg_test::Endpoint(kHostA, 0), [&](int fd) {
        std::string go;
        if (!swg_test::ReadExactly(fd, 3, go, 5s)) return;
        sentAt = Clock::now().time_since_epoch().count();
        (void)swg_test::WriteAll(fd, "\x16", 1s);
        (void)swg_test::WaitReadable(fd, 10s);  // stalls until the client goes
    });
    UniqueFd client = Client(server.Address(), "go\n");
    std::string received;
    ASSERT_TRUE(swg_test::ReadExactly(client.Get(), 1, received, 5s));
    const auto arrived = Clock::now().time_since_epoch().count();
    const auto heldMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                            Clock::duration(arrived - sentAt.load()))
                            .count();
    EXPECT_GE(heldMs, 200);
    EXPECT_LT(heldMs, 1000);
}

// Bytes the client sent right behind its record, before any relay existed, come first.
TEST_F(ListenerIntegrationTest, ClientDataSentBeforeTheRelayReachesTheServerFirst) {
    Seen seen;
    swg_test::TestServer server(swg_test::Endpoint(kHostA, 0), [&](int fd) {
        std::string text;
        (void)swg_test::ReadExactly(fd, 10, text, 5s);
        seen.Add(seen.texts, text);
    });
    UniqueFd client = Client(server.Address(), "EARLY\n");
    ASSERT_TRUE(server.WaitForAccepted(1, 5s));
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), "LATE", 1s));
    ASSERT_TRUE(seen.WaitFor(0, 1, 5s));
    EXPECT_EQ(seen.texts[0], "EARLY\nLATE");
}

// A client gone before its record is whole: no byte back, nothing connected on its behalf.
TEST_F(ListenerIntegrationTest, ClientClosingBeforeTheRecordIsCompleteEndsWithNoWord) {
    swg_test::TestServer server(swg_test::Endpoint(kHostA, 0), swg_test::EchoHandler);
    UniqueFd client = swg_test::ConnectTo(swg_test::Endpoint("127.0.0.1", 5002));
    ASSERT_TRUE(swg_test::WriteAll(
        client.Get(), swg_test::SessionRecordFor(server.Address()).substr(0, 300), 1s));
    ASSERT_EQ(::shutdown(client.Get(), SHUT_WR), 0);
    std::string received;
    EXPECT_FALSE(swg_test::ReadExactly(client.Get(), 1, received, 2s));
    EXPECT_TRUE(received.empty());
    EXPECT_EQ(server.Accepted(), 0);
    EXPECT_TRUE(swg_test::WaitUntil([&] {
        return m_trace.Count(LISTEN, "Connection : Failed to read ngc_session_info from socket") ==
               1;
    }));
}

// Kill must wake jobs blocked in a read: one waiting for its record, one in a silent relay.
TEST_F(ListenerIntegrationTest, KillDuringBlockedReadsEndsTheJobsWithin500Ms) {
    swg_test::TestServer silent(swg_test::Endpoint(kHostA, 0),
                                [](int fd) { (void)swg_test::WaitReadable(fd, 30s); });
    UniqueFd relaying = Client(silent.Address(), "x\n");
    ASSERT_TRUE(silent.WaitForAccepted(1, 5s));
    UniqueFd partial = swg_test::ConnectTo(swg_test::Endpoint("127.0.0.1", 5002));
    ASSERT_TRUE(swg_test::WriteAll(partial.Get(), std::string(100, 'r'), 1s));
    ASSERT_TRUE(swg_test::WaitUntil([&] { return Started() == 2; }));
    std::this_thread::sleep_for(100ms);

    const auto killed = Clock::now();
    Listener().Kill();
    EXPECT_TRUE(swg_test::WaitReadable(partial.Get(), 500ms));
    EXPECT_TRUE(swg_test::WaitReadable(relaying.Get(), 500ms));
    EXPECT_LT(Clock::now() - killed, 600ms);
}

// A record naming the listener itself would feed the agent its own connection.
TEST_F(ListenerIntegrationTest, LoopToTheListenerItselfIsClosed) {
    UniqueFd client = Client(swg_test::Endpoint("127.0.0.1", 5002), "x");
    std::string received;
    EXPECT_FALSE(swg_test::ReadExactly(client.Get(), 1, received, 2s));
    EXPECT_EQ(m_trace.CountPrefix(WARN, "Connection : Original destination is the agent's own"), 1);
    EXPECT_EQ(Started(), 1);  // no second connection came back to the listener
}

// Two failed connects, one second apart, end the job; the client sees only the close.
TEST_F(ListenerIntegrationTest, DestinationThatCannotBeReachedTwiceClosesTheClient) {
    const auto start = Clock::now();
    UniqueFd client = Client(swg_test::Endpoint(kUnroutable, 80), "hello\n");
    std::string received;
    EXPECT_FALSE(swg_test::ReadExactly(client.Get(), 1, received, 5s));
    EXPECT_TRUE(received.empty());
    EXPECT_GE(Clock::now() - start, 1s);
    EXPECT_EQ(m_trace.CountPrefix(ERR, "Connection : Failed to connect externally. Code : " +
                                           std::to_string(ENETUNREACH) + ", retry only once"),
              1);
    EXPECT_EQ(m_trace.Count(ERR, "Connection : Failed to connect externally. Code : " +
                                     std::to_string(ENETUNREACH)),
              1);
}

// The IPv6 listener on [::1]:5002 relays over IPv6 as well.
TEST_F(ListenerIntegrationTest, IPv6ListenerRelaysToAnIPv6Destination) {
    StartListener(true);
    swg_test::TestServer echo(swg_test::Endpoint("::1", 0), swg_test::EchoHandler);
    UniqueFd client = Client(echo.Address(), "six\n", "::1");
    std::string echoed;
    ASSERT_TRUE(swg_test::ReadExactly(client.Get(), 4, echoed, 5s));
    EXPECT_EQ(echoed, "six\n");
}

// A connection that nftables redirected carries no record: the listener side makes it from
// SO_ORIGINAL_DST and the owner of the client socket, and the relay goes to the original
// destination. The agent's own socket carries the mark that the rule lets pass.
TEST_F(ListenerIntegrationTest, RedirectedConnectionIsRelayedToItsOriginalDestination) {
    if (Shell("nft add table ip t") != 0 ||
        Shell("nft add chain ip t o '{ type nat hook output priority -100; }'") != 0 ||
        Shell("nft add rule ip t o meta mark != 0x5347 tcp dport 8080 redirect to :5002") != 0)
        GTEST_SKIP() << "nftables NAT is not available";
    swg_test::TestServer echo(swg_test::Endpoint(kHostA, 8080), swg_test::EchoHandler);
    ASSERT_TRUE(echo.Ok());
    UniqueFd client = swg_test::ConnectTo(echo.Address());
    ASSERT_NE(client.Get(), -1);
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), "redirected\n", 1s));
    std::string echoed;
    ASSERT_TRUE(swg_test::ReadExactly(client.Get(), 11, echoed, 5s));
    EXPECT_EQ(echoed, "redirected\n");
    EXPECT_EQ(Started(), 1);
    EXPECT_EQ(m_trace.Count(LISTEN, "Connection : Redirected connection of process " +
                                        std::to_string(::getpid()) + ", record made on accept"),
              1);
    EXPECT_EQ(m_trace.Count(LISTEN,
                            "Connection: orig dst_addr=198.18.0.1 and dst_port=8080 "
                            "from kdf"),
              1);
}

// With all 750 threads of a family busy, the 751st connection waits in the backlog for the
// first job to end, and is then served.
TEST_F(ListenerIntegrationTest, The751stSimultaneousConnectionWaitsForAThread) {
    swg_test::TestServer stall(swg_test::Endpoint(kHostA, 0), nullptr, 1024, false);
    swg_test::TestServer echo(swg_test::Endpoint(kHostA, 0), swg_test::EchoHandler);
    std::vector<UniqueFd> busy;
    for (int i = 0; i < 750; ++i) busy.push_back(Client(stall.Address(), "x\n"));
    ASSERT_TRUE(swg_test::WaitUntil([&] {
        return m_trace.CountPrefix(BRIDGE, "Connection : Connecting to 198.18.0.1:") == 750;
    }));
    EXPECT_EQ(Listener().m_ConnectionThreadPool.ActiveCount(), 750u);

    UniqueFd waiting = Client(echo.Address(), "ping\n");
    std::string echoed;
    EXPECT_FALSE(swg_test::ReadExactly(waiting.Get(), 5, echoed, 500ms));
    EXPECT_EQ(m_trace.Count(THREAD,
                            "Connection Pool  : Failed to get a thread.  Waiting for an "
                            "available thread"),
              1);
    EXPECT_EQ(Started(), 750);

    busy[17].Reset();  // one job ends
    ASSERT_TRUE(swg_test::ReadExactly(waiting.Get(), 5, echoed, 5s));
    EXPECT_EQ(echoed, "ping\n");
    EXPECT_EQ(Listener().m_ConnectionThreadPool.ActiveCount(), 750u);
}

// Threads left idle are given up at the next 3-second tick while more than ten exist in all:
// ten stay, one of them the worker the listener has secured for its next accept.
TEST_F(ListenerIntegrationTest, IdleThreadsAboveTenAreTrimmedAtTheNextTick) {
    swg_test::TestServer echo(swg_test::Endpoint(kHostA, 0), swg_test::EchoHandler);
    std::vector<UniqueFd> clients;
    for (int i = 0; i < 25; ++i) clients.push_back(Client(echo.Address(), "xy\n"));
    for (UniqueFd& client : clients) {
        std::string echoed;
        ASSERT_TRUE(swg_test::ReadExactly(client.Get(), 3, echoed, 5s));
    }
    clients.clear();
    CDnConnectionThreadPoolThread& pool = Listener().m_ConnectionThreadPool;
    EXPECT_TRUE(
        swg_test::WaitUntil([&] { return pool.IdleCount() == 9 && pool.ActiveCount() == 1; }));
}

// After 2,000 connections the process holds the descriptors and threads it held before, plus
// the nine idle connection threads that the pool keeps beside the listener's secured one.
TEST_F(ListenerIntegrationTest, TwoThousandConnectionsLeakNoDescriptorOrThread) {
    swg_test::TestServer echo(swg_test::Endpoint(kHostA, 0), swg_test::EchoHandler);
    CDnConnectionThreadPoolThread& pool = Listener().m_ConnectionThreadPool;
    // The listener has secured its first worker by now; count it into the baseline.
    ASSERT_TRUE(swg_test::WaitUntil([&] { return pool.ActiveCount() == 1; }));
    const int descriptors = swg_test::CountOpenDescriptors();
    const int threads = swg_test::CountThreads();

    const auto deadline = Clock::now() + 120s;
    constexpr int kBatch = 20;
    for (int done = 0; done < 2000 && Clock::now() < deadline; done += kBatch) {
        std::vector<UniqueFd> batch;
        // Two bytes, so that the relay's hold of a lone byte does not pace the loop.
        for (int i = 0; i < kBatch; ++i) batch.push_back(Client(echo.Address(), "qq\n"));
        for (UniqueFd& client : batch) {
            std::string echoed;
            ASSERT_TRUE(swg_test::ReadExactly(client.Get(), 3, echoed, 5s));
        }
    }
    ASSERT_TRUE(echo.WaitForAccepted(2000, 10s));
    EXPECT_TRUE(swg_test::WaitUntil([&] {
        return pool.IdleCount() == 9 && pool.ActiveCount() == 1 &&
               swg_test::CountOpenDescriptors() == descriptors &&
               swg_test::CountThreads() == threads + 9;
    })) << "descriptors "
        << swg_test::CountOpenDescriptors() << " (was " << descriptors << "), threads "
        << swg_test::CountThreads() << " (was " << threads << "), idle " << pool.IdleCount()
        << ", active " << pool.ActiveCount();
}

}  // namespace
