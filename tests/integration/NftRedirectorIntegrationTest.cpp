// SPDX-License-Identifier: Apache-2.0
// The nftables redirector in a network namespace of the test's own: what is diverted, what
// is not, and what happens when the table goes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netfilter_ipv4.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/SWGAgent.h"
#include "platform/SocketMark.h"
#include "platform/linux/NftCommand.h"
#include "platform/linux/NftRedirector.h"
#include "support/NetnsScope.h"
#include "support/SocketPeers.h"
#include "support/TraceRecorder.h"

namespace swg_test {
namespace {

// Test hosts, all on the namespace's loopback interface.
constexpr char kDivertedHost[] = "198.18.0.2";
constexpr char kExceptedHost[] = "198.18.0.3";  // in the exception list as an address
constexpr char kNamedHost[] = "198.18.0.4";     // what "blocked.test" resolves to
constexpr char kPrivateHost[] = "10.0.0.2";     // in the built-in exceptions
constexpr uint16_t kListenPort = 5002;
constexpr auto kShort = std::chrono::milliseconds(300);
constexpr auto kLong = std::chrono::seconds(3);

sockaddr_storage AddressOf(const char* text, uint16_t port, socklen_t& length) {
    sockaddr_storage storage{};
    if (std::strchr(text, ':') != nullptr) {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        inet_pton(AF_INET6, text, &v6->sin6_addr);
        length = sizeof(*v6);
    } else {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        inet_pton(AF_INET, text, &v4->sin_addr);
        length = sizeof(*v4);
    }
    return storage;
}

UniqueFd Bound(const char* address, uint16_t port, int type) {
    socklen_t length = 0;
    const sockaddr_storage where = AddressOf(address, port, length);
    UniqueFd fd(socket(where.ss_family, type | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(fd.Get(), reinterpret_cast<const sockaddr*>(&where), length) != 0) fd.Reset();
    if (type == SOCK_STREAM && fd.Get() >= 0 && listen(fd.Get(), 16) != 0) fd.Reset();
    return fd;
}

// A TCP connect from this namespace, optionally from a socket carrying the agent's mark.
UniqueFd ConnectTo(const char* address, uint16_t port, bool marked = false) {
    socklen_t length = 0;
    const sockaddr_storage where = AddressOf(address, port, length);
    UniqueFd fd(socket(where.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (marked && ApplyAgentSocketMark(fd.Get()) != 0) return UniqueFd();
    if (connect(fd.Get(), reinterpret_cast<const sockaddr*>(&where), length) != 0) {
        return UniqueFd();
    }
    return fd;
}

// The connection a listener has waiting, within `timeout`; -1 descriptor when none came.
UniqueFd AcceptWithin(int listener, std::chrono::milliseconds timeout) {
    pollfd ready{listener, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(timeout.count())) != 1) return UniqueFd();
    return UniqueFd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
}

std::string OriginalDestination(int fd) {
    sockaddr_in original{};
    socklen_t length = sizeof(original);
    // SO_ORIGINAL_DST gives the destination before the NAT redirect (netfilter_ipv4.h).
    if (getsockopt(fd, SOL_IP, SO_ORIGINAL_DST, &original, &length) != 0) return "none";
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &original.sin_addr, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(original.sin_port));
}

bool TableExists() { return RunNftCommand(std::string("list table inet ") + kNftTableName) == 0; }

bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

class CountingCallback : public IKdfApiCB {
public:
    void OnKdfDisruption() override { ++disruptions; }
    void OnPlannedKdfDisruptionStart(PlannedDisruption) override {}
    void OnPlannedKdfDisruptionComplete(PlannedDisruption) override {}
    std::atomic<int> disruptions{0};
};

NftRedirectorOptions FastOptions() {
    NftRedirectorOptions options;
    options.watchPeriodMs = 100;
    options.listenerPollMs = 20;
    options.resolve = [](const std::string& name) {
        std::vector<NftAddress> addresses;
        if (name == "blocked.test") {
            NftAddress address;
            address.family = AF_INET;
            inet_pton(AF_INET, kNamedHost, address.bytes.data());
            addresses.push_back(address);
        }
        return addresses;
    };
    return options;
}

class NftRedirectorIntegrationTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root for network namespaces and nftables";
        m_netns = std::make_unique<NetnsScope>();
        if (!m_netns->Entered()) GTEST_SKIP() << "no network namespace: " << m_netns->Why();
        ASSERT_TRUE(
            m_netns->Run("ip link set lo up && ip addr add 198.18.0.2/32 dev lo && "
                         "ip addr add 198.18.0.3/32 dev lo && ip addr add 198.18.0.4/32 dev lo && "
                         "ip addr add 10.0.0.2/32 dev lo"));
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
        if (m_agent) {
            WaitFor([this] { return m_agent->m_kdfThreadsRunning == 0; }, kLong);
            (void)m_agent->CloseRedirectorInterface(reason_rules_refresh);
        }
        m_agent.reset();
        m_redirector.reset();
        m_trace.reset();  // after every thread that could still log to it
        m_netns.reset();
    }

    // The agent's rule list for ports 80 and 443 with two extra exceptions.
    std::list<redirect_info> AgentRules() {
        CSWGAgent builder;
        builder.m_redirectorSeams.ipv6Installed = [] { return true; };
        builder.m_redirectorSeams.pidOfProcess = [](const std::string&) { return -1; };
        SVC_STARTUP_INFO info;
        info.listen_port = kListenPort;
        info.comm_port = SWG_COMM_PORT;
        info.monitored_ports = "80,443";
        info.exception_text = std::string(default_exception_list) + "198.18.0.3;blocked.test";
        std::list<redirect_info> rules;
        builder.SetRedirectList(rules, info);
        return rules;
    }

    void OpenAndStart() {
        m_redirector = std::make_unique<CNftRedirector>(FastOptions());
        ASSERT_EQ(m_redirector->OpenPlugin(&m_callback), 0);
        std::list<redirect_info> rules = AgentRules();
        ASSERT_EQ(m_redirector->SetRedirects(rules), 0);
        ASSERT_EQ(m_redirector->Start(), 0);
        ASSERT_TRUE(TableExists());
    }

    // Which listener took a connect to `host`:80: "agent <original destination>", "host",
    // or "none".
    std::string WhereDoesItLand(const char* host, bool marked = false, size_t hostIndex = 0) {
        UniqueFd client = ConnectTo(host, 80, marked);
        if (client.Get() < 0) return "connect failed: " + std::string(std::strerror(errno));
        pollfd ready[2] = {{m_agentListener.Get(), POLLIN, 0},
                           {m_hosts[hostIndex].Get(), POLLIN, 0}};
        if (poll(ready, 2, static_cast<int>(kShort.count())) <= 0) return "none";
        if ((ready[0].revents & POLLIN) != 0) {
            UniqueFd diverted(accept4(m_agentListener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            return "agent " + OriginalDestination(diverted.Get());
        }
        UniqueFd direct(accept4(m_hosts[hostIndex].Get(), nullptr, nullptr, SOCK_CLOEXEC));
        return direct.Get() >= 0 ? "host" : "none";
    }

    std::unique_ptr<NetnsScope> m_netns;
    std::vector<UniqueFd> m_hosts;  // port 80 of each test host, in the order of SetUp
    UniqueFd m_agentListener;
    UniqueFd m_agentListener6;
    CountingCallback m_callback;
    std::unique_ptr<TraceRecorder> m_trace;
    std::unique_ptr<CNftRedirector> m_redirector;
    std::unique_ptr<CSWGAgent> m_agent;
};

// Guards the diversion itself and what must never be diverted: the exceptions by address,
// by name and by built-in range, and the agent's own marked sockets.
TEST_F(NftRedirectorIntegrationTest, DivertsMonitoredTrafficExceptWhatIsExcepted) {
    OpenAndStart();
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "agent 198.18.0.2:80");
    EXPECT_EQ(WhereDoesItLand(kExceptedHost, false, 1), "host");
    EXPECT_EQ(WhereDoesItLand(kNamedHost, false, 2), "host");
    EXPECT_EQ(WhereDoesItLand(kPrivateHost, false, 3), "host");
    EXPECT_EQ(WhereDoesItLand(kDivertedHost, true, 0), "host");

    UniqueFd other = Bound(kDivertedHost, 8080, SOCK_STREAM);
    UniqueFd client = ConnectTo(kDivertedHost, 8080);
    EXPECT_GE(AcceptWithin(other.Get(), kShort).Get(), 0) << "an unmonitored port is diverted";
}

// Guards the QUIC rule: UDP to a monitored port is refused while the rules are in force,
// and flows again once they are stopped.
TEST_F(NftRedirectorIntegrationTest, UdpToMonitoredPortIsRefusedOnlyWhileRulesAreInForce) {
    OpenAndStart();
    UniqueFd receiver = Bound(kDivertedHost, 443, SOCK_DGRAM);
    ASSERT_GE(receiver.Get(), 0);
    socklen_t length = 0;
    const sockaddr_storage where = AddressOf(kDivertedHost, 443, length);
    UniqueFd sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(sender.Get(), reinterpret_cast<const sockaddr*>(&where), length), 0);

    const ssize_t sent = send(sender.Get(), "q", 1, 0);
    const int sendError = errno;
    pollfd ready{sender.Get(), POLLIN, 0};
    (void)poll(&ready, 1, static_cast<int>(kShort.count()));
    char byte = 0;
    const ssize_t got = recv(sender.Get(), &byte, 1, MSG_DONTWAIT);
    const int recvError = errno;
    // The rejected datagram either fails at once or comes back as port unreachable.
    EXPECT_TRUE((sent < 0 && sendError == EPERM) || (got < 0 && recvError == ECONNREFUSED))
        << "send " << sent << "/" << sendError << " recv " << got << "/" << recvError;
    EXPECT_FALSE(WaitReadable(receiver.Get(), kShort)) << "the datagram got through";

    ASSERT_EQ(m_redirector->Stop(), 0);
    ASSERT_EQ(send(sender.Get(), "q", 1, 0), 1);
    EXPECT_TRUE(WaitReadable(receiver.Get(), kLong));
}

// Guards the removal: Stop and ClosePlugin take the table away and the same connect goes
// straight to the host; Start after Stop diverts again with the recorded rules.
TEST_F(NftRedirectorIntegrationTest, StopAndCloseRemoveTheTable) {
    OpenAndStart();
    ASSERT_EQ(m_redirector->Stop(), 0);
    EXPECT_FALSE(TableExists());
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "host");

    ASSERT_EQ(m_redirector->Start(), 0);
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "agent 198.18.0.2:80");

    ASSERT_EQ(m_redirector->Clear(NGC_CLEAR_ALL_RULES), 0);
    EXPECT_FALSE(TableExists());
    EXPECT_TRUE(m_redirector->RecordedRules().empty());
    std::list<redirect_info> rules = AgentRules();
    ASSERT_EQ(m_redirector->SetRedirects(rules), 0);  // still started: in force at once
    EXPECT_TRUE(TableExists());

    ASSERT_EQ(m_redirector->ClosePlugin(), 0);
    EXPECT_FALSE(TableExists());
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "host");
    EXPECT_EQ(m_redirector->Stop(), NGC_ERROR_DISCONNECTED);
    EXPECT_EQ(m_redirector->SetRedirects(rules), NGC_ERROR_DISCONNECTED);
}

// Guards the disruption notice: a table deleted under the redirector is reported once, and
// the plug-in then counts as disconnected.
TEST_F(NftRedirectorIntegrationTest, DeletedTableIsReportedAsDisruption) {
    OpenAndStart();
    ASSERT_EQ(RunNftCommand(std::string("delete table inet ") + kNftTableName), 0);
    EXPECT_TRUE(WaitFor([this] { return m_callback.disruptions > 0; }, kLong));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(m_callback.disruptions, 1);
    EXPECT_FALSE(m_redirector->TableInstalled());
    EXPECT_EQ(m_redirector->Stop(), NGC_ERROR_DISCONNECTED);
    EXPECT_FALSE(TableExists()) << "the redirector put its table back on its own";
}

// Guards the start after a crash: a table of the same name, whatever it holds, is replaced.
TEST_F(NftRedirectorIntegrationTest, StaleTableIsReplacedAtOpen) {
    ASSERT_EQ(RunNftCommand("table inet tsc_swg {\n chain stale {\n"
                            "  type nat hook output priority -100; policy accept;\n"
                            "  tcp dport 80 redirect to :5999\n }\n}\n"),
              0);
    m_redirector = std::make_unique<CNftRedirector>(FastOptions());
    ASSERT_EQ(m_redirector->OpenPlugin(&m_callback), 0);
    EXPECT_FALSE(TableExists());
    std::list<redirect_info> rules = AgentRules();
    ASSERT_EQ(m_redirector->SetRedirects(rules), 0);
    ASSERT_EQ(m_redirector->Start(), 0);
    std::string listing;
    ASSERT_EQ(RunNftCommand("list table inet tsc_swg", &listing), 0);
    EXPECT_EQ(listing.find("stale"), std::string::npos) << listing;
    EXPECT_NE(listing.find("redirect to :5002"), std::string::npos) << listing;
}

// Guards the start order: rules wait until something listens on the redirect port, so a
// connection is never diverted to a closed port.
TEST_F(NftRedirectorIntegrationTest, RulesWaitForTheListener) {
    m_agentListener.Reset();
    m_agentListener6.Reset();
    m_redirector = std::make_unique<CNftRedirector>(FastOptions());
    ASSERT_EQ(m_redirector->OpenPlugin(&m_callback), 0);
    std::list<redirect_info> rules = AgentRules();
    ASSERT_EQ(m_redirector->SetRedirects(rules), 0);
    ASSERT_EQ(m_redirector->Start(), 0);
    EXPECT_FALSE(TableExists());
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "host");

    m_agentListener = Bound("127.0.0.1", kListenPort, SOCK_STREAM);
    ASSERT_TRUE(WaitFor([this] { return m_redirector->TableInstalled(); }, kLong));
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "agent 198.18.0.2:80");
}

// Guards the per-connection exceptions: recorded and removed, never a table change.
TEST_F(NftRedirectorIntegrationTest, ConnectionExceptionsAreRecordedNotRendered) {
    OpenAndStart();
    std::string before;
    ASSERT_EQ(RunNftCommand("list table inet tsc_swg", &before), 0);
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
    std::string after;
    ASSERT_EQ(RunNftCommand("list table inet tsc_swg", &after), 0);
    EXPECT_EQ(after, before);

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
    m_redirector = std::make_unique<CNftRedirector>(options);
    ASSERT_EQ(m_redirector->OpenPlugin(&m_callback), 0);
    std::list<redirect_info> rules = AgentRules();
    redirect_info daemon = rules.back();  // the agent's own IPv6 no-redirect rule
    daemon.rule_pid = 4242;
    rules.push_back(daemon);
    ASSERT_EQ(m_redirector->SetRedirects(rules), 0);
    ASSERT_EQ(m_redirector->Start(), 0);
    EXPECT_TRUE(TableExists());
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "agent 198.18.0.2:80");
    const auto lines = m_trace->With("no-redirect rule for process 4242 not supported");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, static_cast<unsigned int>(WARN));
    std::string listing;
    ASSERT_EQ(RunNftCommand("list table inet tsc_swg", &listing), 0);
    EXPECT_EQ(listing.find("cgroupv2"), std::string::npos) << listing;
}

// Guards the whole recovery: the agent on the real redirector notices the deleted table,
// closes, reopens and diverts again; its close then leaves no table behind.
TEST_F(NftRedirectorIntegrationTest, AgentRecoversFromADeletedTable) {
    m_agent = std::make_unique<CSWGAgent>();
    auto created = std::make_shared<std::atomic<int>>(0);
    m_agent->m_redirectorSeams.create = [created](ISocketRedirectorApi** out) {
        *out = new CNftRedirector(FastOptions());
        ++*created;
        return 0;
    };
    m_agent->m_redirectorSeams.release = ReleaseLmsockSwgApi;
    m_agent->m_redirectorSeams.pidOfProcess = [](const std::string&) { return -1; };
    ASSERT_EQ(m_agent->StartKDF(reason_rules_refresh), 0);
    ASSERT_TRUE(TableExists());
    ASSERT_EQ(*created, 1);

    ASSERT_EQ(RunNftCommand(std::string("delete table inet ") + kNftTableName), 0);
    ASSERT_TRUE(WaitFor([&] { return *created == 2 && m_agent->m_kdfThreadsRunning == 0; }, kLong));
    EXPECT_EQ(m_agent->KdfState(), Running);
    EXPECT_TRUE(TableExists());
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "agent 198.18.0.2:80");

    EXPECT_TRUE(m_agent->CloseRedirectorInterface(reason_rules_refresh));
    EXPECT_FALSE(TableExists());
    EXPECT_EQ(WhereDoesItLand(kDivertedHost), "host");
}

}  // namespace
}  // namespace swg_test
