// SPDX-License-Identifier: Apache-2.0
// The nftables redirector in a network namespace of the test's own: what is diverted, what
// is not, and what happens when the table goes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netfilter_ipv4.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/AgentRedirector.h"
#include "core/SWGAgent.h"
#include "platform/SocketMark.h"
#include "platform/linux/NftCommand.h"
#include "platform/linux/NftRedirector.h"
#include "resolve/DnsLookup.h"
#include "support/NetnsScope.h"
#include "support/SocketPeers.h"
#include "support/TestServers.h"
#include "support/ThreadTestSupport.h"
#include "unit/resolve/FakeAddressResolver.h"

namespace swg_test {
namespace {

// Test hosts, all on the namespace's loopback interface.
constexpr char kDivertedHost[] = "198.18.0.2";
constexpr char kExceptedHost[] = "198.18.0.3";  // in the exception list as an address
constexpr char kNamedHost[] = "198.18.0.4";     // what "blocked.test" resolves to
constexpr char kPrivateHost[] = "10.0.0.2";     // in the built-in exceptions
constexpr uint16_t kListenPort = 5002;
constexpr auto kShort = std::chrono::milliseconds(300);
const std::string kTable = std::string("inet ") + kNftTableName;
const std::string kKeepTable = std::string("inet ") + kNftKeepTableName;

UniqueFd Bound(const char* address, uint16_t port, int type) {
    const sockaddr_storage where = Endpoint(address, port);
    UniqueFd fd(socket(where.ss_family, type | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(fd.Get(), reinterpret_cast<const sockaddr*>(&where), EndpointLength(where)) != 0 ||
        (type == SOCK_STREAM && listen(fd.Get(), 16) != 0))
        fd.Reset();
    return fd;
}

std::string OriginalDestination(int fd) {
    sockaddr_in original{};
    socklen_t length = sizeof(original);
    if (getsockopt(fd, SOL_IP, SO_ORIGINAL_DST, &original, &length) != 0) return "none";
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &original.sin_addr, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(original.sin_port));
}

bool TableExists(const std::string& table = kTable) {
    return RunNftCommand("list table " + table) == 0;
}

std::string Listing() {
    std::string listing;
    EXPECT_EQ(RunNftCommand("list table " + kTable, &listing), 0);
    return listing;
}

class CountingCallback : public IKdfApiCB {
public:
    void OnKdfDisruption() override { ++disruptions; }
    void OnPlannedKdfDisruptionStart(PlannedDisruption) override {}
    void OnPlannedKdfDisruptionComplete(PlannedDisruption) override {}
    std::atomic<int> disruptions{0};
};

// The handle of the first rule of chain divert whose text holds `what`, or "" (nft -a).
std::string HandleOf(const std::string& what) {
    const std::string command =
        "nft -a list chain " + kTable + " divert 2>/dev/null | grep -F '" + what + "'";
    FILE* out = popen(command.c_str(), "r");
    char line[512] = {};
    const bool found = out != nullptr && std::fgets(line, sizeof(line), out) != nullptr;
    if (out != nullptr) pclose(out);
    const char* handle = found ? std::strstr(line, "# handle ") : nullptr;
    return handle != nullptr ? std::to_string(std::atoi(handle + 9)) : "";
}

NftRedirectorOptions FastOptions(bool owned = true) {
    NftRedirectorOptions options;
    options.owned = owned;
    options.watchPeriodMs = 100;
    options.listenerPollMs = 20;
    options.lookup = [](const std::string& name, unsigned int, std::vector<NftAddress>& found) {
        if (name != "blocked.test") return EAI_NONAME;
        found.emplace_back();
        found.back().family = AF_INET;
        inet_pton(AF_INET, kNamedHost, found.back().bytes.data());
        return 0;
    };
    return options;
}

class NftRedirectorIntegrationTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root for network namespaces and nftables";
        m_netns = std::make_unique<NetnsScope>();
        if (!m_netns->Entered()) GTEST_SKIP() << "no network namespace: " << m_netns->Why();
        std::string command = "ip link set lo up";
        for (const char* host : {kDivertedHost, kExceptedHost, kNamedHost, kPrivateHost})
            command += std::string(" && ip addr add ") + host + "/32 dev lo";
        ASSERT_TRUE(m_netns->Run(command));
        for (const char* host : {kDivertedHost, kExceptedHost, kNamedHost, kPrivateHost}) {
            m_hosts.push_back(Bound(host, 80, SOCK_STREAM));
            ASSERT_GE(m_hosts.back().Get(), 0) << host;
        }
        m_agentListener = Bound("127.0.0.1", kListenPort, SOCK_STREAM);
        ASSERT_GE(m_agentListener.Get(), 0);
        m_agentListener6 = Bound("::1", kListenPort, SOCK_STREAM);  // absent without IPv6
    }

    void TearDown() override {
        // The table goes while the thread is still in the namespace that holds it.
        m_redirector.reset();
        m_trace.reset();  // after every thread that could still log to it
        m_netns.reset();
    }

    // The agent's rule list for `ports` with two extra exceptions.
    static std::list<redirect_info> AgentRules(const char* ports = "80,443") {
        CSWGAgent builder;
        builder.m_redirectorSeams.ipv6Installed = [] { return true; };
        builder.m_redirectorSeams.pidOfProcess = [](const std::string&) { return -1; };
        SVC_STARTUP_INFO info;
        info.listen_port = kListenPort;
        info.comm_port = SWG_COMM_PORT;
        info.monitored_ports = ports;
        info.exception_text = std::string(default_exception_list) + "198.18.0.3;blocked.test";
        std::list<redirect_info> rules;
        builder.SetRedirectList(rules, info);
        return rules;
    }

    // Opens a redirector, gives it `rules` and starts it.
    void OpenAndStart(std::list<redirect_info> rules = AgentRules(),
                      NftRedirectorOptions options = FastOptions()) {
        m_redirector = std::make_unique<CNftRedirector>(options);
        ASSERT_EQ(m_redirector->OpenPlugin(&m_callback), 0);
        ASSERT_EQ(m_redirector->SetRedirects(rules), 0);
        ASSERT_EQ(m_redirector->Start(), 0);
    }

    // Which listener took a connect to `host`:`port`: "agent <original destination>", "host",
    // or "none". `hostIndex` picks the host's listener in the order of SetUp.
    std::string WhereDoesItLand(const char* host, size_t hostIndex = 0, bool marked = false,
                                uint16_t port = 80) {
        const sockaddr_storage where = Endpoint(host, port);
        UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (marked && ApplyAgentSocketMark(client.Get()) != 0) return "mark failed";
        if (connect(client.Get(), reinterpret_cast<const sockaddr*>(&where),
                    EndpointLength(where)) != 0)
            return "connect failed: " + std::string(std::strerror(errno));
        pollfd ready[2] = {{m_agentListener.Get(), POLLIN, 0},
                           {m_hosts[hostIndex].Get(), POLLIN, 0}};
        if (poll(ready, 2, static_cast<int>(kShort.count())) <= 0) return "none";
        const bool diverted = (ready[0].revents & POLLIN) != 0;
        UniqueFd taken(accept4(ready[diverted ? 0 : 1].fd, nullptr, nullptr, SOCK_CLOEXEC));
        if (taken.Get() < 0) return "none";
        return diverted ? "agent " + OriginalDestination(taken.Get()) : "host";
    }

    std::unique_ptr<NetnsScope> m_netns;
    std::vector<UniqueFd> m_hosts;  // port 80 of each test host, in the order of SetUp
    UniqueFd m_agentListener;
    UniqueFd m_agentListener6;
    CountingCallback m_callback;
    std::unique_ptr<TraceRecorder> m_trace;
    std::unique_ptr<CNftRedirector> m_redirector;
};

// Guards the diversion itself and what must never be diverted: the exceptions by address,
// by name and by built-in range, the agent's own marked sockets, unmonitored ports.
TEST_F(NftRedirectorIntegrationTest, DivertsMonitoredTrafficExceptWhatIsExcepted) {
    OpenAndStart();
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "agent 198.18.0.2:80");
    EXPECT_EQ(WhereDoesItLand(kExceptedHost, 1), "host");
    // Names are looked up by the watcher, after the table went in.
    ASSERT_TRUE(WaitUntil([] { return Listing().find(kNamedHost) != std::string::npos; }));
    EXPECT_EQ(WhereDoesItLand(kNamedHost, 2), "host");
    EXPECT_EQ(WhereDoesItLand(kPrivateHost, 3), "host");
    EXPECT_EQ(WhereDoesItLand(kDivertedHost, 0, true), "host");

    m_hosts[0] = Bound(kDivertedHost, 443, SOCK_STREAM);
    EXPECT_EQ(WhereDoesItLand(kDivertedHost, 0, false, 443), "agent 198.18.0.2:443");
    m_hosts[0] = Bound(kDivertedHost, 8080, SOCK_STREAM);
    EXPECT_EQ(WhereDoesItLand(kDivertedHost, 0, false, 8080), "host");
}

// Guards the QUIC rule: UDP to a monitored port is refused while the rules are in force,
// and flows again once they are stopped.
TEST_F(NftRedirectorIntegrationTest, UdpToMonitoredPortIsRefusedOnlyWhileRulesAreInForce) {
    OpenAndStart();
    UniqueFd receiver = Bound(kDivertedHost, 443, SOCK_DGRAM);
    ASSERT_GE(receiver.Get(), 0);
    const sockaddr_storage where = Endpoint(kDivertedHost, 443);
    UniqueFd sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(
        connect(sender.Get(), reinterpret_cast<const sockaddr*>(&where), EndpointLength(where)), 0);

    const ssize_t sent = send(sender.Get(), "q", 1, 0);
    const int sendError = errno;
    (void)WaitReadable(sender.Get(), kShort);
    char byte = 0;
    const ssize_t got = recv(sender.Get(), &byte, 1, MSG_DONTWAIT);
    const int recvError = errno;
    // The rejected datagram either fails at once or comes back as port unreachable.
    EXPECT_TRUE((sent < 0 && sendError == EPERM) || (got < 0 && recvError == ECONNREFUSED))
        << "send " << sent << "/" << sendError << " recv " << got << "/" << recvError;
    EXPECT_FALSE(WaitReadable(receiver.Get(), kShort)) << "the datagram got through";

    ASSERT_EQ(m_redirector->Stop(), 0);
    ASSERT_EQ(send(sender.Get(), "q", 1, 0), 1);
    EXPECT_TRUE(WaitReadable(receiver.Get(), std::chrono::seconds(3)));
}

// Guards the life cycle: Stop and ClosePlugin take the table away and the same connect goes
// straight to the host; Start diverts again; a new rule list with an added port takes effect
// on the running redirector, without a restart.
TEST_F(NftRedirectorIntegrationTest, StopCloseAndNewRulesTakeEffectAtOnce) {
    OpenAndStart();
    ASSERT_EQ(m_redirector->Stop(), 0);
    EXPECT_FALSE(TableExists());
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "host");
    ASSERT_EQ(m_redirector->Start(), 0);
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "agent 198.18.0.2:80");

    ASSERT_EQ(m_redirector->Clear(NGC_CLEAR_ALL_RULES), 0);
    EXPECT_FALSE(TableExists());
    EXPECT_TRUE(m_redirector->RecordedRules().empty());
    std::list<redirect_info> rules = AgentRules("80,443,8080");
    ASSERT_EQ(m_redirector->SetRedirects(rules), 0);
    m_hosts[0] = Bound(kDivertedHost, 8080, SOCK_STREAM);
    EXPECT_EQ(WhereDoesItLand(kDivertedHost, 0, false, 8080), "agent 198.18.0.2:8080");

    ASSERT_TRUE(TableExists(kKeepTable));
    ASSERT_EQ(m_redirector->ClosePlugin(), 0);
    EXPECT_FALSE(TableExists());
    EXPECT_FALSE(TableExists(kKeepTable));
    EXPECT_EQ(WhereDoesItLand(kDivertedHost, 0, false, 8080), "host");
    EXPECT_EQ(m_redirector->Stop(), NGC_ERROR_DISCONNECTED);
    EXPECT_EQ(m_redirector->SetRedirects(rules), NGC_ERROR_DISCONNECTED);
}

// Guards the kernel's ownership: other programs can neither flush nor delete the table, and
// a flushed ruleset leaves it; the diversion goes on untouched.
TEST_F(NftRedirectorIntegrationTest, OwnedTableRefusesOtherPrograms) {
    OpenAndStart();
    ASSERT_NE(Listing().find("flags owner"), std::string::npos);
    EXPECT_NE(RunNftCommand("flush table " + kTable), 0);
    EXPECT_NE(RunNftCommand("delete table " + kTable), 0);
    EXPECT_EQ(RunNftCommand("flush ruleset"), 0);
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "agent 198.18.0.2:80");
    EXPECT_EQ(m_callback.disruptions, 0);
}

// Guards tampering with the table that the fallback leaves open to others: whatever another
// program does to it is reported once, what is left is removed, and the plug-in counts as
// disconnected rather than putting a table back on its own.
class TamperTest : public NftRedirectorIntegrationTest,
                   public ::testing::WithParamInterface<const char*> {};

TEST_P(TamperTest, ChangeByAnotherProgramIsADisruption) {
    OpenAndStart(AgentRules(), FastOptions(false));
    ASSERT_EQ(Listing().find("flags owner"), std::string::npos);
    std::string command = GetParam();
    if (command == "delete rule") command += " " + kTable + " divert handle " + HandleOf(":5002");
    ASSERT_EQ(RunNftCommand(command), 0) << command;
    EXPECT_TRUE(WaitUntil([this] { return m_callback.disruptions > 0; }));
    EXPECT_EQ(m_redirector->Stop(), NGC_ERROR_DISCONNECTED);
    EXPECT_FALSE(TableExists());
    EXPECT_EQ(m_callback.disruptions, 1);
}

INSTANTIATE_TEST_SUITE_P(Commands, TamperTest,
                         ::testing::Values("delete table inet tsc_swg", "flush table inet tsc_swg",
                                           "delete rule", "flush ruleset"));

// Guards the start after a crash: a table of the same name, whatever it holds, is replaced.
TEST_F(NftRedirectorIntegrationTest, StaleTableIsReplacedAtOpen) {
    ASSERT_EQ(RunNftCommand("table " + kTable +
                            " {\n chain stale {\n"
                            "  type nat hook output priority -100; policy accept;\n"
                            "  tcp dport 80 redirect to :5999\n }\n}\n"),
              0);
    OpenAndStart();
    const std::string listing = Listing();
    EXPECT_EQ(listing.find("stale"), std::string::npos) << listing;
    EXPECT_NE(listing.find("redirect to :5002"), std::string::npos) << listing;
}

// Guards the start order: rules wait until something listens on the redirect port, so a
// connection is never diverted to a closed port.
TEST_F(NftRedirectorIntegrationTest, RulesWaitForTheListener) {
    m_agentListener.Reset();
    m_agentListener6.Reset();
    OpenAndStart();
    EXPECT_FALSE(TableExists());
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "host");

    m_agentListener = Bound("127.0.0.1", kListenPort, SOCK_STREAM);
    ASSERT_TRUE(WaitUntil([this] { return m_redirector->TableInstalled(); }));
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "agent 198.18.0.2:80");
}

// Guards the per-connection exceptions: recorded and removed, never a table change.
TEST_F(NftRedirectorIntegrationTest, ConnectionExceptionsAreRecordedNotRendered) {
    OpenAndStart();
    ASSERT_TRUE(WaitUntil([] { return Listing().find(kNamedHost) != std::string::npos; }));
    const std::string before = Listing();
    redirect_info exception{};
    exception.rule_op = 1;
    exception.rule_class = 1;
    exception.rule_pid = 4321;
    exception.peer_port = htons(80);
    exception.rule_family = AF_INET;
    exception.rule_flags = 1;
    ngc_cidr_addr destination{};
    destination.cidr_family = AF_INET;
    inet_pton(AF_INET, kDivertedHost, destination.cidr_addr);
    destination.cidr_prefix_bits = 32;
    exception.include_addrs = {destination};
    std::list<redirect_info> one = {exception};
    const size_t recorded = m_redirector->RecordedRules().size();
    ASSERT_EQ(m_redirector->SetRedirects(one), 0);
    EXPECT_EQ(m_redirector->RecordedRules().size(), recorded + 1);
    EXPECT_EQ(Listing(), before);

    one.front().rule_action = 1;
    ASSERT_EQ(m_redirector->SetRedirects(one), 0);
    EXPECT_EQ(m_redirector->RecordedRules().size(), recorded);
}

// Guards the VPN daemon's rule where nftables cannot match its cgroup: logged as not
// supported, and the rest of the table still goes in.
TEST_F(NftRedirectorIntegrationTest, UnmatchableProcessRuleIsLoggedAndTheTableStillApplied) {
    m_trace = std::make_unique<TraceRecorder>();
    NftRedirectorOptions options = FastOptions();
    options.cgroupOf = [](int32_t) { return std::string("/no/such/cgroup.service"); };
    std::list<redirect_info> rules = AgentRules();
    rules.push_back(rules.back());  // the agent's own IPv6 no-redirect rule, for another process
    rules.back().rule_pid = 4242;
    OpenAndStart(rules, options);
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "agent 198.18.0.2:80");
    const auto lines = m_trace->With("no-redirect rule for process 4242 not supported");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, static_cast<unsigned int>(WARN));
    EXPECT_EQ(Listing().find("cgroupv2"), std::string::npos);
}

// Guards names through the agent's lookup service: a name that does not resolve at the start
// is enforced once it does, without a restart, and a changed address is followed; both
// change the set alone (the rule keeps its handle), and a live diverted connection stays.
TEST_F(NftRedirectorIntegrationTest, NamesAreFollowedThroughTheLookupService) {
    FakeAddressResolver names;
    FakeClock clock;
    CDnsLookupThread resolver(1, 4, names, clock);
    ASSERT_TRUE(resolver.Initialize());
    // The redirector's name thread calls into the resolver: it must end before the resolver
    // does, on every way out of this body (TearDown comes too late).
    struct EndRedirectorFirst {
        std::unique_ptr<CNftRedirector>& redirector;
        ~EndRedirectorFirst() { redirector.reset(); }
    } endRedirectorFirst{m_redirector};
    names.SetAddresses("blocked.test", {}, EAI_AGAIN);
    NftRedirectorOptions options = FastOptions();
    options.lookup = [&resolver](const std::string& name, unsigned int timeoutMs,
                                 std::vector<NftAddress>& found) {
        return LookupRedirectorHost(resolver, name, timeoutMs, found);
    };
    using std::chrono::milliseconds;
    options.nameTiming = {milliseconds(20), milliseconds(100), milliseconds(100)};
    OpenAndStart(AgentRules(), options);
    EXPECT_EQ(WhereDoesItLand(kNamedHost, 2), "agent 198.18.0.4:80");
    const std::string handle = HandleOf(":5002");
    const sockaddr_storage where = Endpoint(kDivertedHost, 80);
    UniqueFd live(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(live.Get(), reinterpret_cast<const sockaddr*>(&where), EndpointLength(where)),
              0);
    UniqueFd liveAtAgent(accept4(m_agentListener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_GE(liveAtAgent.Get(), 0);

    names.SetAddresses("blocked.test", {kNamedHost});
    EXPECT_TRUE(WaitUntil([this] { return WhereDoesItLand(kNamedHost, 2) == "host"; }));
    names.SetAddresses("blocked.test", {kDivertedHost});
    EXPECT_TRUE(WaitUntil([this] { return WhereDoesItLand(kDivertedHost) == "host"; }));
    EXPECT_EQ(WhereDoesItLand(kNamedHost, 2), "agent 198.18.0.4:80");
    EXPECT_EQ(HandleOf(":5002"), handle);
    EXPECT_EQ(send(live.Get(), "x", 1, 0), 1);
    char byte = 0;
    EXPECT_EQ(recv(liveAtAgent.Get(), &byte, 1, 0), 1);
}

// One byte each way over a diverted connection, each within seconds.
bool Carries(int client, int atAgent) {
    char byte = 0;
    const auto arrives = [&byte](int fd) {
        return WaitReadable(fd, std::chrono::seconds(3)) && recv(fd, &byte, 1, 0) == 1;
    };
    return send(client, "c", 1, MSG_NOSIGNAL) == 1 && arrives(atAgent) &&
           send(atAgent, "a", 1, MSG_NOSIGNAL) == 1 && arrives(client) && byte == 'a';
}

// Guards the connections the diversion already carries: the agent's rebuild of its rules (a
// changed port list, with bytes sent meanwhile), a backoff and its end must not cut them,
// though new connections go straight to their host during the backoff; and a connection
// made during the rebuild is diverted, by the old rules or the new.
TEST_F(NftRedirectorIntegrationTest, DivertedConnectionOutlivesRebuildAndBackoff) {
    std::atomic<bool> rebuilding{false};
    std::atomic<int> live{-1}, probes{0}, undiverted{0};
    CSWGAgent agent;
    agent.m_redirectorSeams.create = [&](ISocketRedirectorApi** out) {
        NftRedirectorOptions options = FastOptions();
        // Asked right before each change of the table: what is in force in between.
        options.isListening = [&](int, uint16_t) {
            if (!rebuilding) return true;
            (void)send(live, "w", 1, MSG_NOSIGNAL);
            ++probes;
            if (WhereDoesItLand(kDivertedHost) != "agent 198.18.0.2:80") ++undiverted;
            return true;
        };
        *out = new CNftRedirector(options);
        return 0;
    };
    ASSERT_EQ(agent.StartKDF(reason_rules_refresh), 0);
    const sockaddr_storage where = Endpoint(kDivertedHost, 80);
    UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(
        connect(client.Get(), reinterpret_cast<const sockaddr*>(&where), EndpointLength(where)), 0);
    UniqueFd atAgent(accept4(m_agentListener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_TRUE(Carries(client.Get(), atAgent.Get()));
    live = client.Get();

    CSWGAgent::ORGINFO org = agent.GetOrgInfo();
    org.strWebTrafficMonitorPortList = "80,443,8080";
    agent.SetOrgInfo(org);
    rebuilding = true;
    ASSERT_TRUE(agent.RestartKDF(reason_rules_refresh));
    rebuilding = false;
    ASSERT_NE(Listing().find("dport 8080"), std::string::npos);
    EXPECT_GT(probes, 0);
    EXPECT_EQ(undiverted, 0);
    EXPECT_TRUE(Carries(client.Get(), atAgent.Get())) << "after the rebuild";

    ASSERT_TRUE(agent.StopKDF(reason_backoff));
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "host");
    EXPECT_TRUE(Carries(client.Get(), atAgent.Get())) << "in the backoff";
    ASSERT_TRUE(agent.RestartKDF(reason_backoff));
    EXPECT_TRUE(Carries(client.Get(), atAgent.Get())) << "after the backoff";
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "agent 198.18.0.2:80");
    EXPECT_TRUE(agent.CloseRedirectorInterface(reason_rules_refresh));
}

}  // namespace
}  // namespace swg_test
