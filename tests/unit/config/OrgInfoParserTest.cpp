// SPDX-License-Identifier: Apache-2.0
// The key forms of SWGConfig.json and its override, the validity rule and the order of the
// loader's messages, on texts without files.
#include <gtest/gtest.h>
#include <syslog.h>

#include <climits>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "ConfigTestSupport.h"
#include "config/OrgInfoParser.h"
#include "support/SyslogCapture.h"

namespace {

using Field = std::function<std::string(const OrgInfoRecord&)>;

std::string Text(bool value) { return value ? "true" : "false"; }
std::string Joined(const std::deque<std::string>& queue) {
    std::string text;
    for (const std::string& element : queue) text += (text.empty() ? "" : "|") + element;
    return text;
}

struct KeyCase {
    const char* name;
    std::string config;
    std::string overrides;  // "" for no override file
    Field field;
    std::string expected;
};

const Field kFailOpen = [](const OrgInfoRecord& r) { return Text(r.bFailOpen); };
const Field kHonorTnd = [](const OrgInfoRecord& r) { return Text(r.bSwgHonorTND); };
const Field kAutotuning = [](const OrgInfoRecord& r) { return Text(r.bAutotuning); };
const Field kDefaultLogLevel = [](const OrgInfoRecord& r) { return Text(r.bDefaultLogLevel); };
const Field kIPv6 = [](const OrgInfoRecord& r) { return Text(r.bIPv6Enabled); };
const Field kFed = [](const OrgInfoRecord& r) { return Text(r.bFedDeployment); };
const Field kDomain = [](const OrgInfoRecord& r) { return r.strSWGDomain; };
const Field kPort = [](const OrgInfoRecord& r) { return std::to_string(r.nTrustedServerPort); };
const Field kInclusions = [](const OrgInfoRecord& r) { return r.strInclusionList; };
const Field kPorts = [](const OrgInfoRecord& r) { return r.strWebTrafficMonitorPortList; };
const Field kV4 = [](const OrgInfoRecord& r) { return Joined(r.qstrSWGAnycastListV4); };
const Field kV6 = [](const OrgInfoRecord& r) { return Joined(r.qstrSWGAnycastListV6); };
const Field kUser = [](const OrgInfoRecord& r) { return r.strPstrUserId; };
const Field kOverlay = [](const OrgInfoRecord& r) { return r.strOverlayUser; };
const Field kDnsBackoff = [](const OrgInfoRecord& r) { return Text(r.bDnsBackoff); };
const Field kVpn4State = [](const OrgInfoRecord& r) { return r.strVpnIpv4State; };
const Field kProbeRecurses = [](const OrgInfoRecord& r) {
    return Text(r.bCustomerNetworkProbeRecurses);
};

std::string Org(const std::string& members) { return R"({"orgConfig":{)" + members + "}}"; }
std::string Identity(const std::string& members) { return R"({"identity":{)" + members + "}}"; }

const KeyCase kKeyCases[] = {
    // string
    {"StringTaken", Org(R"("swgDomain":"g.swg.test")"), "", kDomain, "g.swg.test"},
    {"EmptyStringAssignsEmpty", Org(R"("swgDomain":"")"), "", kDomain, ""},
    {"NumberInStringPlaceKeepsDefault", Org(R"("swgDomain":5)"), "", kDomain, ""},
    {"BooleanInStringPlaceKeepsDefault", Org(R"("swgDomain":true)"), "", kDomain, ""},
    {"NullInStringPlaceKeepsDefault", Org(R"("swgDomain":null)"), "", kDomain, ""},
    {"KeysAreCaseSensitive", Org(R"("SWGDomain":"g.swg.test")"), "", kDomain, ""},
    // string flag with the word "0"
    {"FailOpenZeroIsFailClose", Org(R"("failOpen":"0")"), "", kFailOpen, "false"},
    {"FailOpenDoubleZeroIsFailOpen", Org(R"("failOpen":"00")"), "", kFailOpen, "true"},
    {"FailOpenJsonFalseKeepsDefault", Org(R"("failOpen":false)"), "", kFailOpen, "true"},
    {"FailOpenNumberZeroKeepsDefault", Org(R"("failOpen":0)"), "", kFailOpen, "true"},
    {"FailOpenEmptyTextIsFailOpen", Org(R"("failOpen":"")"), "", kFailOpen, "true"},
    {"LogLevelZeroIsDefaultMask", Org(R"("logLevel":"0")"), "", kDefaultLogLevel, "true"},
    {"LogLevelOtherTextIsDebugMask", Org(R"("logLevel":"2")"), "", kDefaultLogLevel, "false"},
    {"AutotuningZeroClears", R"({"deviceConfig":{"autotuning":"0"}})", "", kAutotuning, "false"},
    {"AutotuningOtherTextSets", R"({"deviceConfig":{"autotuning":"no"}})", "", kAutotuning, "true"},
    {"AutotuningJsonTrueKeepsDefault", R"({"deviceConfig":{"autotuning":true}})", "", kAutotuning,
     "false"},
    // string flag with the word "1"
    {"HonorTndOneSets", Org(R"("swgHonorTND":"1")"), "", kHonorTnd, "true"},
    {"HonorTndUpperCaseTrueClears", Org(R"("swgHonorTND":"TRUE")"), "", kHonorTnd, "false"},
    {"HonorTndJsonTrueKeepsDefault", Org(R"("swgHonorTND":true)"), "", kHonorTnd, "false"},
    // boolean
    {"FedDeploymentTrue", Identity(R"("isFedDeployment":true)"), "", kFed, "true"},
    {"FedDeploymentTextKeepsDefault", Identity(R"("isFedDeployment":"true")"), "", kFed, "false"},
    {"FedDeploymentNumberKeepsDefault", Identity(R"("isFedDeployment":1)"), "", kFed, "false"},
    // number
    {"PortNumberTaken", Org(R"("swgTrustedServerPort":8443)"), "", kPort, "8443"},
    {"PortTextKeepsDefault", Org(R"("swgTrustedServerPort":"8443")"), "", kPort, "0"},
    {"PortFractionTruncated", Org(R"("swgTrustedServerPort":443.9)"), "", kPort, "443"},
    {"PortHugeClamped", Org(R"("swgTrustedServerPort":1e20)"), "", kPort, std::to_string(INT_MAX)},
    // joined array
    {"JoinedPlain", Org(R"("inclusionList":["a","b"])"), "", kInclusions, "a;b"},
    {"JoinedTrailingNumberLeavesSeparator", Org(R"("inclusionList":["a","b",1])"), "", kInclusions,
     "a;b;"},
    {"JoinedMiddleNumberHasNoSeparator", Org(R"("inclusionList":["a",1,"b"])"), "", kInclusions,
     "a;b"},
    {"JoinedEmptyElementKept", Org(R"("inclusionList":["a","","b"])"), "", kInclusions, "a;;b"},
    {"JoinedNotAnArrayKeepsDefault", Org(R"("inclusionList":"a")"), "", kInclusions, ""},
    {"JoinedObjectKeepsDefault", Org(R"("inclusionList":{"k":"a"})"), "", kInclusions, ""},
    // monitored ports
    {"PortsDefault", Org(""), "", kPorts, "80,443"},
    {"PortsTextsAppended", Org(R"("webTrafficMonitorPorts":["8080","8443"])"), "", kPorts,
     "80,443,8080,8443"},
    {"PortsNumbersIgnored", Org(R"("webTrafficMonitorPorts":[8080,8443])"), "", kPorts, "80,443"},
    {"PortsEmptyTextIgnored", Org(R"("webTrafficMonitorPorts":[""])"), "", kPorts, "80,443"},
    {"PortsCannotRemoveDefaults", Org(R"("webTrafficMonitorPorts":["8080",443,"","9000"])"), "",
     kPorts, "80,443,8080,9000"},
    // anycast lists
    {"AnycastV4InFileOrder", Org(R"("swgAnycastList":{"v4":["198.18.0.2","198.18.0.1"]})"), "", kV4,
     "198.18.0.2|198.18.0.1"},
    {"AnycastV6SkipsNonText", Org(R"("swgAnycastList":{"v6":[1,"2001:db8::1",null]})"), "", kV6,
     "2001:db8::1"},
    {"AnycastListNotObjectKeepsEmpty", Org(R"("swgAnycastList":["198.18.0.1"])"), "", kV4, ""},
    // user ids
    {"UserIdAndUpnGivesPrefixedUpn", Identity(R"("adUserId":"x","adUserIdUpn":"y")"), "", kUser,
     "Hy"},
    {"UserIdAndEmptyUpnGivesUserId", Identity(R"("adUserId":"x","adUserIdUpn":"")"), "", kUser,
     "x"},
    {"NoUserIdAndEmptyUpnGivesEmpty", Identity(R"("adUserIdUpn":"")"), "", kUser, ""},
    {"UpnAloneIsPrefixed", Identity(R"("adUserIdUpn":"y")"), "", kUser, "Hy"},
    {"UserIdWithNumberUpnGivesUserId", Identity(R"("adUserId":"x","adUserIdUpn":5)"), "", kUser,
     "x"},
    {"OverlayUserPrefixed", Identity(R"("overlayUser":"ov")"), "", kOverlay, "Hov"},
    {"EmptyOverlayUserNotPrefixed", Identity(R"("overlayUser":"")"), "", kOverlay, ""},
    // containers entered only as objects
    {"DnsBackoffRead", R"({"dnsBackoff":{"dns4":{"backedOff":true}}})", "", kDnsBackoff, "true"},
    {"DnsBackoffArrayNotEntered", R"({"dnsBackoff":[{"dns4":{"backedOff":true}}]})", "",
     kDnsBackoff, "false"},
    {"VpnFamilyRead", R"({"vpnDetails":{"vpn_ipv4":{"state":"connected"}}})", "", kVpn4State,
     "connected"},
    {"VpnFamilyNotObjectNotEntered", R"({"vpnDetails":{"vpn_ipv4":"connected"}})", "", kVpn4State,
     ""},
    {"ProbeRecursesRead", R"({"customerTrustedNetwork":{"customerNetworkProbeRecurses":true}})", "",
     kProbeRecurses, "true"},
    // override file
    {"OverrideIPv6WithoutAnySection", "{}", R"({"IPv6Enabled":true})", kIPv6, "true"},
    {"OverrideIPv6TextIgnored", "{}", R"({"IPv6Enabled":"true"})", kIPv6, "false"},
    {"OverrideLogLevelWins", Org(R"("logLevel":"1")"), R"({"logLevel":"0"})", kDefaultLogLevel,
     "true"},
    {"OverrideLogLevelWithoutOrgConfigHasNoEffect", "{}", R"({"logLevel":"1"})", kDefaultLogLevel,
     "true"},
    {"OverrideLogLevelOfOtherFormHidesFileValue", Org(R"("logLevel":"1")"), R"({"logLevel":true})",
     kDefaultLogLevel, "true"},
    {"OverrideAutotuningWins", R"({"deviceConfig":{"autotuning":"1"}})", R"({"autotuning":"0"})",
     kAutotuning, "false"},
    {"OverrideAutotuningWithoutDeviceConfigHasNoEffect", "{}", R"({"autotuning":"1"})", kAutotuning,
     "false"},
    {"OverrideAutotuningWithNonObjectDeviceConfig", R"({"deviceConfig":"x"})",
     R"({"autotuning":"1"})", kAutotuning, "true"},
    {"MalformedOverrideMeansNone", Org(R"("logLevel":"1")"), R"({"logLevel":"0")", kDefaultLogLevel,
     "false"},
    {"OverrideOnlyReadsItsThreeKeys", "{}", R"({"orgConfig":{"swgDomain":"g"}})", kDomain, ""},
};

void PrintTo(const KeyCase& c, std::ostream* out) { *out << c.name; }

class OrgInfoKeyFormTest : public ::testing::TestWithParam<KeyCase> {};

// Guards each key form against the JSON shapes a foreign writer may put there: a value of
// another form never raises an error and leaves the member at its default.
TEST_P(OrgInfoKeyFormTest, ReadsTheMemberByItsForm) {
    const KeyCase& c = GetParam();
    swg_test::SyslogCapture quiet;
    OrgInfoRecord info;
    ASSERT_TRUE(ParseOrgInfoText(
        c.config, [&c] { return c.overrides; }, info));
    EXPECT_EQ(c.field(info), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Keys, OrgInfoKeyFormTest, ::testing::ValuesIn(kKeyCases),
                         [](const ::testing::TestParamInfo<KeyCase>& param) {
                             return std::string(param.param.name);
                         });

// Guards the defaults of a file that has none of the sections.
TEST(OrgInfoParser, EmptyObjectLeavesEveryDefault) {
    swg_test::SyslogCapture capture;
    OrgInfoRecord info;
    ASSERT_TRUE(ParseOrgInfoText("{}", nullptr, info));
    EXPECT_EQ(info.strWebTrafficMonitorPortList, "80,443");
    EXPECT_TRUE(info.bFailOpen);
    EXPECT_TRUE(info.bDefaultLogLevel);
    EXPECT_FALSE(info.bAutotuning);
    EXPECT_EQ(info.nTrustedServerPort, 0);
    EXPECT_TRUE(info.strOrgId.empty());
    EXPECT_TRUE(info.qstrSWGAnycastListV4.empty());
    EXPECT_TRUE(capture.Lines().empty()) << "absent keys are silent";
}

// Guards the refusal of texts that are not JSON, and that the override is then not read.
TEST(OrgInfoParser, TextThatIsNotJsonIsRefusedBeforeTheOverrideIsRead) {
    for (const char* text : {"", "not json", "{", R"({"identity":})", "\xff\xfe"}) {
        SCOPED_TRACE(text);
        swg_test::SyslogCapture capture;
        bool overrideRead = false;
        OrgInfoRecord info;
        EXPECT_FALSE(ParseOrgInfoText(
            text,
            [&] {
                overrideRead = true;
                return std::string();
            },
            info));
        EXPECT_FALSE(overrideRead);
        const auto lines = capture.Lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].text, "\nSWG : Failed to parse json file");
        EXPECT_EQ(lines[0].priority, LOG_ERR);
    }
}

struct ValidityCase {
    const char* name;
    const char* path;   // key to change in a minimal valid file
    const char* value;  // its new JSON value, or null to remove it
    bool valid;
};

// Minimal valid file: the four required values and swgHosts as the only gateway source.
std::string MinimalConfig() {
    return R"({"identity":{"orgId":"o","deviceId":"d"},
               "commonConfig":{"swgHosts":"h.swg.test","rsaPubKey":"PEM","rsaPubKeyId":"k"}})";
}

const ValidityCase kValidityCases[] = {
    {"OnlySwgHostsIsValid", "identity/orgId", R"("o")", true},
    {"NoOrgId", "identity/orgId", nullptr, false},
    {"EmptyOrgId", "identity/orgId", R"("")", false},
    {"NumberOrgIdLeavesItEmpty", "identity/orgId", "7", false},
    {"NoDeviceId", "identity/deviceId", nullptr, false},
    {"NoPublicKey", "commonConfig/rsaPubKey", nullptr, false},
    {"NoKeyId", "commonConfig/rsaPubKeyId", nullptr, false},
    {"EmptySwgHostsAndNoOtherSource", "commonConfig/swgHosts", R"("")", false},
    {"NumberInOptionalStringStaysValid", "orgConfig/swgEchoService", "5", true},
    {"EmptyUserIdAndListsStayValid", "identity/adUserId", R"("")", true},
};

void PrintTo(const ValidityCase& c, std::ostream* out) { *out << c.name; }

class OrgInfoValidityTest : public ::testing::TestWithParam<ValidityCase> {};

// Guards the validity rule: only the four required values and a gateway source count.
TEST_P(OrgInfoValidityTest, AppliesTheRule) {
    const ValidityCase& c = GetParam();
    swg_test::SyslogCapture capture;
    OrgInfoRecord info;
    const std::string config = config_test::EditConfig(MinimalConfig(), c.path, c.value);
    EXPECT_EQ(ParseOrgInfo(config, "", info), c.valid);
    EXPECT_EQ(capture.LinesWith("\nSWG: JSON file has few empty values.").size(),
              c.valid ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(Rule, OrgInfoValidityTest, ::testing::ValuesIn(kValidityCases),
                         [](const ::testing::TestParamInfo<ValidityCase>& param) {
                             return std::string(param.param.name);
                         });

// Guards that each gateway source alone satisfies the rule.
TEST(OrgInfoValidity, EachGatewaySourceAloneIsEnough) {
    const std::string noHost =
        config_test::EditConfig(MinimalConfig(), "commonConfig/swgHosts", nullptr);
    const std::pair<const char*, const char*> sources[] = {
        {"orgConfig/swgAnycast", R"("198.18.0.1")"},
        {"orgConfig/swgAnycastList/v4", R"(["198.18.0.1"])"},
        {"orgConfig/swgAnycastList/v6", R"(["2001:db8::1"])"},
        {"orgConfig/swgDomain", R"("g.swg.test")"},
    };
    swg_test::SyslogCapture capture;
    OrgInfoRecord refused;
    EXPECT_FALSE(ParseOrgInfo(noHost, "", refused));
    for (const auto& source : sources) {
        SCOPED_TRACE(source.first);
        OrgInfoRecord info;
        EXPECT_TRUE(
            ParseOrgInfo(config_test::EditConfig(noHost, source.first, source.second), "", info));
    }
}

// Guards the order of the loader's messages: it follows the reading order, not the order of
// the keys in the file, and every line goes out at the error priority.
TEST(OrgInfoParser, MessagesFollowTheReadingOrder) {
    // Sections and keys deliberately out of reading order.
    const std::string config = R"({
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
      "commonConfig": {"swgHosts": "h", "rsaPubKey": "PEM", "rsaPubKeyId": "k"},
      "deviceConfig": {"autotuning": "1"},
      "identity": {"isFedDeployment": false, "overlayUser": "ov", "deviceId": "d",
                   "orgId": "o"}
    })";
    swg_test::SyslogCapture capture;
    OrgInfoRecord info;
    ASSERT_TRUE(ParseOrgInfo(config, "", info));
    const std::vector<std::string> expected = {
        "\nSWG : Overlay user ID : Hov",
        "\nSWG : FIPS mode is disabled",
        "\nSWG : Send Buffer Autotuning is enabled.",
        "\nSWG : swgHonorTND has been set.",
        "\nSWG : Fail close policy has been set.",
        "\nSWG : max debug log level has been set.",
        "\nSWG : backoffOnLMTrustedNetwork has been set.",
        "\nSWG : backoffOnLMVpn has not been set.",
        "\nSWG : backoffOnCustomerTrustedNetwork has been set.",
        "\nSWG : Trusted Server is: trusted.swg.test",
        "\nSWG : Trusted Server port is: 8443",
        "\nSWG : Trusted Server fingerprint is: AB:CD",
        "\nSWG : dnsbackoff is true.",
        "\nSWG : dnsbackoff reason is: probe",
        "\nSWG : VPN TND is: trusted",
        "\nSWG : VPN NES is: captive_portal_detected",
        "\nSWG : Ipv4 VPN State is: connected",
        "\nSWG : Ipv4 VPN Type is: tunnel_all",
        "\nSWG : Ipv6 VPN State is: disconnected",
        "\nSWG : Ipv6 VPN Type is: split",
        "\nSWG : CustomerNetworkProbeDomain: probe.swg.test",
        "\nSWG : CustomerNetworkProbeRecurses is true.",
    };
    std::vector<std::string> texts;
    for (const auto& line : capture.Lines()) {
        EXPECT_EQ(line.priority, LOG_ERR) << line.text;
        texts.push_back(line.text);
    }
    EXPECT_EQ(texts, expected);
}

// Guards the opposite wording of each message pair.
TEST(OrgInfoParser, MessagesNameTheOtherValue) {
    const std::string config = R"({
      "identity": {"isFedDeployment": true},
      "deviceConfig": {"autotuning": "0"},
      "orgConfig": {"swgHonorTND": "0", "failOpen": "1", "logLevel": "0",
                    "backoffOnLMTrustedNetwork": "x", "backoffOnLMVpn": "1",
                    "backoffOnCustomerTrustedNetwork": "0"},
      "dnsBackoff": {"dns4": {"backedOff": false}},
      "customerTrustedNetwork": {"customerNetworkProbeRecurses": false}
    })";
    swg_test::SyslogCapture capture;
    OrgInfoRecord info;
    ASSERT_TRUE(ParseOrgInfoText(config, nullptr, info));
    std::vector<std::string> texts;
    for (const auto& line : capture.Lines()) texts.push_back(line.text);
    const std::vector<std::string> expected = {
        "\nSWG : FIPS mode is enabled.",
        "\nSWG : Send Buffer Autotuning is disabled.",
        "\nSWG : swgHonorTND has not been set.",
        "\nSWG : Fail open policy has been set.",
        "\nSWG : default log level has been set.",
        "\nSWG : backoffOnLMTrustedNetwork has not been set.",
        "\nSWG : backoffOnLMVpn has been set.",
        "\nSWG : backoffOnCustomerTrustedNetwork has not been set.",
        "\nSWG : dnsbackoff is false.",
        "\nSWG : CustomerNetworkProbeRecurses is false.",
    };
    EXPECT_EQ(texts, expected);
}

}  // namespace
