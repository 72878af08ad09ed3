// SPDX-License-Identifier: Apache-2.0
// Whole connection jobs over loopback: record, mode, bypass connect, relay, close, Kill.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <chrono>
#include <string>
#include <thread>

#include "core/SWGAgent.h"
#include "proxy/ConnectionThread.h"
#include "proxy/DnSocket.h"
#include "proxy/SocketPair.h"
#include "support/SocketPeers.h"
#include "support/TestServers.h"
#include "support/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;
using swg_test::UniqueFd;

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
        ASSERT_TRUE(m_echo.Ok());
    }
    void TearDown() override {
        m_thread.Kill();
        m_thread.Wait();
        m_thread.Deinitialize();
        g_pSWGAgent->SetCaptivePortalMode(false);
    }

    int Family() const { return GetParam(); }

    // Hands the thread a new loopback connection; returns the client's end.
    UniqueFd StartJob() {
        swg_test::TcpPair pair = swg_test::MakeTcpPair(Family());
        EXPECT_NE(pair.a.Get(), -1);
        m_jobFd = pair.b.Get();
        m_done.reset();
        m_thread.m_result = -12345;
        EXPECT_EQ(m_thread.Start(m_done, new CDnSocket(pair.b.Release()), nullptr,
                                 Family() == AF_INET6, true),
                  0);
        return std::move(pair.a);
    }
    // The session record that names the echo server.
    std::string Record() const { return swg_test::SessionRecordFor(m_echo.Address()); }

    // Waits for the end of the job; false when it did not end within `limit`.
    bool JobEnded(std::chrono::milliseconds limit) {
        return m_done.timed_wait(boost::posix_time::microsec_clock::universal_time() +
                                 boost::posix_time::milliseconds(limit.count()));
    }
    // `sent` went through to the echo server and came back.
    ::testing::AssertionResult Echoed(int client, const std::string& sent) {
        std::string echoed;
        if (!swg_test::ReadExactly(client, sent.size(), echoed, 5s) || echoed != sent)
            return ::testing::AssertionFailure() << "echoed '" << echoed << "'";
        return ::testing::AssertionSuccess();
    }

    swg_test::RecordingTrace m_trace;
    swg_test::TestServer m_echo{swg_test::Endpoint(GetParam() == AF_INET6 ? "::1" : "127.0.0.1", 0),
                                swg_test::EchoHandler};
    CJobThread m_thread;
    boost_ext::condition_event m_done{false};
    int m_jobFd = -1;  // the job's end of the connection, owned by the job
};

INSTANTIATE_TEST_SUITE_P(Families, ConnectionThreadTest, ::testing::Values(AF_INET, AF_INET6),
                         [](const ::testing::TestParamInfo<int>& param) {
                             return std::string(param.param == AF_INET6 ? "IPv6" : "IPv4");
                         });

// The record's destination must be where the job connects; bytes pass both ways, unchanged,
// the sniffed ones first; the record may come in pieces, each Recv asking only for the rest.
TEST_P(ConnectionThreadTest, RelaysBothWaysToTheDestinationInTheRecord) {
    UniqueFd client = StartJob();
    const std::string request = "TRACE / HTTP/1.1\r\nHost: a\r\n\r\n";
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), Record().substr(0, 3), 1s));
    ASSERT_TRUE(swg_test::WaitUntil([&] { return swg_test::PendingBytes(m_jobFd) == 0; }));
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), Record().substr(3) + request, 1s));
    EXPECT_TRUE(Echoed(client.Get(), request));
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), "more\n", 1s));
    EXPECT_TRUE(Echoed(client.Get(), "more\n"));
    EXPECT_EQ(m_echo.Accepted(), 1);
    client.Reset();
    ASSERT_TRUE(JobEnded(5s));
    EXPECT_EQ(m_thread.m_result, SWG_RELAY_SIDE_FINISHED);
    EXPECT_EQ(m_thread.CMode, 0);
    EXPECT_EQ(m_thread.TMode, 0);
}

// A close before the record or the header block is complete ends the job with 1, connecting
// nothing (the cut record is logged); a destination that refuses is learnt on the relay's first
// read. Each closes the client.
TEST_P(ConnectionThreadTest, CutShortOrRefusedJobsCloseTheClient) {
    const std::string record = Record();
    const struct {
        const char* name;
        std::string sent;
        bool refused;  // the destination is gone; else the client half-closes
    } cases[] = {{"record", record.substr(0, 100), false},
                 {"header block", record + "GET / HTTP/1.1\r\n", false},
                 {"refused", record + "x\n", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.refused) m_echo.Stop();
        UniqueFd client = StartJob();
        ASSERT_TRUE(swg_test::WriteAll(client.Get(), c.sent, 2s));
        if (!c.refused) {
            ASSERT_EQ(::shutdown(client.Get(), SHUT_WR), 0);
        }
        ASSERT_TRUE(JobEnded(5s));
        EXPECT_EQ(m_thread.m_result == 1, !c.refused) << m_thread.m_result;
        EXPECT_NE(m_thread.m_result, 0);
        EXPECT_EQ(m_echo.Accepted(), 0);
        std::string received;
        EXPECT_FALSE(swg_test::ReadExactly(client.Get(), 1, received, 1s));
    }
    EXPECT_EQ(m_trace.Count(LISTEN, "Connection : Failed to read ngc_session_info from socket"), 1);
}

// A client that stalls inside its record or its header block would hold the thread for
// ever: once the wait runs out it is closed without a word, and the close is logged.
TEST_P(ConnectionThreadTest, ClientStalledBeforeTheRelayIsClosedWhenItsWaitRunsOut) {
    m_thread.m_clientWaitMs = 300;
    const std::pair<std::string, std::string> cases[] = {
        {"session record", Record().substr(0, 100)},
        {"header block", Record() + "GET / HTTP/1.1\r\nHost: x\r\n"}};
    for (const auto& [stage, sent] : cases) {
        UniqueFd client = StartJob();
        ASSERT_TRUE(swg_test::WriteAll(client.Get(), sent, 1s));
        ASSERT_TRUE(JobEnded(5s)) << stage;
        EXPECT_EQ(swg_test::ReadToEnd(client.Get(), 1s), "");
        EXPECT_EQ(m_trace.CountPrefix(WARN, "Connection : Timed out waiting for the " + stage), 1);
    }
    EXPECT_EQ(m_echo.Accepted(), 0);
}

// An HTTP request in bypass (captive portal mode) is read as a block and written out, and the
// body that came with it follows from the line buffer, before anything sent later.
TEST_P(ConnectionThreadTest, BodyBehindTheHeaderBlockFollowsTheBlock) {
    g_pSWGAgent->SetCaptivePortalMode(true);
    const std::string block =
        "POST /upload HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 16\r\n\r\n";
    UniqueFd client = StartJob();
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), Record() + block + "body-in-the-same", 2s));
    ASSERT_TRUE(m_echo.WaitForAccepted(1, 5s));
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), "+later", 1s));
    EXPECT_TRUE(Echoed(client.Get(), block + "body-in-the-same+later"));
    client.Reset();
    ASSERT_TRUE(JobEnded(5s));
    EXPECT_EQ(m_thread.CMode, 2);
    EXPECT_EQ(m_thread.TMode, 0);
}

}  // namespace
