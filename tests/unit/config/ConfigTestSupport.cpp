// SPDX-License-Identifier: Apache-2.0
// Helpers of the configuration tests.
#include "ConfigTestSupport.h"

#include <cjson/cJSON.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <thread>

namespace config_test {

TempFolder::TempFolder() {
    char pattern[] = "/tmp/swg-config-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
}

TempFolder::~TempFolder() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(m_path, ignored);
}

void TempFolder::Write(const std::string& name, const std::string& text) const {
    std::ofstream out(PathOf(name), std::ios::binary | std::ios::trunc);
    out << text;
    if (!out.flush()) throw std::runtime_error("cannot write " + name);
}

void TempFolder::Replace(const std::string& name, const std::string& text) const {
    const std::string temporary = name + ".part";
    Write(temporary, text);
    if (std::rename(PathOf(temporary).c_str(), PathOf(name).c_str()) != 0) {
        throw std::runtime_error("cannot rename over " + name);
    }
}

void TempFolder::Remove(const std::string& name) const { std::remove(PathOf(name).c_str()); }

ScopedEnv::ScopedEnv(const char* name, const std::string& value)
    : m_name(name), m_wasSet(getenv(name) != nullptr) {
    if (m_wasSet) m_previous = getenv(name);
    setenv(name, value.c_str(), 1);
}

ScopedEnv::~ScopedEnv() {
    if (m_wasSet) {
        setenv(m_name.c_str(), m_previous.c_str(), 1);
    } else {
        unsetenv(m_name.c_str());
    }
}

std::string FullConfig() {
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

std::string EditConfig(const std::string& json, const std::string& path, const char* value) {
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_Parse(json.c_str()), cJSON_Delete);
    if (!root) throw std::invalid_argument("EditConfig: base is not JSON");
    cJSON* object = root.get();
    std::string rest = path;
    for (std::size_t slash = rest.find('/'); slash != std::string::npos; slash = rest.find('/')) {
        const std::string key = rest.substr(0, slash);
        rest.erase(0, slash + 1);
        cJSON* next = cJSON_GetObjectItemCaseSensitive(object, key.c_str());
        if (next == nullptr) next = cJSON_AddObjectToObject(object, key.c_str());
        object = next;
    }
    cJSON_DeleteItemFromObjectCaseSensitive(object, rest.c_str());
    if (value != nullptr) {
        cJSON* item = cJSON_Parse(value);
        if (item == nullptr) throw std::invalid_argument(std::string("EditConfig: ") + value);
        cJSON_AddItemToObject(object, rest.c_str(), item);
    }
    std::unique_ptr<char, decltype(&std::free)> text(cJSON_Print(root.get()), std::free);
    return text.get();
}

bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return done();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

bool RecordingAgent::LoadOrgInfo(const std::string& folder, OrgInfoRecord& info) {
    const bool loaded = m_agent.LoadOrgInfoFromFolder(folder, info);
    {
        std::lock_guard<std::mutex> hold(m_lock);
        m_loadTimes.push_back(Clock::now());
    }
    m_loaded.notify_all();
    return loaded;
}

OrgInfoRecord RecordingAgent::GetOrgInfo() { return m_agent.GetOrgInfo(); }

void RecordingAgent::SetOrgInfo(const OrgInfoRecord& info) {
    Record("SetOrgInfo");
    m_agent.SetOrgInfo(info);
}

int RecordingAgent::SendSWGState(const std::string& state, int update) {
    Record("SendSWGState:" + state + ":" + std::to_string(update));
    return 0;
}

bool RecordingAgent::RestartKDF(unsigned char reason) {
    Record("RestartKDF:" + std::to_string(reason));
    return restartResult;
}

void RecordingAgent::OnBackoffStateChange() { Record("OnBackoffStateChange"); }
void RecordingAgent::SetActiveTowerName() { Record("SetActiveTowerName"); }

int RecordingAgent::UpdateSWGStateFile() {
    Record("UpdateSWGStateFile");
    return 0;
}

void RecordingAgent::UpdateFedRampMode() { Record("UpdateFedRampMode"); }

void RecordingAgent::ChangeDebugLevel(unsigned int mask) {
    char text[32];
    std::snprintf(text, sizeof(text), "ChangeDebugLevel:0x%x", mask);
    Record(text);
}

bool RecordingAgent::Preload(const std::string& folder) {
    OrgInfoRecord info;
    if (!m_agent.LoadOrgInfoFromFolder(folder, info)) return false;
    m_agent.SetOrgInfo(info);
    return true;
}

std::vector<std::string> RecordingAgent::Calls() const {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_calls;
}

void RecordingAgent::ClearCalls() {
    std::lock_guard<std::mutex> hold(m_lock);
    m_calls.clear();
}

std::size_t RecordingAgent::LoadCount() const {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_loadTimes.size();
}

std::vector<RecordingAgent::Clock::time_point> RecordingAgent::LoadTimes() const {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_loadTimes;
}

bool RecordingAgent::WaitForLoads(std::size_t count, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> hold(m_lock);
    return m_loaded.wait_for(hold, limit, [&] { return m_loadTimes.size() >= count; });
}

void RecordingAgent::Record(const std::string& call) {
    std::lock_guard<std::mutex> hold(m_lock);
    m_calls.push_back(call);
}

}  // namespace config_test
