// SPDX-License-Identifier: Apache-2.0
// The key forms of SWGConfig.json and its override, the validity rule and the order of the
// loader's messages, on texts without files.
#include <gtest/gtest.h>
#include <syslog.h>

#include <climits>
#include <string>
#include <utility>
#include <vector>

#include "ConfigTestSupport.h"
#include "config/OrgInfoParser.h"
#include "support/SyslogCapture.h"

namespace {

using Field = std::string (*)(const OrgInfoRecord&);
using Texts = std::vector<std::string>;

std::string Text(bool value) { return value ? "true" : "false"; }
std::string Joined(const std::deque<std::string>& queue) {
    std::string text;
    for (const std::string& element : queue) text += (text.empty() ? "" : "|") + element;
    return text;
}

// clang-format off
const Field kFailOpen = [](const OrgInfoRecord& r) { return Text(r.bFailOpen); };
const Field kHonorTnd = [](const OrgInfoRecord& r) { return Text(r.bSwgHonorTND); };
const Field kAutotuning = [](const OrgInfoRecord& r) { return Text(r.bAutotuning); };
const Field kDefaultLogLevel = [](const OrgInfoRecord& r) { return Text(r.bDefaultLogLevel); };
const Field kIPv6 = [](const OrgInfoRecord& r) { return Text(r.bIPv6Enabled); };
const Field kFed = [](const OrgInfoRecord& r) { return Text(r.bFedDeployment); };
const Field kDnsBackoff = [](const OrgInfoRecord& r) { return Text(r.bDnsBackoff); };
const Field kDomain = [](const OrgInfoRecord& r) { return r.strSWGDomain; };
const Field kPort = [](const OrgInfoRecord& r) { return std::to_string(r.nTrustedServerPort); };
const Field kInclusions = [](const OrgInfoRecord& r) { return r.strInclusionList; };
const Field kPorts = [](const OrgInfoRecord& r) { return r.strWebTrafficMonitorPortList; };
const Field kV4 = [](const OrgInfoRecord& r) { return Joined(r.qstrSWGAnycastListV4); };
const Field kV6 = [](const OrgInfoRecord& r) { return Joined(r.qstrSWGAnycastListV6); };
const Field kUser = [](const OrgInfoRecord& r) { return r.strPstrUserId; };
const Field kOverlay = [](const OrgInfoRecord& r) { return r.strOverlayUser; };
const Field kVpn4State = [](const OrgInfoRecord& r) { return r.strVpnIpv4State; };

std::string Org(const std::string& members) { return R"({"orgConfig":{)" + members + "}}"; }
std::string Identity(const std::string& members) { return R"({"identity":{)" + members + "}}"; }

struct KeyCase {
    std::string config;
    std::string overrides;  // "" for no override file
    Field field;
    std::string expected;
};

const KeyCase kKeyCases[] = {
    // Strings: another form, or a key in other letter case, leaves the default.
    {Org(R"("swgDomain":5)"), "", kDomain, ""},
    {Org(R"("SWGDomain":"g.swg.test")"), "", kDomain, ""},
    // Flags written as texts: only "0" (or only "1") has its meaning; JSON forms keep defaults.
    {Org(R"("failOpen":"0")"), "", kFailOpen, "false"},
    {Org(R"("failOpen":"00")"), "", kFailOpen, "true"},
    {Org(R"("failOpen":false)"), "", kFailOpen, "true"},
    {Org(R"("logLevel":"2")"), "", kDefaultLogLevel, "false"},
    {R"({"deviceConfig":{"autotuning":"0"}})", "", kAutotuning, "false"},
    {R"({"deviceConfig":{"autotuning":"no"}})", "", kAutotuning, "true"},
    {Org(R"("swgHonorTND":"1")"), "", kHonorTnd, "true"},
    {Org(R"("swgHonorTND":"TRUE")"), "", kHonorTnd, "false"},
    {Org(R"("swgHonorTND":true)"), "", kHonorTnd, "false"},
    // Booleans and numbers.
    {Identity(R"("isFedDeployment":true)"), "", kFed, "true"},
    {Identity(R"("isFedDeployment":"true")"), "", kFed, "false"},
    {Org(R"("swgTrustedServerPort":8443)"), "", kPort, "8443"},
    {Org(R"("swgTrustedServerPort":"8443")"), "", kPort, "0"},
    {Org(R"("swgTrustedServerPort":443.9)"), "", kPort, "443"},
    {Org(R"("swgTrustedServerPort":1e20)"), "", kPort, std::to_string(INT_MAX)},
    // Joined arrays: a non-text element adds nothing but leaves a separator after the last text.
    {Org(R"("inclusionList":["a","b",1])"), "", kInclusions, "a;b;"},
    {Org(R"("inclusionList":["a",1,"b"])"), "", kInclusions, "a;b"},
    {Org(R"("inclusionList":["a","","b"])"), "", kInclusions, "a;;b"},
    {Org(R"("inclusionList":"a")"), "", kInclusions, ""},
    // Monitored ports only grow from the defaults, by non-empty texts.
    {Org(R"("webTrafficMonitorPorts":["8080","8443"])"), "", kPorts, "80,443,8080,8443"},
    {Org(R"("webTrafficMonitorPorts":[8080,"",443,"9000"])"), "", kPorts, "80,443,9000"},
    {Org(R"("swgAnycastList":{"v4":["198.18.0.2","198.18.0.1"]})"), "", kV4, "198.18.0.2|198.18.0.1"},
    {Org(R"("swgAnycastList":{"v6":[1,"2001:db8::1",null]})"), "", kV6, "2001:db8::1"},
    // User ids: the UPN wins with the "H" prefix unless empty; the overlay user is prefixed.
    {Identity(R"("adUserId":"x","adUserIdUpn":"y")"), "", kUser, "Hy"},
    {Identity(R"("adUserId":"x","adUserIdUpn":"")"), "", kUser, "x"},
    {Identity(R"("adUserIdUpn":"")"), "", kUser, ""},
    {Identity(R"("overlayUser":"ov")"), "", kOverlay, "Hov"},
    {Identity(R"("overlayUser":"")"), "", kOverlay, ""},
    // Containers are entered only as objects.
    {R"({"dnsBackoff":[{"dns4":{"backedOff":true}}]})", "", kDnsBackoff, "false"},
    {R"({"vpnDetails":{"vpn_ipv4":"connected"}})", "", kVpn4State, ""},
    // The override: its keys win, but only over a section the file has.
    {"{}", R"({"IPv6Enabled":true})", kIPv6, "true"},
    {"{}", R"({"IPv6Enabled":"true"})", kIPv6, "false"},
    {Org(R"("logLevel":"1")"), R"({"logLevel":"0"})", kDefaultLogLevel, "true"},
    {"{}", R"({"logLevel":"1"})", kDefaultLogLevel, "true"},
    {Org(R"("logLevel":"1")"), R"({"logLevel":true})", kDefaultLogLevel, "true"},
    {R"({"deviceConfig":{"autotuning":"1"}})", R"({"autotuning":"0"})", kAutotuning, "false"},
    {"{}", R"({"autotuning":"1"})", kAutotuning, "false"},
    {R"({"deviceConfig":"x"})", R"({"autotuning":"1"})", kAutotuning, "true"},
    {Org(R"("logLevel":"1")"), R"({"logLevel":"0")", kDefaultLogLevel, "false"},
    {"{}", R"({"orgConfig":{"swgDomain":"g"}})", kDomain, ""},
};
// clang-format on

// Guards each key form: a value of another form is no error and leaves the default.
TEST(OrgInfoParser, ReadsEachMemberByItsForm) {
    swg_test::SyslogCapture quiet;
    for (const KeyCase& c : kKeyCases) {
        SCOPED_TRACE(c.config + " + override " + c.overrides);
        OrgInfoRecord info;
        ASSERT_TRUE(ParseOrgInfoText(
            c.config, [&c] { return c.overrides; }, info));
        EXPECT_EQ(c.field(info), c.expected);
    }
}

// Guards the validity rule: the four required values and any one gateway source.
TEST(OrgInfoParser, ValidityRule) {
    const std::string minimal = R"({"identity":{"orgId":"o","deviceId":"d"},
        "commonConfig":{"swgHosts":"h.swg.test","rsaPubKey":"PEM","rsaPubKeyId":"k"}})";
    const std::string noHost = config_test::EditConfig(minimal, "commonConfig/swgHosts", nullptr);
    const struct {
        const std::string& base;
        const char* path;   // key to change
        const char* value;  // its new JSON value, or null to remove it
        bool valid;
    } cases[] = {
        {minimal, "identity/orgId", R"("o")", true},
        {minimal, "identity/orgId", nullptr, false},
        {minimal, "identity/orgId", R"("")", false},
        {minimal, "identity/orgId", "7", false},
        {minimal, "identity/deviceId", nullptr, false},
        {minimal, "commonConfig/rsaPubKey", nullptr, false},
        {minimal, "commonConfig/rsaPubKeyId", nullptr, false},
        {minimal, "commonConfig/swgHosts", R"("")", false},
        {minimal, "orgConfig/swgEchoService", "5", true},
        {noHost, "identity/adUserId", R"("")", false},
        {noHost, "orgConfig/swgAnycast", R"("198.18.0.1")", true},
        {noHost, "orgConfig/swgAnycastList/v4", R"(["198.18.0.1"])", true},
        {noHost, "orgConfig/swgAnycastList/v6", R"(["2001:db8::1"])", true},
        {noHost, "orgConfig/swgDomain", R"("g.swg.test")", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.path) + (&c.base == &noHost ? " without swgHosts" : ""));
        swg_test::SyslogCapture capture;
        OrgInfoRecord info;
        EXPECT_EQ(ParseOrgInfo(config_test::EditConfig(c.base, c.path, c.value), "", info),
                  c.valid);
        EXPECT_EQ(capture.LinesWith("\nSWG: JSON file has few empty values.").size(),
                  c.valid ? 0u : 1u);
    }
}

// Guards the message texts, both wordings, their reading order (not the file's) and priority.
TEST(OrgInfoParser, MessagesFollowTheReadingOrder) {
    // Sections and keys deliberately out of reading order.
    const std::string setConfig = R"({
      "customerTrustedNetwork": {"customerNetworkProbeRecurses": true,
                                 "customerNetworkProbeDomain": "probe.swg.test"},
      "vpnDetails": {"vpn_ipv6": {"vpn_type": "split", "state": "disconnected"},
                     "vpn_ipv4": {"vpn_type": "tunnel_all", "state": "connected"},
                     "network_state": "captive_portal_detected", "tnd": "trusted"},
      "dnsBackoff": {"dns4": {"reason": "probe", "backedOff": true}},
      "orgConfig": {"swgTrustedServerFingerprint": "AB:CD", "swgTrustedServerPort": 8443,
                    "swgTrustedServer": "trusted.swg.test",
                    "backoffOnCustomerTrustedNetwork": "1", "backoffOnLMVpn": "0",
                    "backoffOnLMTrustedNetwork": "1", "logLevel": "1", "failOpen": "0",
                    "swgHonorTND": "1", "swgDomain": "g.swg.test"},
      "deviceConfig": {"autotuning": "1"},
      "identity": {"isFedDeployment": false, "overlayUser": "ov", "deviceId": "d"}
    })";
    const std::string otherConfig = R"({
      "identity": {"isFedDeployment": true},
      "deviceConfig": {"autotuning": "0"},
      "orgConfig": {"swgHonorTND": "0", "failOpen": "1", "logLevel": "0",
                    "backoffOnLMTrustedNetwork": "x", "backoffOnLMVpn": "1",
                    "backoffOnCustomerTrustedNetwork": "0"},
      "dnsBackoff": {"dns4": {"backedOff": false}},
      "customerTrustedNetwork": {"customerNetworkProbeRecurses": false}
    })";
    const std::pair<std::string, Texts> cases[] = {
        {setConfig,
         {"Overlay user ID : Hov",
          "FIPS mode is disabled",
          "Send Buffer Autotuning is enabled.",
          "swgHonorTND has been set.",
          "Fail close policy has been set.",
          "max debug log level has been set.",
          "backoffOnLMTrustedNetwork has been set.",
          "backoffOnLMVpn has not been set.",
          "backoffOnCustomerTrustedNetwork has been set.",
          "Trusted Server is: trusted.swg.test",
          "Trusted Server port is: 8443",
          "Trusted Server fingerprint is: AB:CD",
          "dnsbackoff is true.",
          "dnsbackoff reason is: probe",
          "VPN TND is: trusted",
          "VPN NES is: captive_portal_detected",
          "Ipv4 VPN State is: connected",
          "Ipv4 VPN Type is: tunnel_all",
          "Ipv6 VPN State is: disconnected",
          "Ipv6 VPN Type is: split",
          "CustomerNetworkProbeDomain: probe.swg.test",
          "CustomerNetworkProbeRecurses is true."}},
        {otherConfig,
         {"FIPS mode is enabled.", "Send Buffer Autotuning is disabled.",
          "swgHonorTND has not been set.", "Fail open policy has been set.",
          "default log level has been set.", "backoffOnLMTrustedNetwork has not been set.",
          "backoffOnLMVpn has been set.", "backoffOnCustomerTrustedNetwork has not been set.",
          "dnsbackoff is false.", "CustomerNetworkProbeRecurses is false."}},
    };
    for (const auto& c : cases) {
        swg_test::SyslogCapture capture;
        OrgInfoRecord info;
        ASSERT_TRUE(ParseOrgInfoText(c.first, nullptr, info));
        Texts texts;
        for (const auto& line : capture.Lines()) {
            EXPECT_EQ(line.priority, LOG_ERR) << line.text;
            EXPECT_EQ(line.text.rfind("\nSWG : ", 0), 0u) << line.text;
            texts.push_back(line.text.substr(7));
        }
        EXPECT_EQ(texts, c.second);
    }
}

}  // namespace
