// SPDX-License-Identifier: Apache-2.0
// Reads debuglogconfig.json into the per-component levels of the application log.
#include "foundation/AppLogCustomConfig.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <utility>

#include <boost/optional.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include "foundation/AppLog.h"
#include "foundation/DirectSyslog.h"
#include "foundation/GlobalConst.h"
#include "foundation/GlobalUtils.h"
#include "foundation/TrustedFile.h"
#include "foundation/UniqueFd.h"

#define CUSTOM_CONFIG_LOG(importance, ...) \
    CAppLog::LogDebugMessage(__func__, __FILE__, __LINE__, importance, __VA_ARGS__)

namespace {
constexpr Logging::DebugImportance kInfo = Logging::kImportanceInfo;
constexpr Logging::DebugImportance kError = Logging::kImportanceError;
}  // namespace

const CAppLogCustomConfig::COMPONENT_ROW
    CAppLogCustomConfig::sm_componentsList[CAppLogCustomConfig::kComponentCount] = {
        {"vpn_ipsec_ikev2", CUST_LOG_VPN_IPSEC_IKEV2, CUST_LOG_LEVEL_OFF},
        {"vpn_strap", CUST_LOG_VPN_STRAP, CUST_LOG_LEVEL_OFF},
        {"vpn_dtls_mtu", CUST_LOG_VPN_DTLS_MTU, CUST_LOG_LEVEL_OFF},
        {"vpn_android_ani", CUST_LOG_VPN_ANDROID_ANI, CUST_LOG_LEVEL_OFF},
        {"vpn_pbr", CUST_LOG_VPN_PBR, CUST_LOG_LEVEL_OFF},
        {"tarnwall_config", CUST_LOG_TARNWALL_CONFIG, CUST_LOG_LEVEL_OFF},
        {"vpn_network_env", CUST_LOG_VPN_NETWORK_ENV, CUST_LOG_LEVEL_OFF},
        {"vpn_curl", CUST_LOG_VPN_CURL, CUST_LOG_LEVEL_OFF},
        {"vpn_saml", CUST_LOG_VPN_SAML, CUST_LOG_LEVEL_OFF},
        {"vpn_state", CUST_LOG_VPN_STATE, CUST_LOG_LEVEL_OFF},
        {"web_helper", CUST_LOG_WEB_HELPER, CUST_LOG_LEVEL_OFF},
        {"lm_local_policy", CUST_LOG_LM_LOCAL_POLICY, CUST_LOG_LEVEL_OFF},
        {"vpn_api", CUST_LOG_VPN_API, CUST_LOG_LEVEL_OFF},
        {"lm_profiles", CUST_LOG_LM_PROFILES, CUST_LOG_LEVEL_OFF},
        {"shared_access_lock", CUST_LOG_SHARED_ACCESS_LOCK, CUST_LOG_LEVEL_OFF},
        {"vpn_proxy", CUST_LOG_VPN_PROXY, CUST_LOG_LEVEL_OFF},
        {"file_watcher", CUST_LOG_FILE_WATCHER, CUST_LOG_LEVEL_OFF},
        {"vpn_downloader", CUST_LOG_VPN_DOWNLOADER, CUST_LOG_LEVEL_OFF},
        {"vpn_ipc", CUST_LOG_VPN_IPC, CUST_LOG_LEVEL_OFF},
        {"virtual_adapter_mgr", CUST_LOG_VIRTUAL_ADAPTER_MGR, CUST_LOG_LEVEL_OFF},
        {"virtual_adapter_hostbndq", CUST_LOG_VIRTUAL_ADAPTER_HOSTBNDQ, CUST_LOG_LEVEL_OFF},
        {"virtual_adapter_ntwkbndq", CUST_LOG_VIRTUAL_ADAPTER_NTWKBNDQ, CUST_LOG_LEVEL_OFF},
        {"vpn_plap", CUST_LOG_VPN_PLAP, CUST_LOG_LEVEL_OFF},
        {"certificate", CUST_LOG_CERTIFICATE, CUST_LOG_LEVEL_OFF},
};

CAppLogCustomConfig::CAppLogCustomConfig() {
    for (const COMPONENT_ROW& row : sm_componentsList) {
        m_nameToComponent[row.name] = row.component;
        m_componentToName[row.component] = row.name;
        m_defaultLevels[row.component] = row.defaultLevel;
    }
}

std::string CAppLogCustomConfig::getConfigurationFilePath() {
    std::string root;
    GetAllUsersAppDataPath(root);
    return root + "/trevo/trevoclient/debuglogconfig.json";
}

long CAppLogCustomConfig::getConfigurationFileContents(std::string& contents) {
    contents.clear();
    const std::string path = getConfigurationFilePath();
    if (!DoesFileExist(path)) return SWG_E_LOGCFG_NOT_PRESENT;
    std::string root;
    GetAllUsersAppDataPath(root);
    TrustedOpen opened = OpenTrustedFile(path, root);
    if (opened.result == TrustedOpenResult::Untrusted) {
        // Straight to the system log: the application log may have no logger.
        SwgSyslog(LOG_ERR, "%s", TrustRefusalLine(path, opened).c_str());
    }
    if (opened.result != TrustedOpenResult::Opened) return SWG_E_LOGCFG_OPEN_FAILED;
    // POSIX calls rather than a stream: a stream cannot tell a failed read (EISDIR,
    // EIO) from an empty file, and those two must give different results.
    const CUniqueFd file(std::move(opened.fd));
    char block[4096];
    for (;;) {
        const ssize_t got = read(file.Get(), block, sizeof(block));
        if (got == 0) break;
        if (got < 0) {
            if (errno == EINTR) continue;
            contents.clear();
            return SWG_E_LOGCFG_NOT_READABLE;
        }
        contents.append(block, static_cast<std::size_t>(got));
    }
    return 0;
}

long CAppLogCustomConfig::loadConfigurationFromFile() {
    m_levels = m_defaultLevels;
    std::string contents;
    const long result = getConfigurationFileContents(contents);
    if (result == SWG_E_LOGCFG_NOT_PRESENT) {
        CUSTOM_CONFIG_LOG(
            kInfo, "Custom debug logging is disabled. Configuration json file is not present.");
        return result;
    }
    if (result == SWG_E_LOGCFG_NOT_READABLE) {
        CUSTOM_CONFIG_LOG(kError,
                          "The configuration file for customizing debug logs is empty or is not "
                          "readable.");
        return result;
    }
    if (result == SWG_E_LOGCFG_OPEN_FAILED) {
        CUSTOM_CONFIG_LOG(kError,
                          "Unable to open the configuration file for customizing debug logs.");
        return result;
    }
    if (contents.empty()) return 0;
    try {
        applyJson(contents);
    } catch (const std::exception& e) {
        CUSTOM_CONFIG_LOG(kError, "Failed to parse configuration file (%s).", e.what());
        return SWG_E_FAIL;
    }
    return 0;
}

void CAppLogCustomConfig::applyJson(const std::string& contents) {
    std::istringstream stream(contents);
    boost::property_tree::ptree tree;
    boost::property_tree::read_json(stream, tree);
    for (const auto& entry : tree) {
        const auto found = m_nameToComponent.find(entry.first);
        if (found == m_nameToComponent.end()) {
            CUSTOM_CONFIG_LOG(kInfo, "Skipping entry because of unknown component: %s.",
                              entry.first.c_str());
            continue;
        }
        const boost::optional<int> value = entry.second.get_value_optional<int>();
        if (!value || *value < CUST_LOG_LEVEL_OFF || *value > CUST_LOG_LEVEL_HIGH ||
            !entry.second.empty()) {
            CUSTOM_CONFIG_LOG(kError,
                              "Unexpected value for component \"%s\". Default value will be used.",
                              entry.first.c_str());
            m_levels[found->second] = m_defaultLevels[found->second];
            continue;
        }
        m_levels[found->second] = static_cast<CUST_LOG_LEVEL>(*value);
    }
}

std::string CAppLogCustomConfig::describeLevels() const {
    std::string text;
    for (const auto& level : m_levels) {
        text += GetName(level.first) + " : " + std::to_string(level.second) + "\n";
    }
    return text;
}

void CAppLogCustomConfig::initConfigurationMap() {
    if (!m_levels.empty()) return;
    const long result = loadConfigurationFromFile();
    if (result == 0) {
        CUSTOM_CONFIG_LOG(kInfo, "Custom debug log configuration file found:\n%s",
                          describeLevels().c_str());
        return;
    }
    if (result != SWG_E_LOGCFG_NOT_PRESENT) {
        CAppLog::LogReturnCode(__func__, __FILE__, __LINE__, kError, "loadConfigurationFromFile",
                               result, result == SWG_E_FAIL ? "invalid JSON" : nullptr,
                               "Custom debug log levels stay at their defaults.");
    }
    m_levels = m_defaultLevels;
}

CUST_LOG_LEVEL CAppLogCustomConfig::GetLevel(CUST_LOG_COMPONENT component) const {
    const auto found = m_levels.find(component);
    return found != m_levels.end() ? found->second : CUST_LOG_LEVEL_OFF;
}

std::string CAppLogCustomConfig::GetName(CUST_LOG_COMPONENT component) const {
    const auto found = m_componentToName.find(component);
    return found != m_componentToName.end() ? found->second : "";
}
