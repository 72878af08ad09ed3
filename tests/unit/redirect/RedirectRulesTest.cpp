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

// A rule in one line, every field the redirector acts on.
std::string Describe(const redirect_info& r) {
    return "op" + std::to_string(r.rule_op) + " v" + (r.rule_family == AF_INET6 ? "6" : "4") +
           " a" + std::to_string(r.rule_action) + " c" + std::to_string(r.rule_class) + " proto" +
           std::to_string(r.rule_protocol) + " f" + std::to_string(r.rule_flags) + " id" +
           std::to_string(r.rule_reserved_id) + " pid" + std::to_string(r.rule_pid) + " not" +
           std::to_string(r.rule_excluded_pid) + " :" + std::to_string(ntohs(r.peer_port)) + "->" +
           std::to_string(ntohs(r.redirect_port)) + " excl" +
           std::to_string(r.exclude_addrs.size()) + " incl" +
           std::to_string(r.include_addrs.size()) + " hosts" +
           std::to_string(r.include_hosts.size() + r.exclude_hosts.size());
}

std::string Divert(int v, int port, int excluded) {
    return "op2 v" + std::to_string(v) + " a0 c1 proto6 f0 id-1 pid-1 not" +
           std::to_string(getpid()) + " :" + std::to_string(port) + "->5002 excl" +
           std::to_string(excluded) + " incl0 hosts0";
}

std::string Pass(int v, int pid) {
    return "op1 v" + std::to_string(v) + " a0 c1 proto6 f0 id-1 pid" + std::to_string(pid) +
           " not-1 :0->0 excl0 incl0 hosts0";
}

class RedirectRulesTest : public RedirectAgentTest {
protected:
    std::vector<redirect_info> Build(const std::string& ports, const std::string& exceptions) {
        SVC_STARTUP_INFO info;
        info.listen_port = SWG_LISTEN_PORT;
        info.comm_port = SWG_COMM_PORT;
        info.monitored_ports = ports;
        info.exception_text = exceptions;
        std::list<redirect_info> rules;
        m_agent.SetRedirectList(rules, info);
        return {rules.begin(), rules.end()};
    }
    static std::vector<std::string> Described(const std::vector<redirect_info>& rules) {
        std::vector<std::string> out;
        for (const redirect_info& rule : rules) out.push_back(Describe(rule));
        return out;
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

// Rules out of order, or a field wrong: per port IPv4 then IPv6, then the agent's and the VPN
// daemon's no-redirect pairs, the built-in exceptions on each redirect rule by family.
TEST_F(RedirectRulesTest, TwoPortsWithIPv6GiveEightRulesInOrder) {
    m_script->vpnDaemonPid = 4242;
    const int self = static_cast<int>(getpid());
    EXPECT_EQ(Described(Build("80,443", default_exception_list)),
              (std::vector<std::string>{Divert(4, 80, 7), Divert(6, 80, 11), Divert(4, 443, 7),
                                        Divert(6, 443, 11), Pass(4, self), Pass(6, self),
                                        Pass(4, 4242), Pass(6, 4242)}));
    EXPECT_TRUE(m_agent.m_bIPv6Present);
}

// On a host without IPv6 the IPv4 rule comes twice (the list keeps its length), IPv6 entries
// are logged and dropped, and a missing daemon costs only its two rules.
TEST_F(RedirectRulesTest, WithoutIPv6TheIPv4RuleIsDoubledAndIPv6EntriesDropped) {
    m_script->ipv6 = false;
    const int self = static_cast<int>(getpid());
    EXPECT_EQ(Described(Build("80,443", default_exception_list)),
              (std::vector<std::string>{Divert(4, 80, 7), Divert(4, 80, 7), Divert(4, 443, 7),
                                        Divert(4, 443, 7), Pass(4, self), Pass(6, self)}));
    EXPECT_FALSE(m_agent.m_bIPv6Present);
    EXPECT_EQ(m_trace.Count(WARN, "did not add exception or inclusion: '::1/128'"), 1u);
    EXPECT_EQ(m_trace.With("did not add exception or inclusion").size(), 11u);
}

// A port word must not drop the port (it is port 0), and repeats are kept.
TEST_F(RedirectRulesTest, PortListOfANumberAndAWordGivesThatPortAndPortZero) {
    const std::vector<redirect_info> rules = Build("8080,https", "");
    ASSERT_EQ(rules.size(), 6u);
    EXPECT_EQ(Describe(rules[1]), Divert(6, 8080, 0));
    EXPECT_EQ(Describe(rules[2]), Divert(4, 0, 0));
    EXPECT_EQ(Build("443,443", "").size(), 6u);
}

// The built-in exceptions: 7 IPv4 and 11 IPv6 entries (counted on every rule above), IPv4-mapped
// ones with their IPv6 prefix.
TEST_F(RedirectRulesTest, BuiltInExceptionsKeepTheirPrefixes) {
    const Parsed parsed = Parse(default_exception_list, true);
    ASSERT_EQ(parsed.ipv6.size(), 11u);
    const ngc_cidr_addr& mapped = parsed.ipv6.front();  // ::ffff:10.0.0.0/104
    EXPECT_EQ(mapped.cidr_addr[10], 0xff);
    EXPECT_EQ(mapped.cidr_addr[12], 10);
    EXPECT_EQ(mapped.cidr_prefix_bits, 104u);
    EXPECT_EQ(parsed.ipv6.back().cidr_prefix_bits, 7u);  // fc00::/7
}

// What is no address becomes a host name (its prefix dropped); prefixes default to the
// family's width, are taken as written (99 too), and an empty one is 0.
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
    uint32_t none = 0;  // "/8": the empty address as inet_addr makes it, unchecked
    std::memcpy(&none, v4[3].cidr_addr, 4);
    EXPECT_EQ(none, INADDR_NONE);
    ASSERT_EQ(parsed.ipv6.size(), 1u);
    EXPECT_EQ(parsed.ipv6.front().cidr_prefix_bits, 128u);
}

// Configured lists must reach every redirect rule of their family after the built-in entries,
// names in the host lists, and no no-redirect rule.
TEST_F(RedirectRulesTest, ConfiguredListsFollowTheBuiltInOnesByFamily) {
    CSWGAgent::ORGINFO info = m_agent.GetOrgInfo();
    info.strWebTrafficMonitorPortList = "80";
    info.strExceptionList = "198.18.5.0/24;2001:db8::/32;intranet.example";
    info.strInclusionList = "198.18.0.0/15;2001:2::/48;only.example";
    m_agent.SetOrgInfo(info);
    ASSERT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
    const std::list<redirect_info> given = m_script->Get(m_script->rules);
    const std::vector<redirect_info> rules(given.begin(), given.end());
    ASSERT_EQ(rules.size(), 4u);
    ASSERT_EQ(rules[0].exclude_addrs.size(), 8u);
    const unsigned char expected[4] = {198, 18, 5, 0};
    EXPECT_EQ(std::memcmp(rules[0].exclude_addrs.back().cidr_addr, expected, 4), 0);
    EXPECT_EQ(rules[0].include_addrs.front().cidr_prefix_bits, 15u);
    EXPECT_EQ(rules[1].exclude_addrs.size(), 12u);
    EXPECT_EQ(rules[1].include_addrs.front().cidr_prefix_bits, 48u);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(rules[i].exclude_hosts, std::list<std::string>{"intranet.example"});
        EXPECT_EQ(rules[i].include_hosts, std::list<std::string>{"only.example"});
    }
    EXPECT_EQ(Describe(rules[2]), Pass(4, static_cast<int>(getpid())));
}

}  // namespace
}  // namespace swg_test
