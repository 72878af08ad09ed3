// SPDX-License-Identifier: Apache-2.0
// The rule list that the redirector enforces, built from the configuration texts.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <list>
#include <string>

#include "core/SWGAgent.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Token.h"
#include "foundation/Trace.h"
#include "platform/ServiceUtils.h"

// The 41 blanks after the first two groups are part of the text; the tokeniser trims them.
const char default_exception_list[] =
    "10.0.0.0/8;127.0.0.0/8;169.254.0.0/16;172.16.0.0/12;192.168.0.0/16;224.0.0.0/4;"
    "240.0.0.0/4;"
    "                                         "
    "::ffff:10.0.0.0/104;::ffff:127.0.0.0/104;::ffff:169.254.0.0/112;::ffff:172.16.0.0/108;"
    "::ffff:192.168.0.0/112;::ffff:224.0.0.0/100;::ffff:240.0.0.0/100;"
    "                                         "
    "::1/128;ff00::/8;fe80::/10;fc00::/7;";

namespace {

constexpr char kVpnDaemonName[] = "lmvpnd";
constexpr int32_t kRuleAdd = 0;
constexpr int32_t kRuleNoRedirect = 1;
constexpr int32_t kRuleRedirect = 2;

void LogAddedEntry(const ngc_cidr_addr& entry) {
    const unsigned char* a = entry.cidr_addr;
    if (entry.cidr_family == AF_INET) {
        uint32_t value = 0;
        std::memcpy(&value, a, sizeof(value));
        DNTRACE(THREAD, "added exception or inclusion: %X %d", value,
                static_cast<int>(entry.cidr_prefix_bits));
        return;
    }
    DNTRACE(THREAD,
            "added exception or inclusion : "
            "%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x - %d",
            a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9], a[10], a[11], a[12], a[13],
            a[14], a[15], static_cast<int>(entry.cidr_prefix_bits));
}

// One trimmed, non-empty entry of an exception or inclusion text.
void ParseEntry(const std::string& token, std::list<ngc_cidr_addr>& ipv4,
                std::list<ngc_cidr_addr>& ipv6, std::list<std::string>& names, bool ipv6Enabled) {
    const bool isIPv6 = token.find(':') != std::string::npos;
    const std::string::size_type slash = token.find('/');
    const std::string address = token.substr(0, slash);
    const std::string prefix =
        slash != std::string::npos ? token.substr(slash + 1) : (isIPv6 ? "128" : "32");
    if (!address.empty() && !IsIPv4orIPv6Address(address)) {
        names.push_back(address);
        return;
    }
    DNTRACE(THREAD, "Parse addr to cidr: ip is %s and mask is %s", address.c_str(), prefix.c_str());

    ngc_cidr_addr entry{};
    if (isIPv6) {
        in6_addr parsed{};
        if (!ipv6Enabled || inet_pton(AF_INET6, address.c_str(), &parsed) != 1) {
            DNTRACE(WARN, "did not add exception or inclusion: '%s'", token.c_str());
            return;
        }
        entry.cidr_family = AF_INET6;
        std::memcpy(entry.cidr_addr, &parsed, sizeof(parsed));
    } else {
        // An empty address ("/8") is taken as inet_addr gives it, unchecked.
        entry.cidr_family = AF_INET;
        const in_addr_t parsed = inet_addr(address.c_str());
        std::memcpy(entry.cidr_addr, &parsed, sizeof(parsed));
    }
    // The width of the family is not checked: "/99" stays 99.
    entry.cidr_prefix_bits =
        prefix.empty() ? 0 : static_cast<uint32_t>(std::strtoul(prefix.c_str(), nullptr, 10));
    (entry.cidr_family == AF_INET ? ipv4 : ipv6).push_back(entry);
    LogAddedEntry(entry);
}

redirect_info BaseRule(int32_t op, int32_t family) {
    redirect_info rule{};
    rule.rule_action = kRuleAdd;
    rule.rule_op = op;
    rule.rule_class = 1;
    rule.rule_pid = -1;
    rule.rule_family = family;
    rule.rule_protocol = IPPROTO_TCP;
    rule.rule_reserved_id = -1;
    rule.rule_excluded_pid = -1;
    return rule;
}

// A process is never diverted: one rule per family, any port, no address lists.
void AppendNoRedirectPair(std::list<redirect_info>& rules, int32_t pid) {
    for (const int32_t family : {AF_INET, AF_INET6}) {
        redirect_info rule = BaseRule(kRuleNoRedirect, family);
        rule.rule_pid = pid;
        rules.push_back(rule);
    }
}

}  // namespace

bool CSWGAgent::parse_addresses_str_to_cidr_addr(const std::string& text,
                                                 std::list<ngc_cidr_addr>& ipv4,
                                                 std::list<ngc_cidr_addr>& ipv6,
                                                 std::list<std::string>& names, bool ipv6Enabled) {
    CToken tokens(text, ";");
    while (tokens.MoreTokens()) {
        std::string token = tokens.GetNextToken();
        StringTrim(token, " \r\n\t");
        if (!token.empty()) ParseEntry(token, ipv4, ipv6, names, ipv6Enabled);
    }
    return true;
}

void CSWGAgent::SetRedirectList(std::list<redirect_info>& rules, const SVC_STARTUP_INFO& info) {
    m_bIPv6Present =
        m_redirectorSeams.ipv6Installed ? m_redirectorSeams.ipv6Installed() : IsIPv6Installed();
    const bool ipv6 = m_bIPv6Present;

    std::list<ngc_cidr_addr> exclude4, exclude6, include4, include6;
    std::list<std::string> excludeNames, includeNames;
    parse_addresses_str_to_cidr_addr(info.exception_text, exclude4, exclude6, excludeNames, ipv6);
    parse_addresses_str_to_cidr_addr(info.inclusion_text, include4, include6, includeNames, ipv6);

    const int32_t ownPid = static_cast<int32_t>(getpid());
    CToken ports(info.monitored_ports, ",");
    while (ports.MoreTokens()) {
        // atoi cut to 16 bits: a word is port 0, and repeats are kept.
        const uint16_t port = static_cast<uint16_t>(std::atoi(ports.GetNextToken().c_str()));
        redirect_info rule = BaseRule(kRuleRedirect, AF_INET);
        rule.peer_port = htons(port);
        rule.redirect_port = htons(info.listen_port);
        rule.rule_excluded_pid = ownPid;
        rule.include_addrs = include4;
        rule.exclude_addrs = exclude4;
        rule.exclude_hosts = excludeNames;
        rule.include_hosts = includeNames;
        rules.push_back(rule);
        // Without IPv6 the IPv4 rule goes in twice: the list has the same length on every host.
        if (ipv6) {
            rule.rule_family = AF_INET6;
            rule.include_addrs = include6;
            rule.exclude_addrs = exclude6;
        }
        rules.push_back(rule);
        DNTRACE(TRACE, "after init_redirect: Redirecting port %d to port %d",
                static_cast<int>(port), static_cast<int>(info.listen_port));
    }

    AppendNoRedirectPair(rules, ownPid);
    const int daemonPid = m_redirectorSeams.pidOfProcess
                              ? m_redirectorSeams.pidOfProcess(kVpnDaemonName)
                              : ServiceUtils::GetPIDFromProcessName(kVpnDaemonName);
    if (daemonPid == -1) {
        DNTRACE(ERR, "Failed to get VPN daemon PID. no-redirect rule not added.");
    } else {
        AppendNoRedirectPair(rules, daemonPid);
    }
}
