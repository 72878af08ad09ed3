// SPDX-License-Identifier: Apache-2.0
// The real listener on port 5002 in a network namespace of its own: relay, holds, closes, limits.
#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "proxy/ListenThread.h"
#include "support/SocketPeers.h"
#include "support/TestServers.h"
#include "support/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using swg_test::UniqueFd;

// A test host of the namespace, on its loopback interface.
constexpr const char* kHostA = "198.18.0.1";

int Shell(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str());
}

long Entries(const char* folder) {
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
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
        ASSERT_EQ(Shell(std::string("ip link set lo up && ip addr add ") + kHostA + "/32 dev lo"),
                  0);
        StartListener(false);
    }

    void TearDown() override {
        for (auto& listener : m_listeners) listener->Deinitialize();
    }

    void StartListener(bool ipv6) {
        m_listeners.push_back(std::make_unique<CDnListenThread>());
        CDnListenThread& listener = *m_listeners.back();
        EXPECT_TRUE(listener.Initialize(ipv6));
        EXPECT_EQ(listener.StartThread(), 0);
        EXPECT_TRUE(swg_test::WaitUntil([&] { return listener.IsListening(); }));
    }

    CDnConnectionThreadPoolThread& Pool() { return m_listeners.front()->m_ConnectionThreadPool; }

    // A client of the listener that has sent the record naming `destination`, then `payload`.
    static UniqueFd Client(const sockaddr_storage& destination, const std::string& payload = "",
                           const char* listener = "127.0.0.1") {
        UniqueFd client = swg_test::ListenerClient(destination, payload, listener);
        EXPECT_NE(client.Get(), -1);
        return client;
    }

    // `count` clients of `echo`, each echoed "qq\n" (two bytes and more, so that the hold of a
    // lone byte does not pace them); they close when the vector goes.
    std::vector<UniqueFd> EchoedClients(const swg_test::TestServer& echo, int count) {
        std::vector<UniqueFd> clients;
        for (int i = 0; i < count; ++i) clients.push_back(Client(echo.Address(), "qq\n"));
        for (UniqueFd& client : clients) {
            std::string echoed;
            EXPECT_TRUE(swg_test::ReadExactly(client.Get(), 3, echoed, 5s));
        }
        return clients;
    }

    int Started() { return m_trace.Count(LISTEN, "Listener : Connection started"); }

    swg_test::RecordingTrace m_trace;
    std::vector<std::unique_ptr<CDnListenThread>> m_listeners;
};

// Bytes lost in either direction when a close follows the last byte (both ways at once is the
// relay's unit test): 100 MB up with the client's close right behind its last byte; 100 MB
// down with the server's close right behind its last byte. A close must not cut the tail off.
TEST_F(ListenerIntegrationTest, TransfersBothWaysArriveWhole) {
    const std::string large = swg_test::PatternBytes(std::size_t{100} << 20, 5);
    {
        std::string uploaded;
        std::atomic<bool> done{false};
        swg_test::TestServer sink(swg_test::Endpoint(kHostA, 0), [&](int fd) {
            uploaded = swg_test::ReadToEnd(fd, 20s);
            done = true;
        });
        UniqueFd client = Client(sink.Address());
        EXPECT_TRUE(swg_test::WriteAll(client.Get(), large, 60s));
        client.Reset();
        ASSERT_TRUE(swg_test::WaitUntil([&] { return done.load(); }));
        EXPECT_TRUE(uploaded == large) << "uploaded " << uploaded.size() << " bytes";
    }
    {
        // The request is read first: a close over unread bytes would be a reset.
        swg_test::TestServer source(swg_test::Endpoint(kHostA, 0), [&](int fd) {
            std::string request;
            if (swg_test::ReadExactly(fd, 3, request, 5s)) (void)swg_test::WriteAll(fd, large, 60s);
        });
        UniqueFd client = Client(source.Address(), "hi\n");
        const std::string downloaded = swg_test::ReadToEnd(client.Get(), 20s);
        EXPECT_TRUE(downloaded == large) << "downloaded " << downloaded.size() << " bytes";
    }
}

// Kill that does not wake jobs blocked in a read: one waiting for its record, one in a silent
// relay.
TEST_F(ListenerIntegrationTest, KillDuringBlockedReadsEndsTheJobsWithin500Ms) {
    swg_test::TestServer silent(swg_test::Endpoint(kHostA, 0),
                                [](int fd) { (void)swg_test::WaitReadable(fd, 30s); });
    UniqueFd relaying = Client(silent.Address(), "x\n");
    ASSERT_TRUE(silent.WaitForAccepted(1, 5s));
    UniqueFd partial = swg_test::ConnectTo(swg_test::Endpoint("127.0.0.1", 5002));
    ASSERT_TRUE(swg_test::WriteAll(partial.Get(), std::string(100, 'r'), 1s));
    ASSERT_TRUE(swg_test::WaitUntil([&] { return Started() == 2; }));

    const auto killed = Clock::now();
    m_listeners.front()->Kill();
    EXPECT_TRUE(swg_test::WaitReadable(partial.Get(), 500ms));
    EXPECT_TRUE(swg_test::WaitReadable(relaying.Get(), 500ms));
    EXPECT_LT(Clock::now() - killed, 600ms);
}

// The IPv6 listener on [::1]:5002 not relaying over IPv6.
TEST_F(ListenerIntegrationTest, IPv6ListenerRelaysToAnIPv6Destination) {
    StartListener(true);
    swg_test::TestServer echo(swg_test::Endpoint("::1", 0), swg_test::EchoHandler);
    UniqueFd client = Client(echo.Address(), "six\n", "::1");
    std::string echoed;
    ASSERT_TRUE(swg_test::ReadExactly(client.Get(), 4, echoed, 5s));
    EXPECT_EQ(echoed, "six\n");
}

// A connection that nftables redirected carries no record: the listener must make it from
// SO_ORIGINAL_DST and the owner of the client socket. The agent's own socket carries the mark
// that the rule lets pass, or the relay would loop.
TEST_F(ListenerIntegrationTest, RedirectedConnectionIsRelayedToItsOriginalDestination) {
    if (Shell("nft add table ip t && nft add chain ip t o '{ type nat hook output priority -100; "
              "}' && nft add rule ip t o meta mark != 0x5347 tcp dport 8080 redirect to :5002") !=
        0)
        GTEST_SKIP() << "nftables NAT is not available";
    swg_test::TestServer echo(swg_test::Endpoint(kHostA, 8080), swg_test::EchoHandler);
    UniqueFd client = swg_test::ConnectTo(echo.Address());
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), "redirected\n", 1s));
    std::string echoed;
    ASSERT_TRUE(swg_test::ReadExactly(client.Get(), 11, echoed, 5s));
    EXPECT_EQ(echoed, "redirected\n");
    EXPECT_EQ(Started(), 1);
    EXPECT_EQ(m_trace.Count(LISTEN, "Connection : Redirected connection of process " +
                                        std::to_string(::getpid()) + ", record made on accept"),
              1);
    EXPECT_EQ(
        m_trace.Count(LISTEN, "Connection: orig dst_addr=198.18.0.1 and dst_port=8080 from kdf"),
        1);
}

// With all 750 threads of a family busy, the 751st connection must wait in the backlog for
// the first job to end, and is then served.
TEST_F(ListenerIntegrationTest, The751stSimultaneousConnectionWaitsForAThread) {
    swg_test::TestServer stall(swg_test::Endpoint(kHostA, 0), nullptr, 1024, false);
    swg_test::TestServer echo(swg_test::Endpoint(kHostA, 0), swg_test::EchoHandler);
    std::vector<UniqueFd> busy;
    for (int i = 0; i < 750; ++i) busy.push_back(Client(stall.Address(), "x\n"));
    ASSERT_TRUE(swg_test::WaitUntil([&] {
        return m_trace.CountPrefix(BRIDGE, "Connection : Connecting to 198.18.0.1:") == 750;
    }));
    EXPECT_EQ(Pool().ActiveCount(), 750u);

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
    EXPECT_EQ(Pool().ActiveCount(), 750u);
}

// Descriptors or threads leaked per connection: after 2,000 the process holds what it held
// before, plus the nine idle connection threads the pool keeps beside the secured one.
TEST_F(ListenerIntegrationTest, TwoThousandConnectionsLeakNoDescriptorOrThread) {
    swg_test::TestServer echo(swg_test::Endpoint(kHostA, 0), swg_test::EchoHandler);
    // The listener has secured its first worker by now; count it into the baseline.
    ASSERT_TRUE(swg_test::WaitUntil([&] { return Pool().ActiveCount() == 1; }));
    const long descriptors = Entries("/proc/self/fd");
    const long threads = Entries("/proc/self/task");

    const auto deadline = Clock::now() + 120s;
    for (int done = 0; done < 2000 && Clock::now() < deadline; done += 20) {
        (void)EchoedClients(echo, 20);
    }
    ASSERT_TRUE(echo.WaitForAccepted(2000, 10s));
    EXPECT_TRUE(swg_test::WaitUntil([&] {
        return Pool().IdleCount() == 9 && Pool().ActiveCount() == 1 &&
               Entries("/proc/self/fd") == descriptors && Entries("/proc/self/task") == threads + 9;
    })) << "descriptors "
        << Entries("/proc/self/fd") << " (was " << descriptors << "), threads "
        << Entries("/proc/self/task") << " (was " << threads << ")";
}

}  // namespace
