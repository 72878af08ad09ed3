// SPDX-License-Identifier: Apache-2.0
// Interface tracking on a fake of the host's network state: what counts as a change, when
// the main loop is told, when a settled change evaluates backoff, and which interface and
// address a destination gets.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/OsEvents.h"
#include "core/SWGAgent.h"
#include "platform/NetworkState.h"

namespace {

class FakeNetworkState : public INetworkState {
public:
    struct Route {
        std::string name;
        std::string router;
    };
    Route v4, v6;
    std::string routeInterface = "eth0";
    std::vector<InterfaceAddress> addresses;
    std::string domain;
    bool domainReadable = true;

    bool DefaultRoute(int family, std::string& name, std::string& router) override {
        const Route& route = family == AF_INET6 ? v6 : v4;
        name = route.name;
        router = route.router;
        return true;
    }
    int RouteInterface(const sockaddr*, std::string& name) override {
        name = routeInterface;
        return name.empty() ? ENETUNREACH : 0;
    }
    int InterfaceAddresses(std::vector<InterfaceAddress>& out) override {
        out = addresses;
        return 0;
    }
    bool DnsDomain(const std::string&, std::string& out) override {
        out = domain;
        return domainReadable;
    }
    void Add(const std::string& name, int family, const char* text) {
        InterfaceAddress address;
        address.name = name;
        address.family = family;
        inet_pton(family, text, address.bytes);
        addresses.push_back(address);
    }
};

class NetworkTrackingTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_agent.SetNetworkState(&m_state);
        m_agent.SetTrustedNetworkProbe([this](const std::string&, const std::string&, int) {
            ++m_probes;
            return false;
        });
    }
    static bool Signalled() {
        return g_IPAddrChangeEvent.is_signal_all() || g_IPAddrChangeEvent.is_signal_one();
    }

    FakeNetworkState m_state;
    CSWGAgent m_agent;
    int m_probes = 0;
};

// Each step's default routes against the last: either family's router or interface name
// counts, and a change that leaves no router in either family is told apart.
TEST_F(NetworkTrackingTest, ChangesOfRouterOrNameCount) {
    const struct {
        FakeNetworkState::Route v4, v6;
        int result;
    } steps[] = {
        {{"eth0", "198.18.0.1"}, {}, 0},
        {{"eth0", "198.18.0.1"}, {}, 1},
        {{"eth0", "198.18.0.2"}, {}, 0},
        {{"eth1", "198.18.0.2"}, {}, 0},
        {{"eth1", "198.18.0.2"}, {"eth1", "fe80::1"}, 0},
        {{}, {}, 2},
        {{"tun0", ""}, {}, 2},
        {{"tun0", ""}, {}, 1},
    };
    int index = 0;
    for (const auto& step : steps) {
        m_state.v4 = step.v4;
        m_state.v6 = step.v6;
        EXPECT_EQ(m_agent.checkInterfaceChanges(), step.result) << "step " << index;
        EXPECT_EQ(m_agent.getBestInterface(AF_INET), step.v4.router);
        EXPECT_EQ(m_agent.getBestInterfaceName(AF_INET), step.v4.name);
        EXPECT_EQ(m_agent.getBestInterfaceName(AF_INET6), step.v6.name);
        ++index;
    }
}

// A notice that changed nothing leaves the main loop's wait alone; one that did signals it.
TEST_F(NetworkTrackingTest, OnlyAChangeSignalsTheMainLoop) {
    g_IPAddrChangeEvent.reset();
    m_agent.HandleNetworkChangeEvent();
    EXPECT_FALSE(Signalled());
    m_state.v4 = {"eth0", "198.18.0.1"};
    m_agent.HandleNetworkChangeEvent();
    EXPECT_TRUE(Signalled());
    g_IPAddrChangeEvent.reset();
}

// A settled change evaluates backoff only when the agent decides itself and either stands
// aside already or probes for a trusted server.
TEST_F(NetworkTrackingTest, SettledChangeEvaluatesOnlyWhenItCanMatter) {
    const struct {
        bool honour, backedOff, customer;
        bool evaluated;
    } rows[] = {
        {false, false, false, false},
        {false, false, true, true},
        {false, true, false, true},
        {true, true, true, false},
    };
    for (const auto& row : rows) {
        CSWGAgent::ORGINFO org = m_agent.GetOrgInfo();
        org.bSwgHonorTND = row.honour;
        org.bBackoffOnCustomerTrustedNetwork = row.customer;
        org.strTrustedServer = "trusted.corp.test";
        org.strTrustedServerFingerprint = "AB";
        org.nTrustedServerPort = 443;
        m_agent.SetOrgInfo(org);
        m_agent.m_bBackedOff = row.backedOff;
        m_probes = 0;
        m_agent.takeActionOnAddrChange();
        // An evaluation finds nothing to stand aside for: a backed-off agent leaves it.
        const bool evaluated =
            (row.customer && m_probes == 1) || (row.backedOff && !m_agent.m_bBackedOff);
        EXPECT_EQ(evaluated, row.evaluated) << row.honour << row.backedOff << row.customer;
    }
}

// Which address stands for the interface: IPv4 alone when IPv6 is not allowed, else the first
// IPv6 address past the rough link-local filter, else the last IPv4 address.
TEST_F(NetworkTrackingTest, PreferredInterfacePicksItsAddress) {
    const struct {
        std::vector<std::pair<int, const char*>> addresses;
        bool allowIPv6;
        const char* address;
    } rows[] = {
        {{{AF_INET, "198.18.0.5"}, {AF_INET, "198.18.0.6"}}, false, "198.18.0.5"},
        {{{AF_INET, "198.18.0.5"}, {AF_INET, "198.18.0.6"}}, true, "198.18.0.6"},
        {{{AF_INET, "198.18.0.5"}, {AF_INET6, "fd12::1"}}, false, "198.18.0.5"},
        {{{AF_INET6, "fe80::1"}, {AF_INET6, "2a80::1"}, {AF_INET6, "fd12::1"}},
         true,
         "fd12:0000:0000:0000:0000:0000:0000:0001"},
        {{{AF_INET6, "fe80::1"}, {AF_INET, "198.18.0.5"}}, true, "198.18.0.5"},
        {{{AF_INET6, "fe80::1"}}, true, ""},
    };
    sockaddr_in destination{};
    destination.sin_family = AF_INET;
    inet_pton(AF_INET, "198.18.0.9", &destination.sin_addr);
    const sockaddr* to = reinterpret_cast<const sockaddr*>(&destination);
    for (const auto& row : rows) {
        m_state.addresses.clear();
        m_state.Add("eth1", AF_INET, "198.18.7.7");  // another interface's address never counts
        for (const auto& address : row.addresses)
            m_state.Add("eth0", address.first, address.second);
        InterfaceInfo info;
        const auto result = m_agent.GetPreferredInterface(to, false, false, row.allowIPv6, info);
        EXPECT_EQ(info.strInterfaceName, "eth0");
        EXPECT_EQ(info.strIpAddress, row.address);
        EXPECT_EQ(static_cast<bool>(result), info.strIpAddress.empty()) << row.address;
    }
    // The domain only when asked for; one that cannot be read is the error -1.
    InterfaceInfo info;
    m_state.Add("eth0", AF_INET, "198.18.0.5");
    m_state.domain = "corp.test";
    EXPECT_FALSE(m_agent.GetPreferredInterface(to, false, true, false, info));
    EXPECT_EQ(info.strDnsDomain, "corp.test");
    m_state.domainReadable = false;
    EXPECT_EQ(m_agent.GetPreferredInterface(to, false, true, false, info).value(), -1);
    EXPECT_EQ(m_agent.GetPreferredInterface(nullptr, false, false, false, info).value(), EINVAL);
}

}  // namespace
