// SPDX-License-Identifier: Apache-2.0
// The real agent in a network namespace of its own, with a plug-in speaking the channel's
// framing on 127.0.0.1:5004: greeting, state words, the state file, live counters, stop, and
// what a local user could try.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ipc/wire/IpcClient.h"
#include "support/GatewayProcess.h"
#include "support/SocketPeers.h"
#include "support/TestServers.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const std::string kBin = SWG_BINARY_DIR;
constexpr char kGateway[] = "198.18.0.10";
constexpr char kOrigin[] = "198.18.0.20";

std::string Output(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return output;
    char buffer[512];
    while (std::fgets(buffer, sizeof(buffer), pipe) != nullptr) output += buffer;
    pclose(pipe);
    return output;
}

// The next packet as "id payload"; "" when nothing comes within `wait` or the agent closed.
std::string Next(CIpcClient& plugin, std::chrono::milliseconds wait = 3s) {
    MSG_QUEUE_MSG message(COMM_MSG_NONE, 0, 1, 0);
    if (plugin.Receive(message, wait) != CIpcClient::Received::Message) return "";
    return CommMessageText(message.msg_id) +
           (message.msg_data != nullptr
                ? " " + std::string(reinterpret_cast<char*>(message.msg_data))
                : "");
}

std::string Stats(int http, int https, int bypassed) {
    return "COMM_MSG_SERVICE_STATS "
           "{\"version\":1,\"web_connections_info\":{\"http_connections\":\"" +
           std::to_string(http) + "\",\"https_connections\":\"" + std::to_string(https) +
           "\",\"bypassed_connections\":\"" + std::to_string(bypassed) +
           "\"},\"tarnwall_proxy\":\"" + kGateway + "\"}";
}

// Each test unshares the network namespace of its process: the agent, the test gateway and
// the origin live on the loopback of a namespace that nothing leaves.
class IpcIntegrationTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root: the agent runs in a namespace of its own";
        if (::unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "unshare(CLONE_NEWNET) failed: " << std::strerror(errno);
        ASSERT_EQ(std::system("ip link set lo up && ip addr add 198.18.0.10/32 dev lo && "
                              "ip addr add 198.18.0.20/32 dev lo"),
                  0);
        char pattern[] = "/tmp/swg-ipc-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_root = pattern;
        m_folder = m_root + "/trevo/trevoclient/tarnwall/SWG";
        boost::filesystem::create_directories(m_folder);
        std::string config =
            swg_test::ReadTextFile(SWG_SOURCE_DIR "/packaging/sample/SWGConfig.json");
        const std::string domain = "\"swgDomain\": \"gateway.swg.test\"";
        ASSERT_NE(config.find(domain), std::string::npos);
        config.replace(config.find(domain), domain.size(), "\"swgDomain\": \"198.18.0.10\"");
        std::FILE* out = std::fopen((m_folder + "/SWGConfig.json").c_str(), "w");
        ASSERT_NE(out, nullptr);
        std::fputs(config.c_str(), out);
        std::fclose(out);

        std::string error;
        ASSERT_TRUE(m_gateway.Start(kBin + "/tools/test-gateway/swg-test-gateway",
                                    {"--listen", "198.18.0.10:443", "--listen", "198.18.0.10:80"},
                                    m_root + "/gateway.log", 10s, error))
            << error;
        StartAgent();
    }

    void TearDown() override {
        if (m_agent > 0) {
            ::kill(m_agent, SIGKILL);
            ::waitpid(m_agent, nullptr, 0);
        }
        if (!m_root.empty() && !HasFailure()) boost::filesystem::remove_all(m_root);
    }

    void StartAgent() {
        ::setenv("SWG_DATA_ROOT", m_root.c_str(), 1);
        ::setenv("SWG_LOG_STDERR", "1", 1);
        const std::string program = kBin + "/src/tsc_swgagent";
        char* argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>("-console"), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 2, Log().c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        ASSERT_EQ(posix_spawn(&m_agent, program.c_str(), &actions, nullptr, argv, environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        ASSERT_TRUE(WaitForLog("Service started successfully"));
        ASSERT_TRUE(WaitForLog("SecureIPC : Setup was done successfully"));
    }

    // SIGTERM, then the exit status; -1 when it had to be killed.
    int StopAgent() {
        ::kill(m_agent, SIGTERM);
        int status = 0;
        for (const auto giveUp = Clock::now() + 20s; Clock::now() < giveUp;) {
            if (::waitpid(m_agent, &status, WNOHANG) == m_agent) {
                m_agent = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::this_thread::sleep_for(20ms);
        }
        return -1;
    }

    std::string Log() const { return m_root + "/agent.log"; }
    bool WaitForLog(const std::string& text, int count = 1) {
        return swg_test::WaitForLines(Log(), text, count, 20s);
    }
    std::string StateFile() const { return swg_test::ReadTextFile(m_folder + "/SWGState.json"); }

    // A plug-in that has been greeted and whose commands the agent's receiver now takes.
    void ConnectPlugIn(CIpcClient& plugin, bool greeted) {
        std::string error;
        ASSERT_TRUE(plugin.Connect(kSwgIpcPort, IPC_IDENTITY_SWG_CLIENT, 5s, error)) << error;
        if (greeted) {
            EXPECT_EQ(Next(plugin), "COMM_MSG_SRVC_STARTED");
            ASSERT_TRUE(WaitForLog("ServerComm : Receiver thread started"));
        }
    }
    void Command(CIpcClient& plugin, eCOMM_MESSAGE_ID id) {
        ASSERT_TRUE(plugin.Send(MSG_QUEUE_MSG(id, 0, 1, 0), 2s));
    }

    // One connection through the listener to the origin's echo; returns once bytes came back,
    // so the agent has counted it.
    void Connection(const swg_test::TestServer& origin, const std::string& firstBytes) {
        swg_test::UniqueFd client = swg_test::ListenerClient(origin.Address(), firstBytes);
        ASSERT_NE(client.Get(), -1);
        std::string echoed;
        EXPECT_TRUE(swg_test::ReadExactly(client.Get(), 1, echoed, 15s)) << firstBytes;
    }

    // Statistics reports until one equals `expected`; anything else on the way fails the test,
    // and a count past `expected` never matches. The arrival times are collected.
    void WaitForStats(CIpcClient& plugin, const std::string& expected) {
        for (const auto giveUp = Clock::now() + 20s; Clock::now() < giveUp;) {
            const std::string next = Next(plugin);
            ASSERT_EQ(next.rfind("COMM_MSG_SERVICE_STATS", 0), 0u) << next;
            m_arrivals.push_back(Clock::now());
            if (next == expected) return;
        }
        FAIL() << "no report " << expected;
    }

    std::string m_root;
    std::string m_folder;
    swg_test::CGatewayProcess m_gateway;
    pid_t m_agent = -1;
    std::vector<Clock::time_point> m_arrivals;
};

// What a plug-in sees over the agent's life: the greeting, "protected" as both messages and in
// the state file, reports once a second whose counters rise by exactly one per HTTP, HTTPS and
// bypassed connection, silence after STOP, the same counters after a new START, and
// "unprotected" when the agent is told to stop.
TEST_F(IpcIntegrationTest, PlugInFollowsStateAndCountersOverTheAgentsLife) {
    CIpcClient plugin;
    ConnectPlugIn(plugin, true);
    Command(plugin, COMM_MSG_COLLECT_DATA_START);
    EXPECT_EQ(Next(plugin),
              "COMM_MSG_SWG_STATE {\"version\":1,\"swg_protection_state\":\"protected\"}");
    EXPECT_EQ(Next(plugin), "COMM_MSG_SWG_REPORT {\"ver\":1,\"state\":1}");
    ASSERT_TRUE(WaitForLog("CSWGAgent: SWG state written to"));
    const std::string protectedFile =
        "{\n\t\"version\":\t1,\n\t\"swg_protection_state\":\t\"protected\",\n"
        "\t\"swg_proxy_fqdn\":\t\"198.18.0.10\",\n\t\"exception_list\":\t[\"intranet.corp.test\"],"
        "\n"
        "\t\"inclusion_list\":\t[]\n}";
    EXPECT_EQ(StateFile(), protectedFile);

    swg_test::TestServer origin(swg_test::Endpoint(kOrigin, 0), swg_test::EchoHandler);
    const std::string hostPort =
        std::string(kOrigin) + ":" + std::to_string(swg_test::EndpointPort(origin.Address()));
    WaitForStats(plugin, Stats(0, 0, 0));
    Connection(origin, "GET /count HTTP/1.1\r\nHost: " + hostPort + "\r\n\r\n");
    WaitForStats(plugin, Stats(1, 0, 0));
    // A TLS record header with a ClientHello: tunnelled with CONNECT through the gateway.
    Connection(origin, std::string("\x16\x03\x01\x00\x05\x01hello\n", 12));
    WaitForStats(plugin, Stats(1, 1, 0));
    // Neither TLS nor HTTP: relayed straight to the destination.
    Connection(origin, "hello\n");
    WaitForStats(plugin, Stats(1, 1, 1));
    EXPECT_EQ(swg_test::CountLinesWith(m_root + "/gateway.log", "CONNECT " + hostPort), 1);
    // About once a second: on average, since a report that waits while the test connects is
    // read right before the next one.
    ASSERT_GE(m_arrivals.size(), 3u);
    const auto mean = (m_arrivals.back() - m_arrivals.front()) / (m_arrivals.size() - 1);
    EXPECT_TRUE(mean > 700ms && mean < 1500ms)
        << std::chrono::duration_cast<std::chrono::milliseconds>(mean).count() << " ms";

    Command(plugin, COMM_MSG_COLLECT_DATA_STOP);
    ASSERT_TRUE(WaitForLog("Thread : (ServiceStats)Main thread exits"));
    while (!Next(plugin, 300ms).empty()) {
    }
    EXPECT_EQ(Next(plugin, 2500ms), "");
    Command(plugin, COMM_MSG_COLLECT_DATA_START);
    EXPECT_EQ(Next(plugin), Stats(1, 1, 1));

    ::kill(m_agent, SIGTERM);
    std::vector<std::string> last;
    for (std::string next = Next(plugin, 10s); !next.empty(); next = Next(plugin, 10s)) {
        if (next.rfind("COMM_MSG_SERVICE_STATS", 0) != 0) last.push_back(next);
    }
    EXPECT_EQ(last,
              (std::vector<std::string>{
                  "COMM_MSG_SWG_STATE {\"version\":1,\"swg_protection_state\":\"unprotected\"}",
                  "COMM_MSG_SWG_REPORT {\"ver\":1,\"state\":2}"}));
    EXPECT_EQ(StopAgent(), 0);
    std::string unprotectedFile = protectedFile;
    unprotectedFile.replace(unprotectedFile.find("\"protected\""), 11, "\"unprotected\"");
    EXPECT_EQ(StateFile(), unprotectedFile);
}

// A plug-in that breaks the framing is dropped with one line; the next is served, and the
// status command reads the same agent.
TEST_F(IpcIntegrationTest, MalformedPlugInIsDroppedAndTheNextIsServed) {
    CIpcClient malformed;
    ConnectPlugIn(malformed, true);
    ASSERT_TRUE(malformed.SendBytes(std::string("\x18\x00\x00\x00", 4) + std::string(24, 'x'), 2s));
    EXPECT_EQ(Next(malformed), "");
    ASSERT_TRUE(WaitForLog("SecureIPC : dropped peer"));

    CIpcClient plugin;
    ConnectPlugIn(plugin, false);
    Command(plugin, COMM_MSG_COLLECT_DATA_START);
    EXPECT_EQ(Next(plugin),
              "COMM_MSG_SWG_STATE {\"version\":1,\"swg_protection_state\":\"protected\"}");
    EXPECT_EQ(Next(plugin), "COMM_MSG_SWG_REPORT {\"ver\":1,\"state\":1}");
    WaitForStats(plugin, Stats(0, 0, 0));
    EXPECT_EQ(swg_test::CountLinesWith(Log(), "SecureIPC : dropped peer"), 1);
    plugin.Close();

    EXPECT_EQ(Output(kBin + "/tools/status/swg-status --json"),
              "{\"state\":\"protected\",\"gateway\":\"198.18.0.10\",\"http_connections\":0,"
              "\"https_connections\":0,\"bypassed_connections\":0}\n");
    EXPECT_EQ(StopAgent(), 0);
}

// What a local user could try while the agent runs. A link planted at the state file's first
// temporary name, pointing outside the folder, and a foreign file at the second: neither is
// followed or truncated, and the state is still written. A configuration made writable by
// all: refused with its reason, "config_error" reported and the record in force kept, so that
// once the file is trusted again its new anycast address is a change.
TEST_F(IpcIntegrationTest, NeitherPlantedNamesNorAnUntrustedConfigurationSteerTheAgent) {
    const std::string victim = m_root + "/victim";
    const std::string temporary = m_folder + "/SWGState.json.tmp." + std::to_string(m_agent) + ".";
    std::ofstream(victim) << "untouched";
    std::ofstream(temporary + "1") << "foreign";
    ASSERT_EQ(::symlink(victim.c_str(), (temporary + "0").c_str()), 0);
    ASSERT_TRUE(WaitForLog("MonitorConfigChangesProc: pipe"));
    CIpcClient plugin;
    ConnectPlugIn(plugin, true);
    Command(plugin, COMM_MSG_COLLECT_DATA_START);
    ASSERT_TRUE(WaitForLog("CSWGAgent: SWG state written to"));
    EXPECT_NE(StateFile().find("\"swg_protection_state\":\t\"protected\""), std::string::npos);
    EXPECT_EQ(swg_test::ReadTextFile(victim), "untouched");
    EXPECT_EQ(swg_test::ReadTextFile(temporary + "1"), "foreign");
    EXPECT_TRUE(boost::filesystem::is_symlink(temporary + "0"));

    const std::string file = m_folder + "/SWGConfig.json";
    std::string config = swg_test::ReadTextFile(file);
    std::ofstream(file) << config.replace(config.find("198.18.0.10"), 11, "198.18.0.11");
    ASSERT_EQ(::chmod(file.c_str(), 0666), 0);
    ASSERT_TRUE(
        WaitForLog("SWG: Refused to read '" + file + "': '" + file + "' is writable by others"));
    ASSERT_TRUE(WaitForLog("CSWGAgent: SWG state written to", 2));
    EXPECT_NE(StateFile().find("\"config_error\""), std::string::npos);
    ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    EXPECT_TRUE(WaitForLog("UpdateCurrentConfig: qstrSWGAnycastListV4 changed"));
    EXPECT_EQ(swg_test::CountLinesWith(Log(), "SWG: Refused to read"), 1);
    EXPECT_EQ(StopAgent(), 0);
}

}  // namespace
