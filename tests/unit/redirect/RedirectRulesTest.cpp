// SPDX-License-Identifier: Apache-2.0
// The rule list built from the configuration texts, and the parser of address lists.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "RedirectAgentFixture.h"

namespace swg_test {
namespace {

class RedirectRulesTest : public RedirectAgentTest {
protected:
    std::vector<redirect_info> Build(const std::string& ports, const std::string& exceptions,
                                     const std::string& inclusions = "") {
        SVC_STARTUP_INFO info;
        info.listen_port = SWG_LISTEN_PORT;
        info.comm_port = SWG_COMM_PORT;
        info.monitored_ports = ports;
        info.exception_text = exceptions;
        info.inclusion_text = inclusions;
        std::list<redirect_info> rules;
        m_agent.SetRedirectList(rules, info);
        return {rules.begin(), rules.end()};
    }

    struct Parsed {
        std::list<ngc_cidr_addr> ipv4, ipv6;
        std::list<std::string> names;
    };
    Parsed Parse(const std::string& text, bool ipv6) {
        Parsed parsed;
        EXPECT_TRUE(m_agent.parse_addresses_str_to_cidr_addr(text, parsed.ipv4, parsed.ipv6,
                                                             parsed.names, ipv6));
        return parsed;
    }
};

void ExpectRedirect(const redirect_info& rule, int family, uint16_t port) {
    SCOPED_TRACE("port " + std::to_string(port) + " family " + std::to_string(family));
    EXPECT_EQ(rule.rule_action, 0);
    EXPECT_EQ(rule.rule_op, 2);
    EXPECT_EQ(rule.rule_class, 1);
    EXPECT_EQ(rule.rule_pid, -1);
    EXPECT_EQ(rule.peer_port, htons(port));
    EXPECT_EQ(rule.redirect_port, htons(5002));
    EXPECT_EQ(+rule.rule_family, family);
    EXPECT_EQ(rule.rule_protocol, IPPROTO_TCP);
    EXPECT_EQ(rule.rule_flags, 0);
    EXPECT_EQ(+rule.rule_reserved_id, -1);
    EXPECT_EQ(+rule.rule_excluded_pid, static_cast<int32_t>(getpid()));
}

void ExpectNoRedirect(const redirect_info& rule, int family, int32_t pid) {
    SCOPED_TRACE("pid " + std::to_string(pid) + " family " + std::to_string(family));
    EXPECT_EQ(rule.rule_action, 0);
    EXPECT_EQ(rule.rule_op, 1);
    EXPECT_EQ(rule.rule_class, 1);
    EXPECT_EQ(rule.rule_pid, pid);
    EXPECT_EQ(rule.peer_port, 0);
    EXPECT_EQ(rule.redirect_port, 0);
    EXPECT_EQ(+rule.rule_family, family);
    EXPECT_EQ(rule.rule_protocol, IPPROTO_TCP);
    EXPECT_EQ(+rule.rule_reserved_id, -1);
    EXPECT_EQ(+rule.rule_excluded_pid, -1);
    EXPECT_TRUE(rule.include_addrs.empty() && rule.exclude_addrs.empty());
    EXPECT_TRUE(rule.include_hosts.empty() && rule.exclude_hosts.empty());
}

// Guards the order of the default list: per port IPv4 then IPv6, then the agent's and the
// VPN daemon's no-redirect pairs.
TEST_F(RedirectRulesTest, TwoPortsWithIPv6GiveEightRulesInOrder) {
    m_script->vpnDaemonPid = 4242;
    const std::vector<redirect_info> rules = Build("80,443", default_exception_list);
    ASSERT_EQ(rules.size(), 8u);
    ExpectRedirect(rules[0], AF_INET, 80);
    ExpectRedirect(rules[1], AF_INET6, 80);
    ExpectRedirect(rules[2], AF_INET, 443);
    ExpectRedirect(rules[3], AF_INET6, 443);
    ExpectNoRedirect(rules[4], AF_INET, static_cast<int32_t>(getpid()));
    ExpectNoRedirect(rules[5], AF_INET6, static_cast<int32_t>(getpid()));
    ExpectNoRedirect(rules[6], AF_INET, 4242);
    ExpectNoRedirect(rules[7], AF_INET6, 4242);
    EXPECT_EQ(rules[0].exclude_addrs.size(), 7u);
    EXPECT_EQ(rules[1].exclude_addrs.size(), 11u);
    EXPECT_TRUE(m_agent.m_bIPv6Present);
    EXPECT_EQ(m_trace.Count(TRACE, "after init_redirect: Redirecting port 443 to port 5002"), 1u);
}

// Guards the host without IPv6: the IPv4 rule twice (same length of list), IPv6 entries
// logged and dropped, and a missing daemon costing only its two rules.
TEST_F(RedirectRulesTest, WithoutIPv6TheIPv4RuleIsDoubledAndIPv6EntriesDropped) {
    m_script->ipv6 = false;
    const std::vector<redirect_info> rules = Build("80,443", default_exception_list);
    ASSERT_EQ(rules.size(), 6u);
    for (size_t i = 0; i < 4; ++i) {
        ExpectRedirect(rules[i], AF_INET, i < 2 ? 80 : 443);
        EXPECT_EQ(rules[i].exclude_addrs.size(), 7u);
    }
    ExpectNoRedirect(rules[4], AF_INET, static_cast<int32_t>(getpid()));
    ExpectNoRedirect(rules[5], AF_INET6, static_cast<int32_t>(getpid()));
    EXPECT_FALSE(m_agent.m_bIPv6Present);
    EXPECT_EQ(m_trace.Count(WARN, "did not add exception or inclusion: '::1/128'"), 1u);
    EXPECT_EQ(m_trace.With("did not add exception or inclusion").size(), 11u);
    EXPECT_EQ(m_trace.Count(ERR, "Failed to get VPN daemon PID. no-redirect rule not added."), 1u);
}

// Guards the built-in exceptions: 18 entries, 7 IPv4 and 11 IPv6, with their prefixes.
TEST_F(RedirectRulesTest, BuiltInExceptionsAreEighteenEntries) {
    const Parsed parsed = Parse(default_exception_list, true);
    ASSERT_EQ(parsed.ipv4.size(), 7u);
    ASSERT_EQ(parsed.ipv6.size(), 11u);
    EXPECT_TRUE(parsed.names.empty());
    const ngc_cidr_addr& ten = parsed.ipv4.front();
    EXPECT_EQ(ten.cidr_family, static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(ten.cidr_addr[0], 10);
    EXPECT_EQ(ten.cidr_prefix_bits, 8u);
    const ngc_cidr_addr& mapped = parsed.ipv6.front();  // ::ffff:10.0.0.0/104
    EXPECT_EQ(mapped.cidr_family, static_cast<uint32_t>(AF_INET6));
    EXPECT_EQ(mapped.cidr_addr[10], 0xff);
    EXPECT_EQ(mapped.cidr_addr[12], 10);
    EXPECT_EQ(mapped.cidr_prefix_bits, 104u);
    EXPECT_EQ(parsed.ipv6.back().cidr_addr[0], 0xfc);  // fc00::/7
    EXPECT_EQ(parsed.ipv6.back().cidr_prefix_bits, 7u);
    EXPECT_EQ(m_trace.Count(THREAD, "Parse addr to cidr: ip is 10.0.0.0 and mask is 8"), 1u);
    EXPECT_EQ(m_trace.Count(THREAD, "added exception or inclusion: A 8"), 1u);
    EXPECT_EQ(m_trace.Count(THREAD,
                            "added exception or inclusion : "
                            "fe80:0000:0000:0000:0000:0000:0000:0000 - 10"),
              1u);
}

// Guards names and prefixes: what is no address becomes a host name (its prefix dropped),
// prefixes default to the family's width, are taken as written (99 too) and empty is 0.
TEST_F(RedirectRulesTest, NamesAndPrefixesAreTakenAsWritten) {
    const Parsed parsed = Parse(
        " intranet.example ;portal.example/24;192.0.2.1;2001:db8::1;198.18.0.0/99;10.1.0.0/;"
        "/8;host:8080;\t;",
        true);
    EXPECT_EQ(parsed.names,
              (std::list<std::string>{"intranet.example", "portal.example", "host:8080"}));
    ASSERT_EQ(parsed.ipv4.size(), 4u);
    std::vector<ngc_cidr_addr> v4(parsed.ipv4.begin(), parsed.ipv4.end());
    EXPECT_EQ(v4[0].cidr_prefix_bits, 32u);
    EXPECT_EQ(v4[0].cidr_addr[3], 1);
    EXPECT_EQ(v4[1].cidr_prefix_bits, 99u);
    EXPECT_EQ(v4[2].cidr_prefix_bits, 0u);
    // "/8": the empty address is what inet_addr makes of it, unchecked.
    uint32_t none = 0;
    std::memcpy(&none, v4[3].cidr_addr, 4);
    EXPECT_EQ(none, INADDR_NONE);
    EXPECT_EQ(v4[3].cidr_prefix_bits, 8u);
    ASSERT_EQ(parsed.ipv6.size(), 1u);
    EXPECT_EQ(parsed.ipv6.front().cidr_prefix_bits, 128u);
    EXPECT_EQ(parsed.ipv6.front().cidr_addr[1], 0x01);
}

// Guards the IPv6 entries of a host without IPv6: logged and dropped, the rest kept.
TEST_F(RedirectRulesTest, IPv6EntriesWithoutIPv6AreLoggedAndDropped) {
    const Parsed parsed = Parse("2001:db8::/32;192.0.2.0/24;::ffff:198.18.0.1", false);
    EXPECT_EQ(parsed.ipv4.size(), 1u);
    EXPECT_TRUE(parsed.ipv6.empty());
    EXPECT_EQ(m_trace.Count(WARN, "did not add exception or inclusion: '2001:db8::/32'"), 1u);
    EXPECT_EQ(m_trace.Count(WARN, "did not add exception or inclusion: '::ffff:198.18.0.1'"), 1u);
}

// Guards the port list: a word is port 0, repeats stay, each port gives its two rules.
TEST_F(RedirectRulesTest, PortListOfANumberAndAWordGivesThatPortAndPortZero) {
    const std::vector<redirect_info> rules = Build("8080,https", "");
    ASSERT_EQ(rules.size(), 6u);
    EXPECT_EQ(rules[0].peer_port, htons(8080));
    EXPECT_EQ(rules[1].peer_port, htons(8080));
    EXPECT_EQ(rules[2].peer_port, 0);
    EXPECT_EQ(rules[3].peer_port, 0);
    EXPECT_EQ(rules[2].rule_op, 2);
    EXPECT_EQ(m_trace.Count(TRACE, "after init_redirect: Redirecting port 0 to port 5002"), 1u);

    EXPECT_EQ(Build("443,443", "").size(), 6u);
}

// Guards where the lists go: exceptions and inclusions by family, names to the host lists,
// shared by every redirect rule and absent from the no-redirect rules.
TEST_F(RedirectRulesTest, ListsGoToEveryRedirectRuleByFamily) {
    const std::vector<redirect_info> rules = Build("80", "192.0.2.0/24;2001:db8::/32;skip.example",
                                                   "198.18.0.0/15;2001:2::/48;only.example");
    ASSERT_EQ(rules.size(), 4u);
    EXPECT_EQ(rules[0].exclude_addrs.size(), 1u);
    EXPECT_EQ(rules[0].exclude_addrs.front().cidr_family, static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(rules[0].include_addrs.front().cidr_prefix_bits, 15u);
    EXPECT_EQ(rules[1].exclude_addrs.front().cidr_family, static_cast<uint32_t>(AF_INET6));
    EXPECT_EQ(rules[1].include_addrs.front().cidr_prefix_bits, 48u);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(rules[i].exclude_hosts, std::list<std::string>{"skip.example"});
        EXPECT_EQ(rules[i].include_hosts, std::list<std::string>{"only.example"});
    }
}

}  // namespace
}  // namespace swg_test
