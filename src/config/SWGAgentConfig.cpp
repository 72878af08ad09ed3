// SPDX-License-Identifier: Apache-2.0
// The agent's side of the configuration: loading, accessors, gateway name, FIPS mode and
// the monitor's start and stop.
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <string>

#include "config/ConfigFiles.h"
#include "config/ConfigManager.h"
#include "config/OrgInfoParser.h"
#include "core/SWGAgent.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Trace.h"

namespace {
std::string LastOpenSslError() {
    char text[512] = {};
    ERR_error_string_n(ERR_get_error(), text, sizeof(text));
    return text;
}

// OpenSSL 3 has no process-wide FIPS switch: FIPS mode is the FIPS provider plus the
// "fips=yes" default property. Without the provider the property alone would make every
// later fetch fail, so a provider that cannot be loaded is the failure.
bool SetProcessFipsMode(bool enable, std::string& error) {
    ERR_clear_error();
    // retain_fallbacks: loading a provider by hand must not drop the default provider
    // that the rest of the process relies on while FIPS mode is off.
    if (enable && OSSL_PROVIDER_try_load(nullptr, "fips", 1) == nullptr) {
        error = LastOpenSslError();
        return false;
    }
    if (EVP_default_properties_enable_fips(nullptr, enable ? 1 : 0) != 1) {
        error = LastOpenSslError();
        return false;
    }
    return true;
}
}  // namespace

CSWGAgent::ORGINFO CSWGAgent::GetOrgInfo() {
    boost::recursive_mutex::scoped_lock lock(m_orgInfoLock);
    return m_orgInfo;
}

void CSWGAgent::SetOrgInfo(const ORGINFO& info) {
    boost::recursive_mutex::scoped_lock lock(m_orgInfoLock);
    m_orgInfo = info;
}

bool CSWGAgent::GetAnycastV6Available() {
    boost::recursive_mutex::scoped_lock lock(m_orgInfoLock);
    return m_bAnycastV6Available;
}

bool CSWGAgent::LoadOrgInfo(ORGINFO& info) {
    std::string folder;
    if (!GetSWGConfigFolder(folder)) return false;
    return LoadOrgInfoFromFolder(folder, info);
}

bool CSWGAgent::LoadOrgInfoFromFolder(const std::string& folder, ORGINFO& info) {
    const std::string path = ConcatenatePath(folder, g_szUpdateConfigFileName, "/");
    if (!DoesFileExist(path)) {
        LogEventEx(("\nSWG: Failed to find config file: '" + path + "'\n").c_str(), 0);
        return false;
    }
    std::string text;
    std::string refusal;
    const ConfigReadResult read = ReadConfigText(path, text, refusal);
    // Treated as a file that cannot be opened: the start ends, a reload keeps the record.
    if (read == ConfigReadResult::Untrusted) LogEventEx(refusal.c_str(), 0);
    if (read == ConfigReadResult::TooLarge) {
        DNTRACE(ERR, "LoadOrgInfo: %s is larger than %zu bytes and was not read", path.c_str(),
                kMaxConfigFileBytes);
    }
    if (read != ConfigReadResult::Read) return false;

    const auto readOverride = [&folder] {
        std::string overrideText;
        ReadSWGCustomConfig(folder, overrideText);
        return overrideText;
    };
    if (!ParseOrgInfoText(text, readOverride, info)) return false;
    {
        // Before validation on purpose: a refused record still moves the flag.
        boost::recursive_mutex::scoped_lock lock(m_orgInfoLock);
        m_bAnycastV6Available = !info.qstrSWGAnycastListV6.empty();
    }
    return IsOrgInfoValid(info);
}

void CSWGAgent::ReadSWGCustomConfig(const std::string& folder, std::string& text) {
    const std::string path = ConcatenatePath(folder, "SWGConfigOverride.json", "/");
    std::string raw;
    std::string refusal;
    const ConfigReadResult read = ReadConfigText(path, raw, refusal);
    if (read == ConfigReadResult::Untrusted) LogEventEx(refusal.c_str(), 0);
    if (read != ConfigReadResult::Read) {
        // The override is optional: this line is normal and repeats on every load.
        LogEventEx("\nSWG : Unable to open the custom config file", 0);
        return;
    }
    // Line by line, each without its newline; a last line without one still counts.
    text.reserve(text.size() + raw.size());
    for (const char c : raw) {
        if (c != '\n') text += c;
    }
}

std::string CSWGAgent::GetSWGProxyName(bool wantIPv6) {
    const ORGINFO info = GetOrgInfo();
    if (!info.strSWGDomain.empty()) return info.strSWGDomain;
    // The flag comes from the last parse, which may have been refused: the queue in
    // force can be empty although the flag is set.
    if (wantIPv6 && GetAnycastV6Available() && !info.qstrSWGAnycastListV6.empty()) {
        return info.qstrSWGAnycastListV6.front();
    }
    if (!info.qstrSWGAnycastListV4.empty()) return info.qstrSWGAnycastListV4.front();
    if (!info.strSWGAnycast.empty()) return info.strSWGAnycast;
    return info.strHostname;
}

void CSWGAgent::UpdateFedRampMode() {
    const bool wanted = GetOrgInfo().bFedDeployment;
    {
        boost::recursive_mutex::scoped_lock lock(m_orgInfoLock);
        if (wanted == m_bFipsModeApplied) return;
    }
    std::string error;
    if (!SetProcessFipsMode(wanted, error)) {
        // m_bFipsModeApplied stays: the next call tries again.
        DNTRACE(ERR, "UpdateFedRampMode: Failed to update the FIPS mode %s", error.c_str());
        return;
    }
    {
        boost::recursive_mutex::scoped_lock lock(m_orgInfoLock);
        m_bFipsModeApplied = wanted;
    }
    DNTRACE(TRACE, "UpdateFedRampMode: Successfully updated FIPS mode");
}

void CSWGAgent::StartConfigMonitor() { g_ConfigManager.StartThread(); }

void CSWGAgent::StopConfigMonitor() { g_ConfigManager.StopMonitorThread(); }
