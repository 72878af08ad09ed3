// SPDX-License-Identifier: Apache-2.0
// One connection job end to end over loopback: record, bypass connect, relay, close, Kill.
#include "proxy/ConnectionThread.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "proxy/DnSocket.h"
#include "support/SocketPeers.h"
#include "support/TestServers.h"
#include "unit/foundation/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using swg_test::UniqueFd;

constexpr std::int32_t kRelaySideFinished = 10058;

// Keeps the result of each job, which the event thread does not hand out.
class CJobThread : public CDnConnectionThread {
public:
    long ProcessEvent() override {
        const long result = CDnConnectionThread::ProcessEvent();
        m_result = result;
        return result;
    }
    std::atomic<long> m_result{-12345};
};

class ConnectionThreadTest : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_thread.Initialize());
        ASSERT_EQ(m_thread.StartThread(), 0);
    }
    void TearDown() override {
        m_thread.Kill();
        m_thread.Wait();
        m_thread.Deinitialize();
    }

    int Family() const { return GetParam(); }
    const char* Loopback() const { return Family() == AF_INET6 ? "::1" : "127.0.0.1"; }

    // Hands the thread a new loopback connection; returns the client's end.
    UniqueFd StartJob() {
        swg_test::TcpPair pair = swg_test::MakeTcpPair(Family());
        EXPECT_NE(pair.a.Get(), -1);
        m_accepted = pair.b.Get();
        m_done.reset();
        m_thread.m_result = -12345;
        EXPECT_EQ(m_thread.Start(m_done, new CDnSocket(pair.b.Release()), nullptr,
                                 Family() == AF_INET6, true),
                  0);
        return std::move(pair.a);
    }

    // Waits for the end of the job; false when it did not end within `limit`.
    bool JobEnded(std::chrono::milliseconds limit) {
        return m_done.timed_wait(boost::posix_time::microsec_clock::universal_time() +
                                 boost::posix_time::milliseconds(limit.count()));
    }

    swg_test::RecordingTrace m_trace;
    CJobThread m_thread;
    boost_ext::condition_event m_done{false};
    int m_accepted = -1;
};

INSTANTIATE_TEST_SUITE_P(Families, ConnectionThreadTest, ::testing::Values(AF_INET, AF_INET6),
                         [](const ::testing::TestParamInfo<int>& param) {
                             return std::string(param.param == AF_INET6 ? "IPv6" : "IPv4");
                         });

// The record's destination must be where the job connects, and bytes must pass both ways.
TEST_P(ConnectionThreadTest, RelaysBothWaysToTheDestinationInTheRecord) {
    swg_test::TestServer server(swg_test::Endpoint(Loopback(), 0), swg_test::EchoHandler);
    ASSERT_TRUE(server.Ok());
    UniqueFd client = StartJob();
    ASSERT_TRUE(swg_test::WriteAll(client.Get(),
                                   swg_test::SessionRecordFor(server.Address()) + "hello\n", 5s));
    std::string echoed;
    ASSERT_TRUE(swg_test::ReadExactly(client.Get(), 6, echoed, 5s));
    EXPECT_EQ(echoed, "hello\n");
    EXPECT_EQ(server.Accepted(), 1);

    client.Reset();
    ASSERT_TRUE(JobEnded(5s));
    EXPECT_EQ(m_thread.m_result, kRelaySideFinished);
    EXPECT_EQ(m_thread.GetStatsConnMode(), 2);
}

// The record may come in several segments; each Recv asks only for what is missing.
TEST_P(ConnectionThreadTest, RecordInPiecesIsCollectedWithoutTakingClientBytes) {
    swg_test::TestServer server(swg_test::Endpoint(Loopback(), 0), swg_test::EchoHandler);
    UniqueFd client = StartJob();
    const std::string record = swg_test::SessionRecordFor(server.Address());
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), record.substr(0, 3), 1s));
    std::this_thread::sleep_for(30ms);
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), record.substr(3, 500), 1s));
    std::this_thread::sleep_for(30ms);
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), record.substr(503) + "abc\n", 1s));
    std::string echoed;
    ASSERT_TRUE(swg_test::ReadExactly(client.Get(), 4, echoed, 5s));
    EXPECT_EQ(echoed, "abc\n");
}

// A -1 on the first read ends the record loop as if it were complete: the job goes on with
// the destination its thread kept from the last job.
TEST_P(ConnectionThreadTest, FailedFirstReadGoesOnWithTheLastJobsDestination) {
    swg_test::TestServer server(swg_test::Endpoint(Loopback(), 0), swg_test::EchoHandler);
    {
        UniqueFd first = StartJob();
        ASSERT_TRUE(swg_test::WriteAll(
            first.Get(), swg_test::SessionRecordFor(server.Address()) + "first\n", 1s));
        ASSERT_TRUE(server.WaitForAccepted(1, 5s));
    }
    ASSERT_TRUE(JobEnded(5s));

    // The next job's socket gives up on a read after 50 ms: recv returns -1 (EAGAIN).
    swg_test::TcpPair pair = swg_test::MakeTcpPair(Family());
    const timeval limit{0, 50000};
    ASSERT_EQ(::setsockopt(pair.b.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
    m_done.reset();
    ASSERT_EQ(m_thread.Start(m_done, new CDnSocket(pair.b.Release()), nullptr, Family() == AF_INET6,
                             true),
              0);
    // The client speaks once the record read has given up, well within the wait for its
    // first bytes.
    std::this_thread::sleep_for(200ms);
    ASSERT_TRUE(swg_test::WriteAll(pair.a.Get(), "ping\n", 1s));
    ASSERT_TRUE(server.WaitForAccepted(2, 5s));
    std::string echoed;
    ASSERT_TRUE(swg_test::ReadExactly(pair.a.Get(), 5, echoed, 5s));
    EXPECT_EQ(echoed, "ping\n");
}

// A -1 after part of the record takes one byte off the count: the gap is filled by the
// client's first byte after the record, which the destination then never sees.
TEST_P(ConnectionThreadTest, FailedReadInsideTheRecordCostsOneByte) {
    swg_test::TestServer server(swg_test::Endpoint(Loopback(), 0), swg_test::EchoHandler);
    swg_test::TcpPair pair = swg_test::MakeTcpPair(Family());
    // One read gives up after 200 ms; the rest of the record comes after 300 ms, so exactly
    // one read fails.
    const timeval limit{0, 200000};
    ASSERT_EQ(::setsockopt(pair.b.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
    m_done.reset();
    ASSERT_EQ(m_thread.Start(m_done, new CDnSocket(pair.b.Release()), nullptr, Family() == AF_INET6,
                             true),
              0);
    const std::string record = swg_test::SessionRecordFor(server.Address());
    ASSERT_TRUE(swg_test::WriteAll(pair.a.Get(), record.substr(0, 400), 1s));
    std::this_thread::sleep_for(300ms);
    ASSERT_TRUE(swg_test::WriteAll(pair.a.Get(), record.substr(400) + "XYZ\n", 1s));
    std::string echoed;
    ASSERT_TRUE(swg_test::ReadExactly(pair.a.Get(), 3, echoed, 5s));
    EXPECT_EQ(echoed, "YZ\n");
}

// Kill must wake a job that waits for its record, not leave it blocked in recv.
TEST_P(ConnectionThreadTest, KillWakesAJobBlockedReadingItsRecord) {
    UniqueFd client = StartJob();
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), std::string(100, 'r'), 1s));
    std::this_thread::sleep_for(100ms);
    const auto killed = Clock::now();
    m_thread.Kill();
    ASSERT_TRUE(JobEnded(2s));
    EXPECT_LT(Clock::now() - killed, 500ms);
    EXPECT_TRUE(swg_test::WaitReadable(client.Get(), 1s));  // end of stream
}

// A destination that refuses is learnt on the relay's first read, and the client is closed.
TEST_P(ConnectionThreadTest, RefusedDestinationClosesTheClient) {
    sockaddr_storage closed{};
    {
        swg_test::TestServer gone(swg_test::Endpoint(Loopback(), 0), swg_test::EchoHandler);
        closed = gone.Address();
    }
    UniqueFd client = StartJob();
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), swg_test::SessionRecordFor(closed) + "x\n", 1s));
    ASSERT_TRUE(JobEnded(5s));
    EXPECT_NE(m_thread.m_result, 0);
    std::string received;
    EXPECT_FALSE(swg_test::ReadExactly(client.Get(), 1, received, 1s));
}

// The process name is the last part of the executable's path, and empty for no process.
TEST(ConnectionThreadProcessNameTest, NamesTheExecutableOfAProcess) {
    char path[4096] = {};
    ASSERT_GT(::readlink("/proc/self/exe", path, sizeof(path) - 1), 0);
    const std::string full(path);
    EXPECT_EQ(CDnConnectionThread::getProcessName(static_cast<unsigned int>(::getpid())),
              full.substr(full.rfind('/') + 1));
    EXPECT_EQ(CDnConnectionThread::getProcessName(0xffffffffu), "");
}

}  // namespace
