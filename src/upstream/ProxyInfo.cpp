// SPDX-License-Identifier: Apache-2.0
// The process-wide proxy record and its accessors.
#include "upstream/ProxyInfo.h"

#include <mutex>

LOCAL_PROXY_INFO g_ProxyInfo;
CCSLock g_lockProxyInfo;

// Every read takes the lock, the comparison in SetProxyInfo and the single-field getters too:
// a std::string read while another thread assigns it may see freed memory, and the lock is
// never held for more than a copy.

void SetProxyInfo(const LOCAL_PROXY_INFO& info) {
    std::lock_guard<CCSLock> hold(g_lockProxyInfo);
    if (info.proxy_host == g_ProxyInfo.proxy_host && info.proxy_port == g_ProxyInfo.proxy_port)
        return;
    g_ProxyInfo = info;
}

LOCAL_PROXY_INFO GetProxyInfo() {
    std::lock_guard<CCSLock> hold(g_lockProxyInfo);
    return g_ProxyInfo;
}

void ResetProxyInfo() {
    std::lock_guard<CCSLock> hold(g_lockProxyInfo);
    g_ProxyInfo = LOCAL_PROXY_INFO();
}

void SetProxyType(const PROXY_TYPE& type) {
    std::lock_guard<CCSLock> hold(g_lockProxyInfo);
    if (g_ProxyInfo.proxy_mode == ProxyModeSystem) g_ProxyInfo.proxy_type = type;
}

PROXY_TYPE GetProxyType() {
    std::lock_guard<CCSLock> hold(g_lockProxyInfo);
    return g_ProxyInfo.proxy_type;
}

void SetProxyState(const PROXY_STATE& state) {
    std::lock_guard<CCSLock> hold(g_lockProxyInfo);
    if (g_ProxyInfo.proxy_mode == ProxyModeSystem) g_ProxyInfo.proxy_state = state;
}

PROXY_STATE GetProxyState() {
    std::lock_guard<CCSLock> hold(g_lockProxyInfo);
    return g_ProxyInfo.proxy_state;
}

void SetProxyRealm(std::string& realm) {
    std::lock_guard<CCSLock> hold(g_lockProxyInfo);
    if (g_ProxyInfo.proxy_mode == ProxyModeSystem) g_ProxyInfo.proxy_realm = realm;
}

std::string GetProxyRealm() {
    std::lock_guard<CCSLock> hold(g_lockProxyInfo);
    return g_ProxyInfo.proxy_realm;
}
