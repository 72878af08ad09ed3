// SPDX-License-Identifier: Apache-2.0
// Stand-ins for the system proxy manager until it is built: the host has no system proxy.
#include "upstream/ProxyInfo.h"
#include "upstream/PublicProxyManager.h"

// TODO(lead): the proxy manager with its settings reader and credentials store. Until it
// lands no instance can be had, so callers take their "no system proxy" path.
PublicProxyManager* PublicProxyManager::AcquireSingletonInstance() { return nullptr; }
void PublicProxyManager::ReleaseSingletonInstance(PublicProxyManager* /*instance*/) {}
int PublicProxyManager::ObtainProxySettings(std::string& /*host*/, int& /*port*/) { return -1; }
int PublicProxyManager::GetProxyHostData(std::string& host, std::string& port) {
    host.clear();
    port.clear();
    return 0;
}
int PublicProxyManager::ReturnProxyType() { return PROXY_TYPE_UNSET; }
