// SPDX-License-Identifier: Apache-2.0
// The agent process in a network namespace of its own under hostile and broken peers, one
// row of loads each.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/GatewayProcess.h"
#include "support/MoFile.h"
#include "support/SocketPeers.h"
#include "support/TestServers.h"
#include "support/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;
using swg_test::Endpoint;
using swg_test::ListenerClient;
using swg_test::UniqueFd;
using Clients = std::vector<UniqueFd>;

constexpr const char* kHost = "198.18.0.1";      // the origins; an address of the host
constexpr const char* kGateway = "198.18.0.10";  // the configured gateway, nothing on 443

// Descriptors, threads and resident memory (kB) of process `pid`.
struct Usage {
    long fds, threads, rssKb = 0;
};
Usage UsageOf(pid_t pid) {
    namespace fs = std::filesystem;
    const std::string proc = "/proc/" + std::to_string(pid);
    Usage usage{std::distance(fs::directory_iterator(proc + "/fd"), fs::directory_iterator()),
                std::distance(fs::directory_iterator(proc + "/task"), fs::directory_iterator())};
    long pages = 0;
    std::ifstream(proc + "/statm") >> pages >> usage.rssKb;  // resident pages, into kB below
    usage.rssKb *= ::sysconf(_SC_PAGESIZE) / 1024;
    return usage;
}

void LeaveWithReset(UniqueFd& client) {  // as a killed client with unread bytes does
    const linger reset{1, 0};
    (void)::setsockopt(client.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    client.Reset();
}

class HostilePeersTest;
struct Row {
    const char* name;
    void (*load)(HostilePeersTest&, Clients&);
};
void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

class HostilePeersTest : public ::testing::TestWithParam<Row> {
public:
    void SetUp() override {
        if (::geteuid() != 0 || ::unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "needs root and a network namespace of its own";
        ASSERT_EQ(std::system((std::string("ip link set lo up && ip addr add ") + kHost +
                               "/32 dev lo && ip addr add " + kGateway + "/32 dev lo")
                                  .c_str()),
                  0);
        const std::string config = m_folder.Path() + "/trevo/trevoclient/tarnwall/SWG";
        std::filesystem::create_directories(config);
        // The sample (fail open) with the gateway by its address and the default log level:
        // the debug level's syslog traffic would slow the agent more than any peer.
        std::string text =
            swg_test::ReadTextFile(SWG_SOURCE_DIR "/packaging/sample/SWGConfig.json");
        text.replace(text.find("\"gateway.swg.test\""), 18, "\"\"");
        text.replace(text.find("\"logLevel\": \"1\""), 15, "\"logLevel\": \"0\"");
        std::ofstream(config + "/SWGConfig.json") << text;
        ::setenv("SWG_DATA_ROOT", m_folder.Path().c_str(), 1);
        ::setenv("SWG_LOG_STDERR", "1", 1);
        m_log = m_folder.Path() + "/agent.log";
        m_echo = std::make_unique<swg_test::TestServer>(Endpoint(kHost, 0), swg_test::EchoHandler);
    }

    void TearDown() override {
        if (m_agent) (void)m_agent->Stop(SIGTERM, 15s);
    }

    void SpawnAgent() {
        m_agent = std::make_unique<swg_test::CGatewayProcess>();
        std::string error;
        ASSERT_TRUE(
            m_agent->Start(SWG_BINARY_DIR "/src/tsc_swgagent", {"-console"}, m_log, 1s, error, ""))
            << error;
    }

    // A client of the echo server through the agent is echoed within `limit`.
    bool GoodClientServed(std::chrono::milliseconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        UniqueFd client = ListenerClient(m_echo->Address(), "ping\n");
        std::string echoed;
        return swg_test::ReadExactly(client.Get(), 5, echoed, limit) &&
               std::chrono::steady_clock::now() <= deadline;
    }

    // Near idle: a job may still be closing, and each pool keeps up to ten threads.
    bool BackNearIdle() {
        const auto near = [&](const Usage& now) {
            return now.fds <= m_idle.fds + 4 && now.threads <= m_idle.threads + 20 &&
                   now.rssKb <= m_idle.rssKb + 48 * 1024;
        };
        return swg_test::WaitUntil([&] { return near(UsageOf(m_agent->Pid())); }, 20s, 100ms);
    }

    bool Logged(const char* text, int count) {
        return swg_test::WaitForLines(m_log, text, count, 30s);
    }

    swg_test::TempFolder m_folder;
    std::string m_log;
    std::unique_ptr<swg_test::CGatewayProcess> m_agent;
    std::unique_ptr<swg_test::TestServer> m_echo;  // made inside the namespace
    std::unique_ptr<swg_test::TestServer> m_kept;  // a row's server that outlives the row
    Usage m_idle{};
};

// ---- the hostile loads, one per row -------------------------------------------------------

void StalledHeaderBlocks(HostilePeersTest& test, Clients& hostile) {
    for (int i = 0; i < 750; ++i)
        hostile.push_back(ListenerClient(Endpoint(kHost, 80), "GET / HTTP/1.1\r\nHost: x\r\n"));
    // All accepted: each beyond the share of 562 threads has closed the oldest of them.
    EXPECT_TRUE(test.Logged("Connection : Closed before the relay", 750 - 562));
}

// Two stream header lines, one a line that never ends; each is cut off long before 60 MB.
void EndlessHeaderLines(HostilePeersTest&, Clients& hostile) {
    std::string lines;
    while (lines.size() < (1u << 20)) lines += "X-Filler: " + std::string(1000, 'f') + "\r\n";
    for (const std::string& chunk : {lines, lines, std::string(1 << 20, 'f')}) {
        hostile.push_back(ListenerClient(Endpoint(kHost, 80), "GET / HTTP/1.1\r\n"));
        int mb = 0;
        while (mb < 60 && swg_test::WriteAll(hostile.back().Get(), chunk, 2s)) ++mb;
        EXPECT_LT(mb, 60);
    }
}

void OversizedHeaderBlocks(HostilePeersTest& test, Clients& hostile) {
    swg_test::TestServer gateway(Endpoint(kGateway, 80), [](int fd) { swg_test::ReadToEnd(fd); });
    std::string many = "GET / HTTP/1.1\r\n";
    for (int i = 0; i < 10000; ++i) many += "a: b\r\n";
    for (const std::string& block :
         {"GET / HTTP/1.1\r\nX-Big: " + std::string(70000, 'b') + "\r\n\r\n", many + "\r\n"}) {
        hostile.push_back(ListenerClient(Endpoint(kHost, 80)));
        (void)swg_test::WriteAll(hostile.back().Get(), block, 5s);
    }
    EXPECT_TRUE(test.Logged("Header: Block over", 2));
    EXPECT_EQ(gateway.Accepted(), 0);  // nothing was forwarded
}

void LoopRecords(HostilePeersTest& test, Clients& hostile) {
    const char* loops[][2] = {
        {"0.0.0.0", "127.0.0.1"}, {"::", "::1"}, {"127.1.2.3", "127.0.0.1"}, {kHost, "127.0.0.1"}};
    for (int i = 0; i < 760; ++i)
        hostile.push_back(ListenerClient(Endpoint(loops[i % 4][0], 5002), "x", loops[i % 4][1]));
    EXPECT_TRUE(test.Logged("Connection : Original destination is the agent's own listener", 760));
}

// After jobs that went to a destination on port 443 (through the fail-open bypass: the
// gateway refuses), clients that reset before their record must never go there again.
void ResetsBeforeTheRecord(HostilePeersTest& test, Clients&) {
    swg_test::TestServer origin(Endpoint(kHost, 443), swg_test::EchoHandler);
    for (int i = 0; i < 4; ++i) (void)ListenerClient(origin.Address(), "hello");
    ASSERT_TRUE(origin.WaitForAccepted(4, 10s));
    for (int i = 0; i < 8; ++i) {  // across a pool tick, which hands their threads out again
        UniqueFd client = swg_test::ConnectTo(Endpoint("127.0.0.1", 5002));
        LeaveWithReset(client);
        std::this_thread::sleep_for(500ms);
    }
    EXPECT_TRUE(test.BackNearIdle());  // every job of a reset client has ended
    EXPECT_EQ(origin.Accepted(), 4);
}

// Clients fill their relays to a server that reads nothing (and stays), then reset.
void ClientsLeaveAStalledServer(HostilePeersTest& test, Clients&) {
    test.m_kept = std::make_unique<swg_test::TestServer>(Endpoint(kHost, 0), nullptr, 128, false);
    for (int i = 0; i < 10; ++i) {
        UniqueFd client = ListenerClient(test.m_kept->Address(), "x\n");
        (void)swg_test::WriteAll(client.Get(), std::string(16 << 20, 'u'), 300ms);  // until full
        LeaveWithReset(client);
    }
}

// Each hostile load: the agent must stay available to everyone else, and give back what the
// hostile peers took once they are gone.
TEST_P(HostilePeersTest, AgentStaysAvailableAndReturnsToIdle) {
    SpawnAgent();
    // Started, and its listeners listen: the diversion waits for them.
    ASSERT_TRUE(Logged("Redirector: table inet tsc_swg in force", 1))
        << swg_test::ReadTextFile(m_log);
    ASSERT_TRUE(GoodClientServed(5s));
    m_idle = UsageOf(m_agent->Pid());
    Clients hostile;
    GetParam().load(*this, hostile);
    EXPECT_TRUE(GoodClientServed(1s));
    hostile.clear();
    EXPECT_TRUE(BackNearIdle());
}

#define ROW(load) \
    Row { #load, load }
INSTANTIATE_TEST_SUITE_P(Rows, HostilePeersTest,
                         ::testing::Values(ROW(StalledHeaderBlocks), ROW(EndlessHeaderLines),
                                           ROW(OversizedHeaderBlocks), ROW(LoopRecords),
                                           ROW(ResetsBeforeTheRecord),
                                           ROW(ClientsLeaveAStalledServer)),
                         [](const ::testing::TestParamInfo<Row>& row) { return row.param.name; });

// A stop signal a few milliseconds after the start must end the agent every time and leave no
// diversion behind; before main takes the signals their default action ends it, also fine.
TEST_F(HostilePeersTest, StopSignalDuringStartUpIsHonoured) {
    for (int run = 0; run < 12; ++run) {
        SpawnAgent();
        std::this_thread::sleep_for(std::chrono::milliseconds(run * 4));
        const int signal = run % 2 == 0 ? SIGTERM : SIGHUP;
        const int status = m_agent->Stop(signal, 15s);
        EXPECT_TRUE(status == 0 || status == 128 + signal) << "run " << run << ": " << status;
        EXPECT_NE(std::system("nft list table inet tsc_swg >/dev/null 2>&1"), 0) << "run " << run;
    }
}

}  // namespace
