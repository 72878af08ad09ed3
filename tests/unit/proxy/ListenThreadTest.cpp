// SPDX-License-Identifier: Apache-2.0
// The listener on a free loopback port: accept and hand over, bind failure, stop, descriptor
// limits.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "core/SWGAgent.h"
#include "proxy/ListenThread.h"
#include "support/SocketPeers.h"
#include "support/TestServers.h"
#include "support/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using swg_test::UniqueFd;

class ListenThreadTest : public ::testing::TestWithParam<int> {
protected:
    void TearDown() override {
        if (m_listener) m_listener->Deinitialize();
    }

    // With `fillBelow`, every free descriptor number below it is taken before the loop starts
    // (a blocked accept holds the number it will return).
    bool StartListener(int family, int fillBelow = 0) {
        m_listener = std::make_unique<CDnListenThread>(0);
        if (!m_listener->Initialize(family == AF_INET6)) return false;
        while (fillBelow > 0) {
            const int fd = ::open("/dev/null", O_RDONLY);
            if (fd == -1) break;
            m_fillers.emplace_back(fd);
            if (fd >= fillBelow - 1) break;
        }
        // listen runs on the listener's own thread, after StartThread returns.
        return m_listener->StartThread() == 0 &&
               swg_test::WaitUntil([&] { return m_listener->IsListening(); });
    }

    sockaddr_storage ListenerAddress(int family) const {
        return swg_test::Endpoint(family == AF_INET6 ? "::1" : "127.0.0.1",
                                  m_listener->ListenPort());
    }

    // Sends a record naming `server`, then `payload`, and expects it echoed.
    ::testing::AssertionResult RoundTrip(int family, const sockaddr_storage& server,
                                         const std::string& payload) {
        UniqueFd client = swg_test::ConnectTo(ListenerAddress(family));
        if (client.Get() == -1) return ::testing::AssertionFailure() << "no connection";
        if (!swg_test::WriteAll(client.Get(), swg_test::SessionRecordFor(server) + payload, 5s))
            return ::testing::AssertionFailure() << "write failed";
        std::string echoed;
        if (!swg_test::ReadExactly(client.Get(), payload.size(), echoed, 5s) || echoed != payload)
            return ::testing::AssertionFailure() << "echo was '" << echoed << "'";
        return ::testing::AssertionSuccess();
    }

    swg_test::RecordingTrace m_trace;
    std::unique_ptr<CDnListenThread> m_listener;
    std::vector<UniqueFd> m_fillers;
};

INSTANTIATE_TEST_SUITE_P(Families, ListenThreadTest, ::testing::Values(AF_INET, AF_INET6),
                         [](const ::testing::TestParamInfo<int>& param) {
                             return std::string(param.param == AF_INET6 ? "IPv6" : "IPv4");
                         });

// Accepted connections must reach a worker, one after the other; a port in use must fail
// Initialize; the stop must not hang in accept (Linux does not end a blocking accept on close).
TEST_P(ListenThreadTest, HandsEachAcceptedConnectionToAWorker) {
    ASSERT_TRUE(StartListener(GetParam()));
    swg_test::TestServer server(swg_test::Endpoint(GetParam() == AF_INET6 ? "::1" : "127.0.0.1", 0),
                                swg_test::EchoHandler);
    EXPECT_TRUE(RoundTrip(GetParam(), server.Address(), "first\n"));
    EXPECT_TRUE(RoundTrip(GetParam(), server.Address(), "second\n"));
    EXPECT_EQ(server.Accepted(), 2);

    CDnListenThread second(m_listener->ListenPort());
    EXPECT_FALSE(second.Initialize(GetParam() == AF_INET6));

    const auto start = Clock::now();
    m_listener->Deinitialize();
    m_listener.reset();
    EXPECT_LT(Clock::now() - start, 1s);
}

using ListenThreadLimitTest = ListenThreadTest;

INSTANTIATE_TEST_SUITE_P(Families, ListenThreadLimitTest, ::testing::Values(AF_INET));

// Out of descriptors, the loop must neither spin nor stop the service; it serves the waiting
// connection once descriptors are free again.
TEST_P(ListenThreadLimitTest, RunningOutOfDescriptorsPausesAcceptAndRecovers) {
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(undefined_behavior_sanitizer)
    // The sanitizer runtimes need descriptors of their own for their checks (UBSan's type
    // check reads the process map) and report false errors when none is left.
    GTEST_SKIP() << "needs free descriptors that a sanitizer runtime would take";
#endif
#endif
    swg_test::TestServer server(swg_test::Endpoint("127.0.0.1", 0), swg_test::EchoHandler);
    UniqueFd client(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_TRUE(StartListener(AF_INET, 1 << 30));
    const sockaddr_storage address = ListenerAddress(AF_INET);
    ASSERT_EQ(::connect(client.Get(), reinterpret_cast<const sockaddr*>(&address),
                        swg_test::EndpointLength(address)),
              0);
    const auto start = Clock::now();
    ASSERT_TRUE(swg_test::WaitUntil([&] {
        return m_trace.Count(ERR, "Listener : Invalid connection handle. Error(24)") >= 3;
    }));
    EXPECT_GE(Clock::now() - start, 150ms);  // paced at 100 ms, not spinning
    EXPECT_EQ(m_trace.Count(LISTEN, "Listener : Connection started"), 0);

    m_fillers.clear();
    ASSERT_TRUE(swg_test::WriteAll(client.Get(),
                                   swg_test::SessionRecordFor(server.Address()) + "ok\n", 5s));
    std::string echoed;
    ASSERT_TRUE(swg_test::ReadExactly(client.Get(), 3, echoed, 5s));
    EXPECT_EQ(echoed, "ok\n");
    // The worker secured before the failures served it; one more is secured for the next.
    EXPECT_TRUE(swg_test::WaitUntil(
        [&] { return m_listener->m_ConnectionThreadPool.ActiveCount() == 2u; }));
}

}  // namespace
