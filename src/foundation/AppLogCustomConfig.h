// SPDX-License-Identifier: Apache-2.0
// Per-component debug levels of the application log, read from debuglogconfig.json.
#pragma once

#include <map>
#include <string>

// Components that may carry their own debug level. The numbers are fixed; 14 and 15
// are not in use.
enum CUST_LOG_COMPONENT : int {
    CUST_LOG_VPN_IPSEC_IKEV2 = 1,
    CUST_LOG_VPN_STRAP = 2,
    CUST_LOG_VPN_DTLS_MTU = 3,
    CUST_LOG_VPN_ANDROID_ANI = 4,
    CUST_LOG_VPN_PBR = 5,
    CUST_LOG_TARNWALL_CONFIG = 6,
    CUST_LOG_VPN_NETWORK_ENV = 7,
    CUST_LOG_VPN_CURL = 8,
    CUST_LOG_VPN_SAML = 9,
    CUST_LOG_VPN_STATE = 10,
    CUST_LOG_WEB_HELPER = 11,
    CUST_LOG_LM_LOCAL_POLICY = 12,
    CUST_LOG_VPN_API = 13,
    CUST_LOG_LM_PROFILES = 16,
    CUST_LOG_SHARED_ACCESS_LOCK = 17,
    CUST_LOG_VPN_PROXY = 18,
    CUST_LOG_FILE_WATCHER = 19,
    CUST_LOG_VPN_DOWNLOADER = 20,
    CUST_LOG_VPN_IPC = 21,
    CUST_LOG_VIRTUAL_ADAPTER_MGR = 22,
    CUST_LOG_VIRTUAL_ADAPTER_HOSTBNDQ = 23,
    CUST_LOG_VIRTUAL_ADAPTER_NTWKBNDQ = 24,
    CUST_LOG_VPN_PLAP = 25,
    CUST_LOG_CERTIFICATE = 26,
};

// Debug levels of a component: 0 is off, 3 the most detail.
enum CUST_LOG_LEVEL : int {
    CUST_LOG_LEVEL_OFF = 0,
    CUST_LOG_LEVEL_LOW = 1,
    CUST_LOG_LEVEL_MEDIUM = 2,
    CUST_LOG_LEVEL_HIGH = 3,
};

// Holds the component names, their default levels and the levels in force. Not
// thread-safe on its own: CAppLog owns the one instance and reaches it under its lock.
class CAppLogCustomConfig {
public:
    struct COMPONENT_ROW {
        const char* name;
        CUST_LOG_COMPONENT component;
        CUST_LOG_LEVEL defaultLevel;
    };
    static constexpr int kComponentCount = 24;
    static const COMPONENT_ROW sm_componentsList[kComponentCount];

    // Fills the name and default maps from sm_componentsList; the map in force stays
    // empty until initConfigurationMap.
    CAppLogCustomConfig();

    // Loads the levels in force once: later calls do nothing. Logs what it found through
    // CAppLog; on any failure the defaults stand. Never fails upwards.
    void initConfigurationMap();

    // Copies the defaults in force, then applies the file. Returns 0 (also for an empty
    // file), 0xFEDE000A/B/C as getConfigurationFileContents, or 0x80004005 when the
    // file is not valid JSON. Entries with an unknown name or a value outside 0-3 are
    // logged and do not fail the load.
    long loadConfigurationFromFile();

    // Reads the whole file into `contents`. Returns 0, 0xFEDE000C when there is no file,
    // 0xFEDE000B when it cannot be opened or fails the trust check of OpenTrustedFile
    // (the refusal is written to the system log), 0xFEDE000A when reading it fails.
    static long getConfigurationFileContents(std::string& contents);

    // GetAllUsersAppDataPath() + "/trevo/trevoclient/debuglogconfig.json".
    static std::string getConfigurationFilePath();

    // The level in force for `component`; 0 for an unknown one.
    CUST_LOG_LEVEL GetLevel(CUST_LOG_COMPONENT component) const;
    // The name of `component`; "" for an unknown one.
    std::string GetName(CUST_LOG_COMPONENT component) const;

private:
    void applyJson(const std::string& contents);
    std::string describeLevels() const;

    std::map<std::string, CUST_LOG_COMPONENT> m_nameToComponent;
    std::map<CUST_LOG_COMPONENT, std::string> m_componentToName;
    std::map<CUST_LOG_COMPONENT, CUST_LOG_LEVEL> m_defaultLevels;
    std::map<CUST_LOG_COMPONENT, CUST_LOG_LEVEL> m_levels;  // in force
};
