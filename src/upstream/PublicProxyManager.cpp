// SPDX-License-Identifier: Apache-2.0
// The system proxy manager: its reference count, its key and ProxyIfc, and the settings
// reader.
#include "upstream/PublicProxyManager.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>

#include "foundation/GlobalUtils.h"
#include "foundation/Trace.h"
#include "foundation/crypto/SingletonObfuscationMgr.h"
#include "platform/SystemProxySettings.h"
#include "upstream/ProxyIfc.h"
#include "upstream/ProxyInfo.h"

PublicProxyManager* PublicProxyManager::sm_pPublicProxyManagerInstance = nullptr;
unsigned int PublicProxyManager::sm_uiAcquisitionCount = 0;
CCSLock PublicProxyManager::m_Lock;

namespace {
enum class KeyRead { Absent, Unreadable, Read };

// A key of the settings as a 32-bit number: decimal digits with an optional sign, nothing
// else.
KeyRead ReadNumber(const ProxySettingsDictionary& settings, const char* key, std::int32_t& value) {
    const auto found = settings.find(key);
    if (found == settings.end()) return KeyRead::Absent;
    const std::string& text = found->second;
    if (text.empty()) return KeyRead::Unreadable;
    char* end = nullptr;
    errno = 0;
    const long long number = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || number < INT32_MIN || number > INT32_MAX ||
        std::isspace(static_cast<unsigned char>(text[0]))) {
        return KeyRead::Unreadable;
    }
    value = static_cast<std::int32_t>(number);
    return KeyRead::Read;
}
}  // namespace

// ---- reference count -----------------------------------------------------------------------

PublicProxyManager* PublicProxyManager::AcquireSingletonInstance() {
    std::lock_guard<CCSLock> hold(m_Lock);
    if (sm_pPublicProxyManagerInstance == nullptr) {
        sm_pPublicProxyManagerInstance =
            new (std::nothrow) PublicProxyManager(SystemProxySettings());
        if (sm_pPublicProxyManagerInstance == nullptr) return nullptr;
    }
    ++sm_uiAcquisitionCount;
    return sm_pPublicProxyManagerInstance;
}

void PublicProxyManager::ReleaseSingletonInstance(PublicProxyManager* instance) {
    PublicProxyManager* doomed = nullptr;
    {
        std::lock_guard<CCSLock> hold(m_Lock);
        if (instance == nullptr || instance != sm_pPublicProxyManagerInstance) return;
        if (--sm_uiAcquisitionCount == 0) {
            doomed = sm_pPublicProxyManagerInstance;
            sm_pPublicProxyManagerInstance = nullptr;
        }
    }
    delete doomed;
}

// ---- construction --------------------------------------------------------------------------

PublicProxyManager::PublicProxyManager(ISystemProxySettings& settings) : m_settings(settings) {
    createProxyIfcObj();
}

PublicProxyManager::~PublicProxyManager() {
    // The ProxyIfc's CDataCrypt holds a reference to the key manager: it goes first.
    delete m_pProxyIfc;
    releaseObfuscationInstance();
}

void PublicProxyManager::createProxyIfcObj() {
    if (m_pProxyIfc != nullptr) return;
    if (!createObfuscationInstance()) return;
    if (!generateSymmetricKey()) {
        releaseObfuscationInstance();
        return;
    }
    m_pProxyIfc = new (std::nothrow) ProxyIfc(ProxyTypePlain, false);
    if (m_pProxyIfc == nullptr) DNTRACE(ERR, "PublicProxyMgr : ProxyIfc, System Out Of Memory");
}

bool PublicProxyManager::createObfuscationInstance() {
    const long result =
        CSingletonObfuscationMgr::createSingletonInstance(m_pObfuscationMgr, nullptr, 0, false);
    if (result == 0) return true;
    DNTRACE(ERR, "CSingletonObfuscationMgr::createSingletonInstance %d", static_cast<int>(result));
    m_pObfuscationMgr = nullptr;
    return false;
}

bool PublicProxyManager::generateSymmetricKey() {
    std::uint32_t keyRef = kNewestKeyRef;
    const long result = m_pObfuscationMgr->GenerateSymmetricKey(keyRef);
    if (result == 0) return true;
    DNTRACE(ERR, "CSingletonObfuscationMgr::GenerateSymmetricKey %d", static_cast<int>(result));
    return false;
}

void PublicProxyManager::releaseObfuscationInstance() {
    CSingletonObfuscationMgr::releaseInstance(m_pObfuscationMgr);
    m_pObfuscationMgr = nullptr;
}

// ---- operations ----------------------------------------------------------------------------

int PublicProxyManager::ObtainProxySettings(std::string& host, int& port) {
    const ProxySettingsDictionary settings = m_settings.CopyProxies();
    std::int32_t enabled = 0;
    if (ReadNumber(settings, "HTTPSEnable", enabled) != KeyRead::Read) return -1;
    if (enabled == 0) {
        DNTRACE(TRACE, "PublicProxyMgr : HTTPS Proxy is not enabled");
        return -1;
    }
    const auto proxy = settings.find("HTTPSProxy");
    if (proxy == settings.end()) return -1;
    host = proxy->second;
    // A proxy given by name counts as no proxy at all.
    if (!IsIPAddress(host)) {
        DNTRACE(TRACE, "PublicProxyMgr : Proxy string is not an IP address %s", host.c_str());
        return -1;
    }
    DNTRACE(TRACE, "PublicProxyMgr : Proxy string is an IP address %s", host.c_str());
    DNTRACE(TRACE, "PublicProxyMgr : Proxy string is %s", host.c_str());
    std::int32_t number = 0;
    const KeyRead portRead = ReadNumber(settings, "HTTPSPort", number);
    if (portRead == KeyRead::Absent) return -1;
    // The record holds a 16-bit port: anything outside it cannot be read as one.
    if (portRead == KeyRead::Unreadable || number < 1 || number > 65535) {
        DNTRACE(TRACE, "PublicProxyMgr : Proxy port was not found");
        return -1;
    }
    port = number;
    DNTRACE(TRACE, "PublicProxyMgr : Proxy port is %d", port);
    return 0;
}

int PublicProxyManager::GetProxyHostData(std::string& host, std::string& port) {
    host.clear();
    port.clear();
    if (m_pProxyIfc != nullptr) {
        host = m_pProxyIfc->getProxyHost();
        port = m_pProxyIfc->getProxyPort();
    }
    return 0;
}

int PublicProxyManager::ReturnProxyType() {
    if (m_pProxyIfc == nullptr) return PROXY_TYPE_UNSET;
    switch (m_pProxyIfc->getProxyType()) {
        case ProxyTypePlain:
            return PROXY_TYPE_STORED_PLAIN;
        case ProxyTypeQualified:
            return PROXY_TYPE_STORED_QUALIFIED;
    }
    return PROXY_TYPE_UNSET;
}
