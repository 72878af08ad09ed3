// SPDX-License-Identifier: Apache-2.0
// The diversion table built from recorded rules and its nft text, without the kernel.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <list>
#include <string>

#include "platform/linux/NftRuleset.h"

namespace {

constexpr int32_t kOwnPid = 1000;

ngc_cidr_addr Cidr(const char* text, uint32_t prefix) {
    ngc_cidr_addr entry{};
    const bool v6 = std::strchr(text, ':') != nullptr;
    entry.cidr_family = v6 ? AF_INET6 : AF_INET;
    inet_pton(static_cast<int>(entry.cidr_family), text, entry.cidr_addr);
    entry.cidr_prefix_bits = prefix;
    return entry;
}

NftAddress Address(const char* text) {
    NftAddress address;
    address.family = std::strchr(text, ':') != nullptr ? AF_INET6 : AF_INET;
    inet_pton(address.family, text, address.bytes.data());
    return address;
}

redirect_info Redirect(int family, uint16_t port) {
    redirect_info rule{};
    rule.rule_op = 2;
    rule.rule_class = 1;
    rule.rule_pid = -1;
    rule.peer_port = htons(port);
    rule.redirect_port = htons(5002);
    rule.rule_family = family;
    rule.rule_protocol = 6;
    rule.rule_reserved_id = -1;
    rule.rule_excluded_pid = kOwnPid;
    return rule;
}

redirect_info NoRedirect(int family, int32_t pid) {
    redirect_info rule = Redirect(family, 0);
    rule.rule_op = 1;
    rule.rule_pid = pid;
    rule.redirect_port = 0;
    rule.rule_excluded_pid = -1;
    return rule;
}

NftBuildInputs BothListening() {
    NftBuildInputs inputs;
    inputs.ownPid = kOwnPid;
    inputs.passMark = 0x5347;
    inputs.listening = {{AF_INET, 5002}, {AF_INET6, 5002}};
    return inputs;
}

std::vector<std::string> Formatted(const std::vector<NftAddressRange>& ranges) {
    std::vector<std::string> texts;
    for (const NftAddressRange& range : ranges) texts.push_back(FormatNftRange(range));
    return texts;
}

// Guards the interval sets: nft refuses overlapping elements, so nested, overlapping and
// adjacent entries must arrive merged, host bits masked and over-long prefixes clamped, up to
// the edges of the address space (prefix 0 is everything, the last address merges).
TEST(NftRangeTest, EntriesAreMaskedClampedAndMerged) {
    const std::list<ngc_cidr_addr> entries = {
        Cidr("11.0.0.0", 8),    Cidr("10.1.2.3", 8),   Cidr("10.200.0.0", 16),
        Cidr("192.0.2.7", 99),  Cidr("192.0.2.8", 32), Cidr("2001:db8::", 32),
        Cidr("198.18.0.0", 15),
    };
    EXPECT_EQ(Formatted(MergeNftRanges(entries, {Address("198.19.0.1")}, AF_INET)),
              (std::vector<std::string>{"10.0.0.0-11.255.255.255", "192.0.2.7-192.0.2.8",
                                        "198.18.0.0-198.19.255.255"}));
    EXPECT_EQ(Formatted(MergeNftRanges(entries, {Address("2001:db8::1")}, AF_INET6)),
              (std::vector<std::string>{"2001:db8::-2001:db8:ffff:ffff:ffff:ffff:ffff:ffff"}));
    EXPECT_EQ(
        Formatted(MergeNftRanges({Cidr("10.0.0.0", 0), Cidr("255.255.255.255", 32)}, {}, AF_INET)),
        std::vector<std::string>{"0.0.0.0-255.255.255.255"});
    EXPECT_EQ(Formatted(MergeNftRanges({Cidr("ff00::", 8), Cidr("::1", 128)}, {}, AF_INET6)),
              (std::vector<std::string>{"::1", "ff00::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}));
}

class NftRulesetTest : public ::testing::Test {};

// Guards the agent's list on a host without IPv6 (the doubled IPv4 rule gives one table rule)
// and the wait for listeners: a family whose listener is down is not diverted.
TEST_F(NftRulesetTest, DoubledRulesAppearOnceAndWaitForTheirListener) {
    std::list<redirect_info> rules = {Redirect(AF_INET, 80),        Redirect(AF_INET, 80),
                                      Redirect(AF_INET, 443),       Redirect(AF_INET, 443),
                                      NoRedirect(AF_INET, kOwnPid), NoRedirect(AF_INET6, kOwnPid)};
    NftBuildInputs inputs = BothListening();
    const NftRuleset ruleset = BuildNftRuleset(rules, inputs);
    ASSERT_EQ(ruleset.rules.size(), 2u);
    EXPECT_EQ(ruleset.rules[0].port, 80);
    EXPECT_EQ(ruleset.rules[1].port, 443);
    EXPECT_TRUE(ruleset.bypassCgroups.empty());

    inputs.listening = {{AF_INET6, 5002}};
    const NftRuleset waiting =
        BuildNftRuleset({Redirect(AF_INET, 80), Redirect(AF_INET6, 80)}, inputs);
    ASSERT_EQ(waiting.rules.size(), 1u);
    EXPECT_EQ(waiting.rules[0].family, AF_INET6);
}

// Guards what the mark enforces instead of the table, and rules the table cannot hold.
TEST_F(NftRulesetTest, RulesAreClassifiedByWhatEnforcesThem) {
    redirect_info exception = NoRedirect(AF_INET, 4321);
    exception.peer_port = htons(443);
    exception.rule_flags = 1;
    exception.include_addrs = {Cidr("198.18.0.2", 32)};
    EXPECT_EQ(ClassifyNftRule(exception, kOwnPid), NftRuleKind::ConnectionException);
    EXPECT_EQ(ClassifyNftRule(NoRedirect(AF_INET, kOwnPid), kOwnPid), NftRuleKind::OwnProcess);
    EXPECT_EQ(ClassifyNftRule(NoRedirect(AF_INET6, 777), kOwnPid), NftRuleKind::OtherProcess);
    EXPECT_EQ(ClassifyNftRule(NoRedirect(AF_INET, -1), kOwnPid), NftRuleKind::Ignored);
    EXPECT_EQ(ClassifyNftRule(Redirect(AF_INET, 0), kOwnPid), NftRuleKind::DivertWithoutPort);
    EXPECT_EQ(ClassifyNftRule(Redirect(AF_INET6, 80), kOwnPid), NftRuleKind::Divert);

    const NftRuleset ruleset = BuildNftRuleset(
        {exception, Redirect(AF_INET, 0), NoRedirect(AF_INET, kOwnPid)}, BothListening());
    EXPECT_TRUE(ruleset.rules.empty());
}

// Guards host names: resolved addresses join the ranges of their family; an unresolved
// name adds nothing.
TEST_F(NftRulesetTest, ExceptionNamesAddTheirResolvedAddresses) {
    redirect_info v4 = Redirect(AF_INET, 80);
    v4.exclude_addrs = {Cidr("10.0.0.0", 8)};
    v4.exclude_hosts = {"skip.example", "unknown.example"};
    redirect_info v6 = v4;
    v6.rule_family = AF_INET6;
    v6.exclude_addrs = {};
    NftBuildInputs inputs = BothListening();
    inputs.resolvedNames["skip.example"] = {Address("198.18.0.9"), Address("2001:2::9")};
    const NftRuleset ruleset = BuildNftRuleset({v4, v6}, inputs);
    ASSERT_EQ(ruleset.rules.size(), 2u);
    EXPECT_EQ(Formatted(ruleset.rules[0].exclude),
              (std::vector<std::string>{"10.0.0.0-10.255.255.255", "198.18.0.9"}));
    EXPECT_EQ(Formatted(ruleset.rules[1].exclude), std::vector<std::string>{"2001:2::9"});
    EXPECT_FALSE(ruleset.rules[0].inclusive);
}

// Guards inclusions: once any rule has one, only included destinations are diverted, and a
// family (or a name that did not resolve yet) with none diverts nothing rather than everything.
TEST_F(NftRulesetTest, InclusionsLimitEveryFamily) {
    redirect_info v4 = Redirect(AF_INET, 443);
    v4.include_addrs = {Cidr("198.18.0.0", 15)};
    redirect_info v6 = Redirect(AF_INET6, 443);
    NftRuleset ruleset = BuildNftRuleset({v4, v6}, BothListening());
    ASSERT_EQ(ruleset.rules.size(), 1u);
    EXPECT_TRUE(ruleset.rules[0].inclusive);
    EXPECT_EQ(Formatted(ruleset.rules[0].include),
              std::vector<std::string>{"198.18.0.0-198.19.255.255"});

    redirect_info named = Redirect(AF_INET, 443);
    named.include_hosts = {"only.example"};
    ruleset = BuildNftRuleset({named}, BothListening());
    ASSERT_EQ(ruleset.rules.size(), 1u);
    EXPECT_TRUE(ruleset.rules[0].include.empty());  // an empty set until the name resolves
    NftBuildInputs inputs = BothListening();
    inputs.resolvedNames["only.example"] = {Address("198.18.7.7")};
    ruleset = BuildNftRuleset({named}, inputs);
    ASSERT_EQ(ruleset.rules.size(), 1u);
    EXPECT_EQ(Formatted(ruleset.rules[0].include), std::vector<std::string>{"198.18.7.7"});
}

// Guards the VPN daemon's rule: matched by its cgroup when it has one, else left out.
TEST_F(NftRulesetTest, OtherProcessesPassByTheirCgroup) {
    NftBuildInputs inputs = BothListening();
    inputs.cgroupOfPid[777] = "/system.slice/vpn.service";
    inputs.cgroupOfPid[888] = "";
    const NftRuleset ruleset =
        BuildNftRuleset({Redirect(AF_INET, 80), NoRedirect(AF_INET, 777), NoRedirect(AF_INET6, 777),
                         NoRedirect(AF_INET, 888)},
                        inputs);
    EXPECT_EQ(ruleset.bypassCgroups, std::vector<std::string>{"/system.slice/vpn.service"});
}

// Guards the text nft is given: the stale table goes in the same transaction, the mark and
// the cgroup pass first in both chains, TCP is redirected and UDP to the same ports refused.
TEST_F(NftRulesetTest, RendersOneTransactionWithMarkFirst) {
    NftRuleset ruleset;
    ruleset.passMark = 0x5347;
    ruleset.bypassCgroups = {"/system.slice/vpn.service"};
    NftDivertRule v4;
    v4.family = AF_INET;
    v4.port = 443;
    v4.redirectPort = 5002;
    v4.exclude = MergeNftRanges({Cidr("10.0.0.0", 8), Cidr("127.0.0.0", 8)}, {}, AF_INET);
    NftDivertRule v6 = v4;
    v6.family = AF_INET6;
    v6.exclude.clear();
    v6.inclusive = true;
    v6.include = MergeNftRanges({Cidr("2001:db8::", 32)}, {}, AF_INET6);
    ruleset.rules = {v4, v6};
    const std::string expected =
        "add table inet tsc_swg\n"
        "delete table inet tsc_swg\n"
        "table inet tsc_swg {\n"
        "\tset exclude4_0 {\n\t\ttype ipv4_addr\n\t\tflags interval\n"
        "\t\telements = { 10.0.0.0-10.255.255.255, 127.0.0.0-127.255.255.255 }\n\t}\n"
        "\tset include6_1 {\n\t\ttype ipv6_addr\n\t\tflags interval\n"
        "\t\telements = { 2001:db8::-2001:db8:ffff:ffff:ffff:ffff:ffff:ffff }\n\t}\n"
        "\tchain divert {\n"
        "\t\ttype nat hook output priority -100; policy accept;\n"
        "\t\tmeta mark 0x00005347 accept\n"
        "\t\tsocket cgroupv2 level 2 \"system.slice/vpn.service\" accept\n"
        "\t\tmeta nfproto ipv4 tcp dport 443 ip daddr != @exclude4_0 redirect to :5002\n"
        "\t\tmeta nfproto ipv6 tcp dport 443 ip6 daddr @include6_1 redirect to :5002\n"
        "\t}\n"
        "\tchain quic {\n"
        "\t\ttype filter hook output priority 0; policy accept;\n"
        "\t\tmeta mark 0x00005347 accept\n"
        "\t\tsocket cgroupv2 level 2 \"system.slice/vpn.service\" accept\n"
        "\t\tmeta nfproto ipv4 udp dport 443 ip daddr != @exclude4_0 reject with icmpx type "
        "port-unreachable\n"
        "\t\tmeta nfproto ipv6 udp dport 443 ip6 daddr @include6_1 reject with icmpx type "
        "port-unreachable\n"
        "\t}\n"
        "}\n";
    EXPECT_EQ(RenderNftRuleset(ruleset), expected);
}

// Guards the table without rules: only its removal, which also succeeds when it is absent,
// with the owner flag of the table it removes (the kernel refuses to change the flag).
TEST_F(NftRulesetTest, NoRuleRendersOnlyTheRemoval) {
    EXPECT_EQ(RenderNftRuleset(NftRuleset{}), RenderNftTableRemoval());
    EXPECT_EQ(RenderNftTableRemoval(), "add table inet tsc_swg\ndelete table inet tsc_swg\n");
    EXPECT_EQ(RenderNftTableRemoval(true),
              "add table inet tsc_swg { flags owner; }\ndelete table inet tsc_swg\n");
}

// Guards answers of names: a changed answer touches the elements of its set alone (a rebuilt
// table would take the diversion down and up under live connections), an empty answer
// leaves the set empty, and anything else that changes needs the whole table again.
TEST_F(NftRulesetTest, ChangedAnswersOnlyUpdateSetElements) {
    redirect_info rule = Redirect(AF_INET, 80);
    rule.exclude_addrs = {Cidr("10.0.0.0", 8)};
    rule.exclude_hosts = {"skip.example"};
    NftBuildInputs inputs = BothListening();
    NftRuleset before = BuildNftRuleset({rule}, inputs);
    before.owned = true;
    EXPECT_NE(RenderNftRuleset(before).find("table inet tsc_swg {\n\tflags owner\n"),
              std::string::npos);
    inputs.resolvedNames["skip.example"] = {Address("198.18.0.9")};
    NftRuleset after = BuildNftRuleset({rule}, inputs);
    after.owned = true;
    EXPECT_EQ(RenderNftSetUpdate(before, after),
              "flush set inet tsc_swg exclude4_0\n"
              "add element inet tsc_swg exclude4_0 { 10.0.0.0-10.255.255.255, 198.18.0.9 }\n");
    EXPECT_EQ(RenderNftSetUpdate(after, after), "");

    redirect_info included = Redirect(AF_INET, 80);
    included.include_hosts = {"only.example"};
    inputs.resolvedNames["only.example"] = {Address("198.18.7.7")};
    EXPECT_EQ(RenderNftSetUpdate(BuildNftRuleset({included}, inputs),
                                 BuildNftRuleset({included}, BothListening())),
              "flush set inet tsc_swg include4_0\n");
    EXPECT_EQ(RenderNftSetUpdate(after, BuildNftRuleset({rule, Redirect(AF_INET, 443)}, inputs)),
              std::nullopt);
    EXPECT_EQ(RenderNftSetUpdate(after, NftRuleset{}), std::nullopt);
}

}  // namespace
