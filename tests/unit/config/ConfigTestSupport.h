// SPDX-License-Identifier: Apache-2.0
// Helpers of the configuration tests: a temporary folder, configuration texts and an agent
// that records what the configuration monitor asks of it.
#pragma once

#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "config/ConfigAgent.h"
#include "core/SWGAgent.h"
#include "foundation/SSFileTrace.h"
#include "foundation/Trace.h"
#include "support/FakeClock.h"
#include "support/FakeFileWatch.h"
#include "support/SyslogCapture.h"
#include "support/TempFolder.h"

namespace config_test {

// A valid configuration with every key of the format set to a value other than its default.
inline std::string FullConfig() {
    return R"({
  "identity": {"orgId": "org-1", "adUserId": "user-1", "deviceId": "dev-1",
               "overlayUser": "ov", "isFedDeployment": false},
  "deviceConfig": {"autotuning": "1"},
  "commonConfig": {"swgHosts": "host.swg.test", "rsaPubKey": "PEM-1", "rsaPubKeyId": "key-1"},
  "orgConfig": {
    "inclusionList": ["198.18.0.0/24"],
    "exceptionList": ["198.18.1.0/24", "*.local"],
    "webTrafficMonitorPorts": ["8080"],
    "swgHonorTND": "1", "failOpen": "0", "logLevel": "1",
    "swgAnycast": "198.18.0.9",
    "swgAnycastList": {"v4": ["198.18.0.10", "198.18.0.11"], "v6": ["2001:db8::10"]},
    "swgDomain": "gateway.swg.test",
    "swgEchoService": "http://echo.swg.test/echo",
    "backoffOnLMTrustedNetwork": "1", "backoffOnLMVpn": "0",
    "backoffOnCustomerTrustedNetwork": "1",
    "swgTrustedServer": "trusted.swg.test", "swgTrustedServerPort": 8443,
    "swgTrustedServerFingerprint": "AB:CD"
  },
  "dnsBackoff": {"dns4": {"backedOff": true, "reason": "probe"}},
  "vpnDetails": {"tnd": "trusted", "network_state": "captive_portal_detected",
                 "vpn_ipv4": {"state": "connected", "vpn_type": "tunnel_all"},
                 "vpn_ipv6": {"state": "disconnected", "vpn_type": "split"}},
  "customerTrustedNetwork": {"customerNetworkProbeDomain": "probe.swg.test",
                             "customerNetworkProbeRecurses": true}
})";
}

// `json` with the value at `path` ("orgConfig/swgDomain") replaced by the JSON text
// `value`, creating objects on the way; a null `value` removes the key.
inline std::string EditConfig(const std::string& json, const std::string& path, const char* value) {
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_Parse(json.c_str()), cJSON_Delete);
    if (!root) throw std::invalid_argument("EditConfig: base is not JSON");
    cJSON* object = root.get();
    std::string rest = path;
    for (std::size_t slash = rest.find('/'); slash != std::string::npos; slash = rest.find('/')) {
        const std::string key = rest.substr(0, slash);
        rest.erase(0, slash + 1);
        cJSON* next = cJSON_GetObjectItemCaseSensitive(object, key.c_str());
        object = next != nullptr ? next : cJSON_AddObjectToObject(object, key.c_str());
    }
    cJSON_DeleteItemFromObjectCaseSensitive(object, rest.c_str());
    if (value != nullptr) {
        cJSON* item = cJSON_Parse(value);
        if (item == nullptr) throw std::invalid_argument(std::string("EditConfig: ") + value);
        cJSON_AddItemToObject(object, rest.c_str(), item);
    }
    std::unique_ptr<char, decltype(&free)> text(cJSON_Print(root.get()), free);
    return text.get();
}

// Loads and holds the record in a real CSWGAgent; records every other request as a word
// ("SetOrgInfo", "RestartKDF:0", "SendSWGState:config_error:0", "ChangeDebugLevel:0x107",
// ...) in call order. Any thread.
class RecordingAgent : public IConfigAgent {
public:
    bool LoadOrgInfo(const std::string& folder, OrgInfoRecord& info) override {
        return m_agent.LoadOrgInfoFromFolder(folder, info);
    }
    OrgInfoRecord GetOrgInfo() override { return m_agent.GetOrgInfo(); }
    void SetOrgInfo(const OrgInfoRecord& info) override {
        Record("SetOrgInfo");
        m_agent.SetOrgInfo(info);
    }
    int SendSWGState(const std::string& state, eSWGStateUpdate update) override {
        Record("SendSWGState:" + state + ":" + std::to_string(update));
        return 0;
    }
    bool RestartKDF(unsigned char reason) override {
        Record("RestartKDF:" + std::to_string(reason));
        return restartResult;
    }
    void OnBackoffStateChange() override { Record("OnBackoffStateChange"); }
    void SetActiveTowerName() override { Record("SetActiveTowerName"); }
    int UpdateSWGStateFile() override {
        Record("UpdateSWGStateFile");
        return 0;
    }
    void UpdateFedRampMode() override { Record("UpdateFedRampMode"); }
    void ChangeDebugLevel(unsigned int mask) override {
        char text[32];
        std::snprintf(text, sizeof(text), "ChangeDebugLevel:0x%x", mask);
        Record(text);
    }

    // Loads `folder` into the agent's record as the agent's Init does, without recording.
    bool Preload(const std::string& folder) {
        OrgInfoRecord info;
        if (!m_agent.LoadOrgInfoFromFolder(folder, info)) return false;
        m_agent.SetOrgInfo(info);
        return true;
    }
    std::vector<std::string> Calls() const {
        std::lock_guard<std::mutex> hold(m_lock);
        return m_calls;
    }
    void ClearCalls() {
        std::lock_guard<std::mutex> hold(m_lock);
        m_calls.clear();
    }

    bool restartResult = true;  // what RestartKDF answers

private:
    void Record(const std::string& call) {
        std::lock_guard<std::mutex> hold(m_lock);
        m_calls.push_back(call);
    }

    CSWGAgent m_agent;
    mutable std::mutex m_lock;
    std::vector<std::string> m_calls;
};

// The configuration monitor's world: a trace object installed with every level on (its
// lines captured), a temporary folder, a recording agent, a fake clock and file watch.
class MonitorFixture : public ::testing::Test {
protected:
    void SetUp() override {
        m_trace.Initialize("tsc_swgagent", "/", "swg.log", 0, TRACE_MASK_DEBUG, true, true, 10,
                           10000, 100, 1, 0, 60);
        g_pTraceObject = &m_trace;
    }
    void TearDown() override { g_pTraceObject = nullptr; }

    swg_test::SyslogCapture m_capture;
    CSSFileTrace m_trace;
    swg_test::TempFolder m_folder;
    RecordingAgent m_agent;
    swg_test::FakeClock m_clock;
    swg_test::FakeFileWatch m_watch{m_clock};
};

}  // namespace config_test
