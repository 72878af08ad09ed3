// SPDX-License-Identifier: Apache-2.0
// Pure construction and rendering of the diversion table.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/linux/NftRuleset.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

const char kNftTableFamily[] = "inet";
const char kNftTableName[] = "tsc_swg";
const char kNftKeepTableName[] = "tsc_swg_keep";

namespace {

using Bytes = std::array<uint8_t, 16>;

int WidthOf(int family) { return family == AF_INET ? 32 : 128; }

// `bytes` + 1 within the family's width; false when it wraps past the last address.
bool Increment(Bytes& bytes, int family) {
    for (int i = WidthOf(family) / 8 - 1; i >= 0; --i) {
        if (++bytes[static_cast<size_t>(i)] != 0) return true;
    }
    return false;
}

NftAddressRange RangeOf(const Bytes& address, uint32_t prefix, int family) {
    const uint32_t width = static_cast<uint32_t>(WidthOf(family));
    const uint32_t bits = std::min(prefix, width);
    NftAddressRange range;
    range.family = family;
    for (uint32_t byte = 0; byte < width / 8; ++byte) {
        const uint32_t kept = bits > byte * 8 ? std::min<uint32_t>(bits - byte * 8, 8) : 0;
        const uint8_t mask = static_cast<uint8_t>(kept == 0 ? 0 : 0xFF << (8 - kept));
        range.low[byte] = static_cast<uint8_t>(address[byte] & mask);
        range.high[byte] = static_cast<uint8_t>(range.low[byte] | static_cast<uint8_t>(~mask));
    }
    return range;
}

std::vector<NftAddressRange> Merge(std::vector<NftAddressRange> ranges) {
    std::sort(ranges.begin(), ranges.end(),
              [](const NftAddressRange& a, const NftAddressRange& b) { return a.low < b.low; });
    std::vector<NftAddressRange> merged;
    for (const NftAddressRange& range : ranges) {
        if (!merged.empty()) {
            NftAddressRange& last = merged.back();
            Bytes next = last.high;
            // Overlapping or adjacent ranges become one; nft refuses overlapping intervals.
            if (!Increment(next, last.family) || range.low <= next) {
                if (last.high < range.high) last.high = range.high;
                continue;
            }
        }
        merged.push_back(range);
    }
    return merged;
}

std::string FormatAddress(const Bytes& bytes, int family) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(family, bytes.data(), text, sizeof(text));
    return text;
}

const char* FamilyWord(int family) { return family == AF_INET ? "ipv4" : "ipv6"; }
const char* AddressMatch(int family) { return family == AF_INET ? "ip daddr" : "ip6 daddr"; }

bool HasInclusions(const redirect_info& rule) {
    return !rule.include_addrs.empty() || !rule.include_hosts.empty();
}

std::vector<NftAddress> AddressesOf(const std::list<std::string>& names,
                                    const NftBuildInputs& inputs) {
    std::vector<NftAddress> addresses;
    for (const std::string& name : names) {
        const auto found = inputs.resolvedNames.find(name);
        if (found == inputs.resolvedNames.end()) continue;
        addresses.insert(addresses.end(), found->second.begin(), found->second.end());
    }
    return addresses;
}

struct SetEntry {
    std::string name;
    std::string role;
    int family;
    std::string key;
    std::vector<NftAddressRange> ranges;
};

// Named sets of the table: one per distinct source of a list (its key), or per distinct
// list of ranges where there is no key.
class CSetNames {
public:
    std::string NameFor(const std::vector<NftAddressRange>& ranges, const std::string& key,
                        const char* role, int family) {
        for (const SetEntry& entry : m_entries) {
            if (entry.family != family || entry.role != role) continue;
            if (key.empty() ? entry.key.empty() && entry.ranges == ranges : entry.key == key) {
                return entry.name;
            }
        }
        const std::string name = std::string(role) + (family == AF_INET ? "4_" : "6_") +
                                 std::to_string(m_entries.size());
        m_entries.push_back({name, role, family, key, ranges});
        return name;
    }
    const std::vector<SetEntry>& Entries() const { return m_entries; }

private:
    std::vector<SetEntry> m_entries;
};

std::string ElementsText(const std::vector<NftAddressRange>& ranges) {
    std::string text;
    for (const NftAddressRange& range : ranges) {
        text += (text.empty() ? "" : ", ") + FormatNftRange(range);
    }
    return text;
}

// The set declarations; an empty set has no elements line (nft refuses "{ }").
void RenderSets(const std::vector<SetEntry>& sets, bool withElements, std::ostringstream& out) {
    for (const SetEntry& entry : sets) {
        out << "\tset " << entry.name << " {\n"
            << "\t\ttype " << (entry.family == AF_INET ? "ipv4_addr" : "ipv6_addr") << "\n"
            << "\t\tflags interval\n";
        if (withElements && !entry.ranges.empty()) {
            out << "\t\telements = { " << ElementsText(entry.ranges) << " }\n";
        }
        out << "\t}\n";
    }
}

// A key that names where a list came from: its entries and host names, not their addresses.
std::string SourceKey(const std::list<ngc_cidr_addr>& entries,
                      const std::list<std::string>& names) {
    std::string key;
    for (const ngc_cidr_addr& entry : entries) {
        key.append(reinterpret_cast<const char*>(&entry), sizeof(entry));
    }
    for (const std::string& name : names) key += "\n" + name;
    return key;
}

// The match part shared by the TCP diversion and the UDP rejection of one rule.
std::string DestinationMatch(const NftDivertRule& rule, CSetNames& sets) {
    std::string match;
    if (!rule.exclude.empty() || !rule.excludeKey.empty()) {
        match += std::string(" ") + AddressMatch(rule.family) + " != @" +
                 sets.NameFor(rule.exclude, rule.excludeKey, "exclude", rule.family);
    }
    if (rule.inclusive) {
        match += std::string(" ") + AddressMatch(rule.family) + " @" +
                 sets.NameFor(rule.include, rule.includeKey, "include", rule.family);
    }
    return match;
}

void RenderPassRules(const NftRuleset& ruleset, std::ostringstream& out) {
    char mark[16];
    std::snprintf(mark, sizeof(mark), "0x%08x", ruleset.passMark);
    out << "\t\tmeta mark " << mark << " accept\n";
    for (const std::string& path : ruleset.bypassCgroups) {
        // The level is the depth of the path below the root of the hierarchy.
        const long level = std::count(path.begin(), path.end(), '/');
        out << "\t\tsocket cgroupv2 level " << level << " \"" << path.substr(1) << "\" accept\n";
    }
}

}  // namespace

NftRuleKind ClassifyNftRule(const redirect_info& rule, int32_t ownPid) {
    if (rule.rule_op == 2) {
        return rule.peer_port == 0 || rule.redirect_port == 0 ? NftRuleKind::DivertWithoutPort
                                                              : NftRuleKind::Divert;
    }
    if (rule.rule_op != 1) return NftRuleKind::Ignored;
    if (!rule.include_addrs.empty() || rule.peer_port != 0) return NftRuleKind::ConnectionException;
    if (rule.rule_pid == ownPid) return NftRuleKind::OwnProcess;
    if (rule.rule_pid > 0) return NftRuleKind::OtherProcess;
    return NftRuleKind::Ignored;
}

std::vector<NftAddressRange> MergeNftRanges(const std::list<ngc_cidr_addr>& entries,
                                            const std::vector<NftAddress>& extra, int family) {
    std::vector<NftAddressRange> ranges;
    for (const ngc_cidr_addr& entry : entries) {
        if (static_cast<int>(entry.cidr_family) != family) continue;
        Bytes address{};
        std::copy(std::begin(entry.cidr_addr), std::end(entry.cidr_addr), address.begin());
        ranges.push_back(RangeOf(address, entry.cidr_prefix_bits, family));
    }
    for (const NftAddress& address : extra) {
        if (address.family == family) ranges.push_back(RangeOf(address.bytes, 128, family));
    }
    return Merge(std::move(ranges));
}

std::string FormatNftRange(const NftAddressRange& range) {
    const std::string low = FormatAddress(range.low, range.family);
    if (range.low == range.high) return low;
    return low + "-" + FormatAddress(range.high, range.family);
}

NftRuleset BuildNftRuleset(const std::list<redirect_info>& rules, const NftBuildInputs& inputs) {
    NftRuleset ruleset;
    ruleset.passMark = inputs.passMark;
    bool inclusive = false;
    for (const redirect_info& rule : rules) {
        if (ClassifyNftRule(rule, inputs.ownPid) == NftRuleKind::Divert && HasInclusions(rule)) {
            inclusive = true;
        }
    }
    for (const redirect_info& rule : rules) {
        const NftRuleKind kind = ClassifyNftRule(rule, inputs.ownPid);
        if (kind == NftRuleKind::OtherProcess) {
            const auto found = inputs.cgroupOfPid.find(rule.rule_pid);
            if (found == inputs.cgroupOfPid.end() || found->second.empty()) continue;
            auto& cgroups = ruleset.bypassCgroups;
            if (std::find(cgroups.begin(), cgroups.end(), found->second) == cgroups.end()) {
                cgroups.push_back(found->second);
            }
            continue;
        }
        if (kind != NftRuleKind::Divert) continue;
        const int family = rule.rule_family;
        if (family != AF_INET && family != AF_INET6) continue;
        NftDivertRule divert;
        divert.family = family;
        divert.port = ntohs(rule.peer_port);
        divert.redirectPort = ntohs(rule.redirect_port);
        if (inputs.listening.count({family, divert.redirectPort}) == 0) continue;
        divert.exclude =
            MergeNftRanges(rule.exclude_addrs, AddressesOf(rule.exclude_hosts, inputs), family);
        if (!rule.exclude_hosts.empty()) {
            divert.excludeKey = SourceKey(rule.exclude_addrs, rule.exclude_hosts);
        }
        divert.inclusive = inclusive;
        if (inclusive) {
            divert.include =
                MergeNftRanges(rule.include_addrs, AddressesOf(rule.include_hosts, inputs), family);
            // Included names keep their set while they resolve; a family with neither
            // addresses nor names is not diverted at all.
            if (divert.include.empty() && rule.include_hosts.empty()) continue;
            if (!rule.include_hosts.empty()) {
                divert.includeKey = SourceKey(rule.include_addrs, rule.include_hosts);
            }
        }
        auto& all = ruleset.rules;
        if (std::find(all.begin(), all.end(), divert) == all.end()) all.push_back(divert);
    }
    return ruleset;
}

std::string RenderNftTableRemoval(bool owned, const std::string& table) {
    // "add" first makes the "delete" succeed when there is nothing to delete.
    std::ostringstream out;
    out << "add table " << kNftTableFamily << " " << table << (owned ? " { flags owner; }" : "")
        << "\n"
        << "delete table " << kNftTableFamily << " " << table << "\n";
    return out.str();
}

std::string RenderNftKeepTable(bool owned) {
    // Without a NAT chain the kernel drops its NAT hooks, without a conntrack user its
    // conntrack hooks; either way the redirected connections lose their translation. The
    // chain comes after the diversion's and only reads the connection state.
    std::ostringstream out;
    out << RenderNftTableRemoval(owned, kNftKeepTableName) << "table " << kNftTableFamily << " "
        << kNftKeepTableName << " {\n"
        << (owned ? "\tflags owner\n" : "")
        << "\tchain keep {\n\t\ttype nat hook output priority 100; policy accept;\n"
        << "\t\tct state established,related\n\t}\n}\n";
    return out.str();
}

namespace {

// The table statement of `ruleset` (which has rules), with or without the set elements, and
// the sets it declares.
std::string RenderTable(const NftRuleset& ruleset, bool withElements,
                        std::vector<SetEntry>* declared = nullptr) {
    CSetNames sets;
    std::ostringstream divert, quic;
    RenderPassRules(ruleset, divert);
    RenderPassRules(ruleset, quic);
    for (const NftDivertRule& rule : ruleset.rules) {
        const std::string match = DestinationMatch(rule, sets);
        const std::string family = std::string("meta nfproto ") + FamilyWord(rule.family);
        divert << "\t\t" << family << " tcp dport " << rule.port << match
               << " redirect to :" << rule.redirectPort << "\n";
        // HTTP/3 goes over UDP where TCP diversion cannot see it; refusing it makes the
        // client fall back to TCP at once.
        quic << "\t\t" << family << " udp dport " << rule.port << match
             << " reject with icmpx type port-unreachable\n";
    }

    std::ostringstream out;
    out << "table " << kNftTableFamily << " " << ruleset.table << " {\n";
    if (ruleset.owned) out << "\tflags owner\n";
    RenderSets(sets.Entries(), withElements, out);
    out << "\tchain divert {\n\t\ttype nat hook output priority -100; policy accept;\n"
        << divert.str() << "\t}\n"
        << "\tchain quic {\n\t\ttype filter hook output priority 0; policy accept;\n"
        << quic.str() << "\t}\n}\n";
    if (declared != nullptr) *declared = sets.Entries();
    return out.str();
}

}  // namespace

std::string RenderNftRuleset(const NftRuleset& ruleset) {
    const std::string removal = RenderNftTableRemoval(ruleset.owned, ruleset.table);
    return ruleset.rules.empty() ? removal : removal + RenderTable(ruleset, true);
}

std::optional<std::string> RenderNftSetUpdate(const NftRuleset& from, const NftRuleset& to) {
    if (from.rules.empty() || to.rules.empty()) return std::nullopt;
    std::vector<SetEntry> before, after;
    if (RenderTable(from, false, &before) != RenderTable(to, false, &after)) return std::nullopt;
    // Same shape: the same sets under the same names, in the same order.
    std::ostringstream out;
    for (size_t i = 0; i < after.size(); ++i) {
        if (before[i].ranges == after[i].ranges) continue;
        const std::string set = std::string(kNftTableFamily) + " " + to.table + " " + after[i].name;
        out << "flush set " << set << "\n";
        if (!after[i].ranges.empty()) {
            out << "add element " << set << " { " << ElementsText(after[i].ranges) << " }\n";
        }
    }
    return out.str();
}
