// SPDX-License-Identifier: Apache-2.0
// The host's network state over netlink in a namespace of the test's own: default routes of
// both families, the route to a destination, the notices of a change, and the interface and
// address that the agent prefers for a destination.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <string>

#include "core/SWGAgent.h"
#include "platform/NetworkState.h"
#include "support/NetnsScope.h"

namespace {

class NetworkStateIntegrationTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root for a network namespace";
        if (!m_netns.Entered()) GTEST_SKIP() << m_netns.Why();
        ASSERT_TRUE(m_netns.Run(
            "ip link set lo up && ip link add lan0 type veth peer name lan0p && "
            "ip link set lan0 up && ip link set lan0p up && "
            "ip addr add 198.18.4.2/24 dev lan0 && ip -6 addr add fd12::2/64 dev lan0 nodad && "
            "ip route add default via 198.18.4.1 metric 100 && ip -6 route add default via "
            "fd12::1"));
    }

    swg_test::NetnsScope m_netns;
};

TEST_F(NetworkStateIntegrationTest, ReadsRoutesAndHearsTheirChanges) {
    INetworkState& state = SystemNetworkState();
    std::string name, router;
    ASSERT_TRUE(state.DefaultRoute(AF_INET, name, router));
    EXPECT_EQ(name + " " + router, "lan0 198.18.4.1");
    ASSERT_TRUE(state.DefaultRoute(AF_INET6, name, router));
    EXPECT_EQ(name + " " + router, "lan0 fd12::1");

    // A tunnel's device route with a lower metric wins; the link is its next hop.
    const int notices = OpenRouteNoticeSocket();
    ASSERT_GE(notices, 0);
    ASSERT_TRUE(
        m_netns.Run("ip link add vpn0 type veth peer name vpn0p && ip link set vpn0 up && "
                    "ip link set vpn0p up && ip route add default dev vpn0 metric 5"));
    ASSERT_TRUE(state.DefaultRoute(AF_INET, name, router));
    EXPECT_EQ(name + " [" + router + "]", "vpn0 [0.0.0.0]");
    int counted = 0;
    for (int i = 0; i < 50 && counted == 0; ++i) counted += ReadRouteNotices(notices, 100);
    EXPECT_GT(counted, 0);
    ::close(notices);
    EXPECT_EQ(ReadRouteNotices(notices, 100), -EBADF);

    sockaddr_in to{};
    to.sin_family = AF_INET;
    inet_pton(AF_INET, "198.18.4.9", &to.sin_addr);
    EXPECT_EQ(state.RouteInterface(reinterpret_cast<sockaddr*>(&to), name), 0);
    EXPECT_EQ(name, "lan0");

    // The agent's view: the interface of the route and its address, IPv6 when allowed.
    CSWGAgent agent;
    InterfaceInfo info;
    EXPECT_FALSE(
        agent.GetPreferredInterface(reinterpret_cast<sockaddr*>(&to), false, false, false, info));
    EXPECT_EQ(info.strInterfaceName + " " + info.strIpAddress, "lan0 198.18.4.2");
    EXPECT_FALSE(
        agent.GetPreferredInterface(reinterpret_cast<sockaddr*>(&to), false, false, true, info));
    EXPECT_EQ(info.strIpAddress, "fd12:0000:0000:0000:0000:0000:0000:0002");
}

}  // namespace
