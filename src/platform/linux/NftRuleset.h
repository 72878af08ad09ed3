// SPDX-License-Identifier: Apache-2.0
// The diversion table as data, built from the agent's rules and rendered as an nft script.
#if !defined(__linux__)
#error "Linux adapter"
#endif
#pragma once

#include <array>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/RedirectorRecords.h"

// The table the redirector owns, in the inet family (IPv4 and IPv6 together).
extern const char kNftTableFamily[];  // "inet"
extern const char kNftTableName[];    // "tsc_swg"
// The companion table that keeps diverted connections translated while the diversion table
// is absent (see RenderNftKeepTable), in the same family.
extern const char kNftKeepTableName[];  // "tsc_swg_keep"

// One address of a family, network order; IPv4 uses the first four bytes.
struct NftAddress {
    int family = 0;  // AF_INET or AF_INET6
    std::array<uint8_t, 16> bytes{};
};

// A closed range of addresses of one family, network order.
struct NftAddressRange {
    int family = 0;
    std::array<uint8_t, 16> low{};
    std::array<uint8_t, 16> high{};
    bool operator==(const NftAddressRange& other) const {
        return family == other.family && low == other.low && high == other.high;
    }
};

// TCP of `family` to `port` goes to `redirectPort` on loopback; UDP to `port` is rejected.
// Ranges are sorted and merged: no two overlap or touch. Each list becomes a named set of the
// table; rules whose lists come from the same entries and names (equal keys) share one set,
// so the table's shape does not change when only the addresses of a name do. An empty key
// shares by content.
struct NftDivertRule {
    int family = 0;
    uint16_t port = 0;          // host order, never 0
    uint16_t redirectPort = 0;  // host order, never 0
    std::vector<NftAddressRange> exclude;
    std::vector<NftAddressRange> include;  // only these are diverted when `inclusive`
    bool inclusive = false;
    std::string excludeKey;
    std::string includeKey;
    bool operator==(const NftDivertRule& other) const {
        return family == other.family && port == other.port && redirectPort == other.redirectPort &&
               exclude == other.exclude && include == other.include &&
               inclusive == other.inclusive && excludeKey == other.excludeKey &&
               includeKey == other.includeKey;
    }
};

// Everything the table holds. Packets carrying `passMark`, and sockets of the cgroups in
// `bypassCgroups` (cgroup v2 paths below the hierarchy's root, e.g.
// "/system.slice/vpn.service"), pass before any rule. An `owned` table carries the owner
// flag: it belongs to the netlink socket that created it.
struct NftRuleset {
    std::string table = kNftTableName;  // in the inet family
    uint32_t passMark = 0;
    bool owned = false;
    std::vector<std::string> bypassCgroups;
    std::vector<NftDivertRule> rules;
};

// What BuildNftRuleset needs besides the rules; filled by the redirector, so the build
// itself neither resolves, reads /proc nor talks to the kernel.
struct NftBuildInputs {
    int32_t ownPid = -1;
    uint32_t passMark = 0;
    // Addresses of the host names of the rules; a name without an entry has none.
    std::map<std::string, std::vector<NftAddress>> resolvedNames;
    // cgroup of each process with a no-redirect rule; "" when it cannot be matched.
    std::map<int32_t, std::string> cgroupOfPid;
    // (family, port) pairs on which a listener takes connections.
    std::set<std::pair<int, uint16_t>> listening;
};

// What kind of rule the redirector has recorded.
enum class NftRuleKind {
    Divert,               // redirect rule with a port: enforced by the table
    DivertWithoutPort,    // redirect rule for port 0: recorded, never enforced
    OwnProcess,           // the agent's own no-redirect rule: enforced by the mark
    ConnectionException,  // a per-connection no-redirect rule: enforced by the mark
    OtherProcess,         // another process never diverted: matched by cgroup where possible
    Ignored,              // nothing the table can express
};

// Classifies `rule` as recorded by a redirector running as process `ownPid`.
NftRuleKind ClassifyNftRule(const redirect_info& rule, int32_t ownPid);

// The table for the recorded `rules` (all of them adds). A redirect rule whose listener is
// not in `inputs.listening` is left out until it is. When any redirect rule carries
// inclusions, each rule diverts only its family's included destinations, and a family
// without any diverts nothing; a rule with included names keeps its (maybe empty) set while
// they resolve. Identical rules (the doubled IPv4 rule) appear once.
NftRuleset BuildNftRuleset(const std::list<redirect_info>& rules, const NftBuildInputs& inputs);

// An nft script that replaces the table with `ruleset` in one transaction, or that only
// removes it when `ruleset` has no rule. Pure.
std::string RenderNftRuleset(const NftRuleset& ruleset);

// The script that turns the table of `from` into that of `to` by changing set elements
// alone, so that chains, rules and the connections they diverted stay as they are: empty
// when nothing changes, nullopt when more than elements differ (or either has no table).
std::optional<std::string> RenderNftSetUpdate(const NftRuleset& from, const NftRuleset& to);

// An nft script that removes the table, whether it exists or not, provided that it carries
// the owner flag exactly when `owned` does (the kernel refuses to change the flag).
std::string RenderNftTableRemoval(bool owned = false, const std::string& table = kNftTableName);

// An nft script that replaces the companion table in one transaction: a NAT chain with one
// conntrack rule and no verdict, so that the kernel keeps its NAT and conntrack hooks, and
// with them the translation of connections the diversion table redirected, while that table
// is absent. It changes the fate of no packet. Pure.
std::string RenderNftKeepTable(bool owned);

// The sorted, merged ranges of the `family` entries of `entries` plus `extra` addresses.
// A prefix above the family's width counts as the full width (a single address).
std::vector<NftAddressRange> MergeNftRanges(const std::list<ngc_cidr_addr>& entries,
                                            const std::vector<NftAddress>& extra, int family);

// Text form of a range as nft reads it: "10.0.0.0-10.255.255.255" or "192.0.2.1".
std::string FormatNftRange(const NftAddressRange& range);
