// SPDX-License-Identifier: Apache-2.0
// The key forms of the configuration file and the order in which its keys are read.
#include "config/OrgInfoParser.h"

#include <cjson/cJSON.h>
#include <syslog.h>

#include <memory>
#include <mutex>

#include "foundation/DirectSyslog.h"
#include "foundation/GlobalUtils.h"

namespace {
using JsonTree = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// cJSON records the position of its last parse error in a global that every parse
// writes; the loader runs on several threads.
std::mutex g_parseLock;

JsonTree Parse(const std::string& text) {
    std::lock_guard<std::mutex> hold(g_parseLock);
    return JsonTree(cJSON_ParseWithLength(text.data(), text.size()), cJSON_Delete);
}

// Every loader message goes straight to the system log: the first load runs before the
// trace object exists, and later loads keep the same channel.
void Log(const std::string& text) { SwgSyslog(LOG_ERR, "%s", text.c_str()); }

const cJSON* Item(const cJSON* object, const char* key) {
    return cJSON_GetObjectItemCaseSensitive(object, key);
}

bool HasText(const cJSON* item) { return cJSON_IsString(item) && item->valuestring != nullptr; }

// string: only a JSON string assigns; an empty one assigns empty.
bool ReadString(const cJSON* object, const char* key, std::string& member) {
    const cJSON* item = Item(object, key);
    if (!HasText(item)) return false;
    member = item->valuestring;
    return true;
}

// string flag: a JSON string compared with `word` without regard to case. Returns false
// (member untouched) for anything but a string, JSON booleans included.
bool ReadFlag(const cJSON* item, const char* word, bool& equalsWord) {
    if (!HasText(item)) return false;
    equalsWord = StringNocaseCompare(item->valuestring, word) == 0;
    return true;
}

bool ReadBool(const cJSON* object, const char* key, bool& member) {
    const cJSON* item = Item(object, key);
    if (!cJSON_IsBool(item)) return false;
    member = cJSON_IsTrue(item) != 0;
    return true;
}

// number: cJSON's integer value, which it clamps to the int range.
bool ReadNumber(const cJSON* object, const char* key, int& member) {
    const cJSON* item = Item(object, key);
    if (!cJSON_IsNumber(item)) return false;
    member = item->valueint;
    return true;
}

// joined array: a text element is followed by ";" unless it is the last element; an
// element without text is skipped with no separator of its own.
void ReadJoined(const cJSON* object, const char* key, std::string& member) {
    const cJSON* array = Item(object, key);
    if (!cJSON_IsArray(array)) return;
    const int size = cJSON_GetArraySize(array);
    int index = 0;
    for (const cJSON* element = array->child; element != nullptr; element = element->next) {
        if (HasText(element)) {
            member += element->valuestring;
            if (index != size - 1) member += ";";
        }
        ++index;
    }
}

template <typename Visit>
void ForEachText(const cJSON* array, Visit visit) {
    if (!cJSON_IsArray(array)) return;
    for (const cJSON* element = array->child; element != nullptr; element = element->next) {
        if (HasText(element)) visit(std::string(element->valuestring));
    }
}

void ReadIdentity(const cJSON* identity, OrgInfoRecord& info) {
    if (identity == nullptr) return;
    ReadString(identity, "orgId", info.strOrgId);
    if (!ReadString(identity, "adUserId", info.strPstrUserId)) {
        ReadString(identity, "adUserIdUpn", info.strPstrUserId);
    }
    // A non-empty principal name always beats adUserId.
    const cJSON* upn = Item(identity, "adUserIdUpn");
    if (HasText(upn) && upn->valuestring[0] != '\0') {
        info.strPstrUserId = std::string("H") + upn->valuestring;
    }
    ReadString(identity, "deviceId", info.strDeviceId);
    if (ReadString(identity, "overlayUser", info.strOverlayUser) && !info.strOverlayUser.empty()) {
        info.strOverlayUser = "H" + info.strOverlayUser;
        Log("\nSWG : Overlay user ID : " + info.strOverlayUser);
    }
    if (ReadBool(identity, "isFedDeployment", info.bFedDeployment)) {
        Log(info.bFedDeployment ? "\nSWG : FIPS mode is enabled."
                                : "\nSWG : FIPS mode is disabled");
    }
}

void ReadDeviceConfig(const cJSON* deviceConfig, const cJSON* overrideAutotuning,
                      OrgInfoRecord& info) {
    if (deviceConfig == nullptr) return;
    const cJSON* autotuning =
        overrideAutotuning != nullptr ? overrideAutotuning : Item(deviceConfig, "autotuning");
    bool isZero = false;
    if (!ReadFlag(autotuning, "0", isZero)) return;
    info.bAutotuning = !isZero;
    Log(isZero ? "\nSWG : Send Buffer Autotuning is disabled."
               : "\nSWG : Send Buffer Autotuning is enabled.");
}

void ReadCommonConfig(const cJSON* commonConfig, OrgInfoRecord& info) {
    if (commonConfig == nullptr) return;
    ReadString(commonConfig, "swgHosts", info.strHostname);
    ReadString(commonConfig, "rsaPubKey", info.strpKeyPem);
    ReadString(commonConfig, "rsaPubKeyId", info.strpKeyId);
}

// A flag whose word "1" sets it, with its two messages.
void ReadSetFlag(const cJSON* object, const char* key, bool& member) {
    bool isOne = false;
    if (!ReadFlag(Item(object, key), "1", isOne)) return;
    member = isOne;
    Log(std::string("\nSWG : ") + key + (isOne ? " has been set." : " has not been set."));
}

void ReadOrgPolicy(const cJSON* orgConfig, const cJSON* overrideLogLevel, OrgInfoRecord& info) {
    ReadJoined(orgConfig, "inclusionList", info.strInclusionList);
    ReadJoined(orgConfig, "exceptionList", info.strExceptionList);
    // Ports only grow from "80,443": the organisation can add ports, never remove those.
    ForEachText(Item(orgConfig, "webTrafficMonitorPorts"), [&info](const std::string& port) {
        if (!port.empty()) info.strWebTrafficMonitorPortList += "," + port;
    });
    ReadSetFlag(orgConfig, "swgHonorTND", info.bSwgHonorTND);
    bool isZero = false;
    if (ReadFlag(Item(orgConfig, "failOpen"), "0", isZero)) {
        info.bFailOpen = !isZero;
        Log(isZero ? "\nSWG : Fail close policy has been set."
                   : "\nSWG : Fail open policy has been set.");
    }
    const cJSON* logLevel =
        overrideLogLevel != nullptr ? overrideLogLevel : Item(orgConfig, "logLevel");
    if (ReadFlag(logLevel, "0", isZero)) {
        info.bDefaultLogLevel = isZero;
        Log(isZero ? "\nSWG : default log level has been set."
                   : "\nSWG : max debug log level has been set.");
    }
}

void ReadOrgGateway(const cJSON* orgConfig, OrgInfoRecord& info) {
    ReadString(orgConfig, "swgAnycast", info.strSWGAnycast);
    const cJSON* anycastList = Item(orgConfig, "swgAnycastList");
    if (anycastList != nullptr) {
        ForEachText(Item(anycastList, "v4"), [&info](const std::string& address) {
            info.qstrSWGAnycastListV4.push_back(address);
        });
        ForEachText(Item(anycastList, "v6"), [&info](const std::string& address) {
            info.qstrSWGAnycastListV6.push_back(address);
        });
    }
    ReadString(orgConfig, "swgDomain", info.strSWGDomain);
    ReadString(orgConfig, "swgEchoService", info.strSWGEchoService);
}

void ReadOrgBackoff(const cJSON* orgConfig, OrgInfoRecord& info) {
    ReadSetFlag(orgConfig, "backoffOnLMTrustedNetwork", info.bBackoffOnLMTrustedNetwork);
    ReadSetFlag(orgConfig, "backoffOnLMVpn", info.bBackoffOnLMVpn);
    ReadSetFlag(orgConfig, "backoffOnCustomerTrustedNetwork",
                info.bBackoffOnCustomerTrustedNetwork);
    if (ReadString(orgConfig, "swgTrustedServer", info.strTrustedServer)) {
        Log("\nSWG : Trusted Server is: " + info.strTrustedServer);
    }
    if (ReadNumber(orgConfig, "swgTrustedServerPort", info.nTrustedServerPort)) {
        Log("\nSWG : Trusted Server port is: " + std::to_string(info.nTrustedServerPort));
    }
    if (ReadString(orgConfig, "swgTrustedServerFingerprint", info.strTrustedServerFingerprint)) {
        Log("\nSWG : Trusted Server fingerprint is: " + info.strTrustedServerFingerprint);
    }
}

void ReadOrgConfig(const cJSON* orgConfig, const cJSON* overrideLogLevel, OrgInfoRecord& info) {
    if (orgConfig == nullptr) return;
    ReadOrgPolicy(orgConfig, overrideLogLevel, info);
    ReadOrgGateway(orgConfig, info);
    ReadOrgBackoff(orgConfig, info);
}

void ReadDnsBackoff(const cJSON* dnsBackoff, OrgInfoRecord& info) {
    if (!cJSON_IsObject(dnsBackoff)) return;
    const cJSON* dns4 = Item(dnsBackoff, "dns4");
    if (!cJSON_IsObject(dns4)) return;
    if (ReadBool(dns4, "backedOff", info.bDnsBackoff)) {
        Log(info.bDnsBackoff ? "\nSWG : dnsbackoff is true." : "\nSWG : dnsbackoff is false.");
    }
    if (ReadString(dns4, "reason", info.strDnsBackoffReason)) {
        Log("\nSWG : dnsbackoff reason is: " + info.strDnsBackoffReason);
    }
}

void ReadVpnFamily(const cJSON* vpnDetails, const char* key, const char* family, std::string& state,
                   std::string& type) {
    const cJSON* details = Item(vpnDetails, key);
    if (!cJSON_IsObject(details)) return;
    if (ReadString(details, "state", state)) {
        Log(std::string("\nSWG : ") + family + " VPN State is: " + state);
    }
    if (ReadString(details, "vpn_type", type)) {
        Log(std::string("\nSWG : ") + family + " VPN Type is: " + type);
    }
}

void ReadVpnDetails(const cJSON* vpnDetails, OrgInfoRecord& info) {
    if (!cJSON_IsObject(vpnDetails)) return;
    if (ReadString(vpnDetails, "tnd", info.strVpnTnd)) {
        Log("\nSWG : VPN TND is: " + info.strVpnTnd);
    }
    if (ReadString(vpnDetails, "network_state", info.strVpnNes)) {
        Log("\nSWG : VPN NES is: " + info.strVpnNes);
    }
    ReadVpnFamily(vpnDetails, "vpn_ipv4", "Ipv4", info.strVpnIpv4State, info.strVpnIpv4Type);
    ReadVpnFamily(vpnDetails, "vpn_ipv6", "Ipv6", info.strVpnIpv6State, info.strVpnIpv6Type);
}

void ReadCustomerTrustedNetwork(const cJSON* network, OrgInfoRecord& info) {
    if (!cJSON_IsObject(network)) return;
    if (ReadString(network, "customerNetworkProbeDomain", info.strCustomerNetworkProbeDomain)) {
        Log("\nSWG : CustomerNetworkProbeDomain: " + info.strCustomerNetworkProbeDomain);
    }
    if (ReadBool(network, "customerNetworkProbeRecurses", info.bCustomerNetworkProbeRecurses)) {
        Log(info.bCustomerNetworkProbeRecurses ? "\nSWG : CustomerNetworkProbeRecurses is true."
                                               : "\nSWG : CustomerNetworkProbeRecurses is false.");
    }
}
}  // namespace

bool ParseOrgInfoText(const std::string& configText, const OverrideTextSource& readOverride,
                      OrgInfoRecord& info) {
    const JsonTree root = Parse(configText);
    if (!root) {
        Log("\nSWG : Failed to parse json file");
        return false;
    }
    const JsonTree overrides = Parse(readOverride ? readOverride() : std::string());
    // The override's autotuning and logLevel stand in for the file's own keys, but only
    // where the file has the section that holds them.
    const cJSON* overrideAutotuning = Item(overrides.get(), "autotuning");
    const cJSON* overrideLogLevel = Item(overrides.get(), "logLevel");
    ReadBool(overrides.get(), "IPv6Enabled", info.bIPv6Enabled);

    ReadIdentity(Item(root.get(), "identity"), info);
    ReadDeviceConfig(Item(root.get(), "deviceConfig"), overrideAutotuning, info);
    ReadCommonConfig(Item(root.get(), "commonConfig"), info);
    ReadOrgConfig(Item(root.get(), "orgConfig"), overrideLogLevel, info);
    ReadDnsBackoff(Item(root.get(), "dnsBackoff"), info);
    ReadVpnDetails(Item(root.get(), "vpnDetails"), info);
    ReadCustomerTrustedNetwork(Item(root.get(), "customerTrustedNetwork"), info);
    return true;
}

bool IsOrgInfoValid(const OrgInfoRecord& info) {
    const bool identified = !info.strOrgId.empty() && !info.strDeviceId.empty() &&
                            !info.strpKeyPem.empty() && !info.strpKeyId.empty();
    const bool hasGateway = !info.strSWGAnycast.empty() || !info.qstrSWGAnycastListV4.empty() ||
                            !info.qstrSWGAnycastListV6.empty() || !info.strSWGDomain.empty() ||
                            !info.strHostname.empty();
    if (identified && hasGateway) return true;
    Log("\nSWG: JSON file has few empty values.");
    return false;
}

bool ParseOrgInfo(const std::string& configText, const std::string& overrideText,
                  OrgInfoRecord& info) {
    if (!ParseOrgInfoText(
            configText, [&overrideText] { return overrideText; }, info)) {
        return false;
    }
    return IsOrgInfoValid(info);
}
