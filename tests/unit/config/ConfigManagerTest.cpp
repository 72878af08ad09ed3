// SPDX-License-Identifier: Apache-2.0
// The reload of CConfigManager: which field changes are seen, how they are logged, what is
// stored and which consequences run in which order. Run on the test's thread, no watch.
#include <gtest/gtest.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "ConfigTestSupport.h"
#include "config/ConfigManager.h"

namespace {
using config_test::EditConfig;
using config_test::FullConfig;
using Texts = std::vector<std::string>;

class ConfigReloadTest : public config_test::MonitorFixture {
protected:
    void SetUp() override {
        MonitorFixture::SetUp();
        ASSERT_TRUE(Preload(FullConfig()));
    }

    // Puts `config` in force without a reload.
    bool Preload(const std::string& config) {
        m_folder.Write("SWGConfig.json", config);
        return m_agent.Preload(m_folder.Path());
    }
    // Writes `config`, reloads once and returns what the reload asked of the agent.
    Texts ReloadWith(const std::string& config) {
        m_folder.Write("SWGConfig.json", config);
        m_agent.ClearCalls();
        m_capture.Clear();
        m_manager.updateCurrentConfig();
        return m_agent.Calls();
    }
    // The "... changed" lines of the last reload, without their common prefix.
    Texts ChangeLines() const {
        Texts lines;
        for (const auto& line : m_capture.LinesWith("UpdateCurrentConfig: ")) {
            if (line.text.find(" changed\n") == std::string::npos) continue;
            if (line.text.find("reinit kdf") != std::string::npos) continue;
            lines.push_back(line.text.substr(line.text.find(": ") + 2));
        }
        return lines;
    }

    CConfigManager m_manager{m_agent, m_folder.Path(), 50, m_watch, m_clock};
};

struct FieldCase {
    const char* path;   // key in the file
    const char* value;  // new JSON value
    const char* line;   // text after "UpdateCurrentConfig: ", line end excluded
    Texts calls;        // what the reload asks of the agent, in order
};

const char kSet[] = "SetOrgInfo";
const char kBackoff[] = "OnBackoffStateChange";
const char kTower[] = "SetActiveTowerName";
const char kStateFile[] = "UpdateSWGStateFile";
const char kRestart[] = "RestartKDF:0";

// clang-format off
const FieldCase kFieldCases[] = {
    {"identity/deviceId", R"("dev-2")", "Device id changed", {kSet}},
    {"commonConfig/swgHosts", R"("host2.swg.test")", "strHostname changed", {kSet, kTower}},
    {"orgConfig/swgAnycast", R"("198.18.0.8")", "strSWGAnycast changed", {kSet, kTower}},
    // Same elements in another order: the queues compare exactly.
    {"orgConfig/swgAnycastList/v4", R"(["198.18.0.11","198.18.0.10"])", "qstrSWGAnycastListV4 changed", {kSet, kTower}},
    {"orgConfig/swgAnycastList/v6", R"(["2001:db8::10","2001:db8::11"])", "qstrSWGAnycastListV6 changed", {kSet, kTower}},
    {"orgConfig/swgDomain", R"("gw2.swg.test")", "strSWGDomain changed", {kSet, kTower, kStateFile}},
    {"orgConfig/swgEchoService", R"("http://echo2.swg.test/")", "strSWGEchoService changed", {kSet}},
    {"identity/orgId", R"("org-2")", "strOrgId changed", {kSet}},
    {"commonConfig/rsaPubKey", R"("PEM-2")", "strpKeyPem changed", {kSet}},
    {"identity/adUserId", R"("user-2")", "strPstrUserId changed", {kSet}},
    {"orgConfig/inclusionList", R"(["198.18.2.0/24"])", "strInclusionList changed", {kSet, kRestart, kStateFile}},
    {"orgConfig/exceptionList", R"(["198.18.1.0/24"])", "strExceptionList changed", {kSet, kRestart, kStateFile}},
    {"orgConfig/webTrafficMonitorPorts", R"(["8080","8443"])", "strWebTrafficMonitorPortList changed", {kSet, kRestart}},
    {"deviceConfig/autotuning", R"("0")", "autotuning config changed", {kSet}},
    {"orgConfig/failOpen", R"("1")", "failOpen config changed", {kSet}},
    {"orgConfig/swgHonorTND", R"("0")", "swgHonorTND config changed", {kSet, kBackoff}},
    {"dnsBackoff/dns4/backedOff", "false", "DNSBackOff config changed", {kSet, kBackoff}},
    {"dnsBackoff/dns4/reason", R"("other")", "DNSBackOff Reason changed", {kSet, kBackoff}},
    // The trace mask switches at once, during the comparison, before the record is stored.
    {"orgConfig/logLevel", R"("0")", "loglevel config changed", {"ChangeDebugLevel:0x107", kSet}},
    {"orgConfig/backoffOnLMTrustedNetwork", R"("0")", "BackoffOnLMTrustedNetwork Config changed", {kSet, kBackoff}},
    {"orgConfig/backoffOnLMVpn", R"("1")", "BackoffOnLMVpn Config changed", {kSet, kBackoff}},
    {"orgConfig/backoffOnCustomerTrustedNetwork", R"("0")", "BackoffOnCustomerTrustedNetwork Config changed", {kSet, kBackoff}},
    {"vpnDetails/tnd", R"("untrusted")", "VPN TND value changed", {kSet, kBackoff}},
    {"vpnDetails/network_state", R"("normal")", "VPN NES value changed", {kSet}},
    {"vpnDetails/vpn_ipv4/state", R"("disconnected")", "Ipv4 VPN State changed", {kSet, kBackoff}},
    {"vpnDetails/vpn_ipv4/vpn_type", R"("split")", "Ipv4 VPN Type changed", {kSet, kBackoff}},
    {"vpnDetails/vpn_ipv6/state", R"("connected")", "Ipv6 VPN State changed", {kSet, kBackoff}},
    {"vpnDetails/vpn_ipv6/vpn_type", R"("tunnel_all")", "Ipv6 VPN Type changed", {kSet, kBackoff}},
    {"customerTrustedNetwork/customerNetworkProbeDomain", R"("probe2.swg.test")", " Customer Network Probe Domain changed", {kSet}},
    {"identity/overlayUser", R"("ov2")", "Overlay User changed", {kSet}},
    {"customerTrustedNetwork/customerNetworkProbeRecurses", "false", "Customer Network Probe Recurses config changed", {kSet}},
    {"identity/isFedDeployment", "true", "FIPS mode changed", {kSet, "UpdateFedRampMode"}},
    // Letter case counts for the trusted server and its fingerprint.
    {"orgConfig/swgTrustedServer", R"("Trusted.swg.test")", "SWG trusted server config changed", {kSet, kBackoff}},
    {"orgConfig/swgTrustedServerPort", "9443", "SWG trusted server port changed", {kSet, kBackoff}},
    {"orgConfig/swgTrustedServerFingerprint", R"("ab:cd")", "SWG trusted server fingerprint changed", {kSet, kBackoff}},
};
// clang-format on

// Guards each compared field: seen, logged with its text, stored whole, exactly its consequences.
TEST_F(ConfigReloadTest, EachFieldChangeIsLoggedStoredAndActedOn) {
    for (const FieldCase& c : kFieldCases) {
        SCOPED_TRACE(c.path);
        const std::string config = EditConfig(FullConfig(), c.path, c.value);
        EXPECT_EQ(ReloadWith(config), c.calls);
        EXPECT_EQ(ChangeLines(), Texts{std::string(c.line) + "\n"});
        EXPECT_TRUE(ReloadWith(config).empty()) << "the changed record was not stored whole";
        ASSERT_TRUE(Preload(FullConfig()));
    }
}

// Guards the order of the consequences, once each, past a failed restart; the full trace mask.
TEST_F(ConfigReloadTest, ConsequencesRunOnceEachInTheirOrder) {
    ASSERT_TRUE(Preload(EditConfig(FullConfig(), "orgConfig/logLevel", R"("0")")));
    m_agent.restartResult = false;
    std::string config = FullConfig();
    config = EditConfig(config, "identity/isFedDeployment", "true");
    config = EditConfig(config, "vpnDetails/tnd", R"("untrusted")");
    config = EditConfig(config, "orgConfig/swgDomain", R"("gw2.swg.test")");
    config = EditConfig(config, "orgConfig/exceptionList", "[]");
    config = EditConfig(config, "orgConfig/inclusionList", "[]");
    config = EditConfig(config, "orgConfig/swgHonorTND", R"("0")");
    const Texts expected = {"ChangeDebugLevel:0x1fff", kSet, kRestart, kBackoff, kTower, kStateFile,
                            "UpdateFedRampMode"};
    EXPECT_EQ(ReloadWith(config), expected);
    const Texts lines = {
        "strSWGDomain changed\n",       "strInclusionList changed\n", "strExceptionList changed\n",
        "swgHonorTND config changed\n", "loglevel config changed\n",  "VPN TND value changed\n",
        "FIPS mode changed\n",
    };
    EXPECT_EQ(ChangeLines(), lines);
    EXPECT_EQ(
        m_capture.LinesWith("UpdateCurrentConfig: inclusons/exceptions/listenports changed").size(),
        1u);
    const auto failures = m_capture.LinesWith("UpdateCurrentConfig: Failed to restart KDF");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].priority, LOG_ERR);
}

// Guards list case, key id and IPv6 switch as no change alone, carried along with a real one.
TEST_F(ConfigReloadTest, KeyIdAndIPv6SwitchAloneAreNoChange) {
    EXPECT_TRUE(ReloadWith(EditConfig(FullConfig(), "orgConfig/exceptionList",
                                      R"(["198.18.1.0/24","*.LOCAL"])"))
                    .empty());
    const std::string newKeyId = EditConfig(FullConfig(), "commonConfig/rsaPubKeyId", R"("key-2")");
    m_folder.Write("SWGConfigOverride.json", R"({"IPv6Enabled":true})");
    EXPECT_TRUE(ReloadWith(newKeyId).empty());
    EXPECT_EQ(m_agent.GetOrgInfo().strpKeyId, "key-1");
    EXPECT_FALSE(m_agent.GetOrgInfo().bIPv6Enabled);

    EXPECT_EQ(ReloadWith(EditConfig(newKeyId, "orgConfig/failOpen", R"("1")")), Texts{kSet});
    EXPECT_EQ(m_agent.GetOrgInfo().strpKeyId, "key-2");
    EXPECT_TRUE(m_agent.GetOrgInfo().bIPv6Enabled);
}

}  // namespace
