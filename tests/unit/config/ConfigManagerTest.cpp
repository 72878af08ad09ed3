// SPDX-License-Identifier: Apache-2.0
// The reload of CConfigManager: which field changes are seen, how they are logged, what is
// stored and which consequences run in which order. Run on the test's thread, no watch.
#include <gtest/gtest.h>
#include <syslog.h>

#include <ostream>
#include <string>
#include <vector>

#include "ConfigTestSupport.h"
#include "config/ConfigManager.h"
#include "foundation/SSFileTrace.h"
#include "foundation/Trace.h"
#include "support/SyslogCapture.h"

namespace {
using config_test::EditConfig;
using config_test::FullConfig;
using Calls = std::vector<std::string>;

class ConfigReloadTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_trace.Initialize("tsc_swgagent", "/", "swg.log", 0, TRACE_MASK_DEBUG, true, true, 10,
                           10000, 100, 1, 0, 60);
        g_pTraceObject = &m_trace;
        m_folder.Write("SWGConfig.json", FullConfig());
        ASSERT_TRUE(m_agent.Preload(m_folder.Path()));
    }
    void TearDown() override { g_pTraceObject = nullptr; }

    // Writes `config`, reloads once and returns what the reload asked of the agent.
    Calls ReloadWith(const std::string& config) {
        m_folder.Write("SWGConfig.json", config);
        m_agent.ClearCalls();
        m_capture.Clear();
        m_manager.updateCurrentConfig();
        return m_agent.Calls();
    }
    // The "... changed" lines of the last reload, without their common prefix.
    std::vector<std::string> ChangeLines() const {
        std::vector<std::string> lines;
        for (const auto& line : m_capture.LinesWith("UpdateCurrentConfig: ")) {
            if (line.text.find(" changed\n") == std::string::npos) continue;
            if (line.text.find("reinit kdf") != std::string::npos) continue;
            lines.push_back(line.text.substr(line.text.find(": ") + 2));
        }
        return lines;
    }

    swg_test::SyslogCapture m_capture;
    CSSFileTrace m_trace;
    config_test::TempFolder m_folder;
    config_test::RecordingAgent m_agent;
    CConfigManager m_manager{m_agent, m_folder.Path(), 50};
};

struct FieldCase {
    const char* path;   // key in the file
    const char* value;  // new JSON value
    const char* line;   // text after "UpdateCurrentConfig: ", line end excluded
    Calls calls;        // after SetOrgInfo
};

const FieldCase kFieldCases[] = {
    {"identity/deviceId", R"("dev-2")", "Device id changed", {}},
    {"commonConfig/swgHosts", R"("host2.swg.test")", "strHostname changed", {"SetActiveTowerName"}},
    {"orgConfig/swgAnycast", R"("198.18.0.8")", "strSWGAnycast changed", {"SetActiveTowerName"}},
    {"orgConfig/swgAnycastList/v4",
     R"(["198.18.0.11","198.18.0.10"])",
     "qstrSWGAnycastListV4 changed",
     {"SetActiveTowerName"}},
    {"orgConfig/swgAnycastList/v6",
     R"(["2001:db8::10","2001:db8::11"])",
     "qstrSWGAnycastListV6 changed",
     {"SetActiveTowerName"}},
    {"orgConfig/swgDomain",
     R"("gw2.swg.test")",
     "strSWGDomain changed",
     {"SetActiveTowerName", "UpdateSWGStateFile"}},
    {"orgConfig/swgEchoService", R"("http://echo2.swg.test/")", "strSWGEchoService changed", {}},
    {"identity/orgId", R"("org-2")", "strOrgId changed", {}},
    {"commonConfig/rsaPubKey", R"("PEM-2")", "strpKeyPem changed", {}},
    {"identity/adUserId", R"("user-2")", "strPstrUserId changed", {}},
    {"orgConfig/inclusionList",
     R"(["198.18.2.0/24"])",
     "strInclusionList changed",
     {"RestartKDF:0", "UpdateSWGStateFile"}},
    {"orgConfig/exceptionList",
     R"(["198.18.1.0/24"])",
     "strExceptionList changed",
     {"RestartKDF:0", "UpdateSWGStateFile"}},
    {"orgConfig/webTrafficMonitorPorts",
     R"(["8080","8443"])",
     "strWebTrafficMonitorPortList changed",
     {"RestartKDF:0"}},
    {"deviceConfig/autotuning", R"("0")", "autotuning config changed", {}},
    {"orgConfig/failOpen", R"("1")", "failOpen config changed", {}},
    {"orgConfig/swgHonorTND", R"("0")", "swgHonorTND config changed", {"OnBackoffStateChange"}},
    {"dnsBackoff/dns4/backedOff", "false", "DNSBackOff config changed", {"OnBackoffStateChange"}},
    {"dnsBackoff/dns4/reason", R"("other")", "DNSBackOff Reason changed", {"OnBackoffStateChange"}},
    {"orgConfig/backoffOnLMTrustedNetwork",
     R"("0")",
     "BackoffOnLMTrustedNetwork Config changed",
     {"OnBackoffStateChange"}},
    {"orgConfig/backoffOnLMVpn",
     R"("1")",
     "BackoffOnLMVpn Config changed",
     {"OnBackoffStateChange"}},
    {"orgConfig/backoffOnCustomerTrustedNetwork",
     R"("0")",
     "BackoffOnCustomerTrustedNetwork Config changed",
     {"OnBackoffStateChange"}},
    {"vpnDetails/tnd", R"("untrusted")", "VPN TND value changed", {"OnBackoffStateChange"}},
    {"vpnDetails/network_state", R"("normal")", "VPN NES value changed", {}},
    {"vpnDetails/vpn_ipv4/state",
     R"("disconnected")",
     "Ipv4 VPN State changed",
     {"OnBackoffStateChange"}},
    {"vpnDetails/vpn_ipv4/vpn_type",
     R"("split")",
     "Ipv4 VPN Type changed",
     {"OnBackoffStateChange"}},
    {"vpnDetails/vpn_ipv6/state",
     R"("connected")",
     "Ipv6 VPN State changed",
     {"OnBackoffStateChange"}},
    {"vpnDetails/vpn_ipv6/vpn_type",
     R"("tunnel_all")",
     "Ipv6 VPN Type changed",
     {"OnBackoffStateChange"}},
    {"customerTrustedNetwork/customerNetworkProbeDomain",
     R"("probe2.swg.test")",
     " Customer Network Probe Domain changed",
     {}},
    {"identity/overlayUser", R"("ov2")", "Overlay User changed", {}},
    {"customerTrustedNetwork/customerNetworkProbeRecurses",
     "false",
     "Customer Network Probe Recurses config changed",
     {}},
    {"identity/isFedDeployment", "true", "FIPS mode changed", {"UpdateFedRampMode"}},
    {"orgConfig/swgTrustedServer",
     R"("Trusted.swg.test")",
     "SWG trusted server config changed",
     {"OnBackoffStateChange"}},
    {"orgConfig/swgTrustedServerPort",
     "9443",
     "SWG trusted server port changed",
     {"OnBackoffStateChange"}},
    {"orgConfig/swgTrustedServerFingerprint",
     R"("ab:cd")",
     "SWG trusted server fingerprint changed",
     {"OnBackoffStateChange"}},
};

void PrintTo(const FieldCase& c, std::ostream* out) { *out << c.path; }

class ConfigFieldChangeTest : public ConfigReloadTest,
                              public ::testing::WithParamInterface<FieldCase> {};

// Guards each compared field: its change is seen, logged with its own text, stored, and
// calls exactly its consequences; a second reload of the same file then finds nothing.
TEST_P(ConfigFieldChangeTest, ChangeIsLoggedStoredAndActedOn) {
    const FieldCase& c = GetParam();
    Calls expected = {"SetOrgInfo"};
    expected.insert(expected.end(), c.calls.begin(), c.calls.end());
    EXPECT_EQ(ReloadWith(EditConfig(FullConfig(), c.path, c.value)), expected);
    EXPECT_EQ(ChangeLines(), std::vector<std::string>{std::string(c.line) + "\n"});

    m_agent.ClearCalls();
    m_manager.updateCurrentConfig();
    EXPECT_TRUE(m_agent.Calls().empty()) << "the changed record was not stored whole";
}

INSTANTIATE_TEST_SUITE_P(Fields, ConfigFieldChangeTest, ::testing::ValuesIn(kFieldCases),
                         [](const ::testing::TestParamInfo<FieldCase>& param) {
                             std::string name = param.param.path;
                             for (char& c : name) {
                                 if (c == '/') c = '_';
                             }
                             return name;
                         });

// Guards the trace mask switch: done at once during the comparison, before the record is
// stored, with the default mask for "0" and the full mask otherwise.
TEST_F(ConfigReloadTest, LogLevelChangeSwitchesTheMaskInPlace) {
    const std::string defaultLevel = EditConfig(FullConfig(), "orgConfig/logLevel", R"("0")");
    EXPECT_EQ(ReloadWith(defaultLevel), (Calls{"ChangeDebugLevel:0x107", "SetOrgInfo"}));
    EXPECT_EQ(ChangeLines(), std::vector<std::string>{"loglevel config changed\n"});
    EXPECT_EQ(ReloadWith(FullConfig()), (Calls{"ChangeDebugLevel:0x1fff", "SetOrgInfo"}));
}

// Guards the order of the consequences and that each runs once however many fields ask
// for it; the change lines come in the order of the fields.
TEST_F(ConfigReloadTest, ConsequencesRunOnceEachInTheirOrder) {
    std::string config = FullConfig();
    config = EditConfig(config, "identity/isFedDeployment", "true");
    config = EditConfig(config, "vpnDetails/tnd", R"("untrusted")");
    config = EditConfig(config, "orgConfig/swgDomain", R"("gw2.swg.test")");
    config = EditConfig(config, "orgConfig/exceptionList", "[]");
    config = EditConfig(config, "orgConfig/inclusionList", "[]");
    config = EditConfig(config, "orgConfig/swgHonorTND", R"("0")");
    const Calls expected = {"SetOrgInfo",         "RestartKDF:0",       "OnBackoffStateChange",
                            "SetActiveTowerName", "UpdateSWGStateFile", "UpdateFedRampMode"};
    EXPECT_EQ(ReloadWith(config), expected);
    const std::vector<std::string> lines = {
        "strSWGDomain changed\n",       "strInclusionList changed\n", "strExceptionList changed\n",
        "swgHonorTND config changed\n", "VPN TND value changed\n",    "FIPS mode changed\n",
    };
    EXPECT_EQ(ChangeLines(), lines);
    EXPECT_EQ(m_capture
                  .LinesWith("UpdateCurrentConfig: inclusons/exceptions/listenports changed so "
                             "reinit kdf interface")
                  .size(),
              1u);
}

// Guards that a failed redirector restart is logged and the remaining consequences still run.
TEST_F(ConfigReloadTest, FailedRestartIsLoggedAndTheRestGoesOn) {
    m_agent.restartResult = false;
    std::string config = EditConfig(FullConfig(), "orgConfig/webTrafficMonitorPorts", "[]");
    config = EditConfig(config, "orgConfig/backoffOnLMVpn", R"("1")");
    EXPECT_EQ(ReloadWith(config), (Calls{"SetOrgInfo", "RestartKDF:0", "OnBackoffStateChange"}));
    const auto failures = m_capture.LinesWith("UpdateCurrentConfig: Failed to restart KDF");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].priority, LOG_ERR);
}

// Guards the comparison rules: letter case alone is no change, except for the trusted
// server and its fingerprint; the key id and the IPv6 switch are not compared at all.
TEST_F(ConfigReloadTest, WhatCountsAsAChange) {
    EXPECT_TRUE(ReloadWith(FullConfig()).empty()) << "same content";
    EXPECT_TRUE(ReloadWith(EditConfig(FullConfig(), "orgConfig/swgDomain", R"("GATEWAY.swg.test")"))
                    .empty());
    EXPECT_TRUE(ReloadWith(EditConfig(FullConfig(), "orgConfig/exceptionList",
                                      R"(["198.18.1.0/24","*.LOCAL"])"))
                    .empty());
    EXPECT_TRUE(
        ReloadWith(EditConfig(FullConfig(), "commonConfig/rsaPubKeyId", R"("key-2")")).empty());
    m_folder.Write("SWGConfigOverride.json", R"({"IPv6Enabled":true})");
    EXPECT_TRUE(ReloadWith(FullConfig()).empty());
    const OrgInfoRecord inForce = m_agent.GetOrgInfo();
    EXPECT_EQ(inForce.strpKeyId, "key-1");
    EXPECT_FALSE(inForce.bIPv6Enabled);
    EXPECT_EQ(inForce.strSWGDomain, "gateway.swg.test");

    // Carried along once another field differs.
    const Calls calls =
        ReloadWith(EditConfig(FullConfig(), "orgConfig/swgTrustedServer", R"("TRUSTED.swg.test")"));
    EXPECT_EQ(calls, (Calls{"SetOrgInfo", "OnBackoffStateChange"}));
    EXPECT_EQ(m_agent.GetOrgInfo().strTrustedServer, "TRUSTED.swg.test");
    EXPECT_TRUE(m_agent.GetOrgInfo().bIPv6Enabled);
}

// Guards the bad reload: "config_error" goes out with the normal update, the record in
// force stays, and a later good file with the old values finds nothing to do.
TEST_F(ConfigReloadTest, BadFileKeepsTheRecordAndReportsConfigError) {
    const OrgInfoRecord before = m_agent.GetOrgInfo();
    const std::string bad[] = {"{\"identity\":", "[]",
                               EditConfig(FullConfig(), "identity/orgId", nullptr)};
    for (const std::string& text : bad) {
        SCOPED_TRACE(text);
        EXPECT_EQ(ReloadWith(text), Calls{"SendSWGState:config_error:0"});
        EXPECT_EQ(
            m_capture.LinesWith("UpdateCurrentConfig: Failed to load updated config file").size(),
            1u);
    }
    m_folder.Remove("SWGConfig.json");
    m_agent.ClearCalls();
    m_manager.updateCurrentConfig();
    EXPECT_EQ(m_agent.Calls(), Calls{"SendSWGState:config_error:0"});
    EXPECT_EQ(m_agent.GetOrgInfo().strOrgId, before.strOrgId);
    EXPECT_TRUE(ReloadWith(FullConfig()).empty());
}

// Guards the queues' exact comparison: a rotation in force is seen as a change by the next
// reload, which stores the file's order and names the gateway again.
TEST_F(ConfigReloadTest, ReloadUndoesAnAnycastRotation) {
    OrgInfoRecord rotated = m_agent.GetOrgInfo();
    rotated.qstrSWGAnycastListV4.push_back(rotated.qstrSWGAnycastListV4.front());
    rotated.qstrSWGAnycastListV4.pop_front();
    m_agent.SetOrgInfo(rotated);
    EXPECT_EQ(ReloadWith(FullConfig()), (Calls{"SetOrgInfo", "SetActiveTowerName"}));
    EXPECT_EQ(m_agent.GetOrgInfo().qstrSWGAnycastListV4.front(), "198.18.0.10");
}

// Guards the edge where a record was stored by another path first: the reload then finds
// no difference and its consequences, the redirector restart among them, do not happen.
TEST_F(ConfigReloadTest, RecordStoredElsewhereFirstHidesTheChange) {
    const std::string config = EditConfig(FullConfig(), "orgConfig/inclusionList", "[]");
    m_folder.Write("SWGConfig.json", config);
    ASSERT_TRUE(m_agent.Preload(m_folder.Path()));
    EXPECT_TRUE(ReloadWith(config).empty());
}

}  // namespace
