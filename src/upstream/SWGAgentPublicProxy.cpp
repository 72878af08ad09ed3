// SPDX-License-Identifier: Apache-2.0
// The agent's system proxy step of the start order, and the credentials call it ignores.
#include <cstdint>
#include <string>

#include "core/SWGAgent.h"
#include "foundation/Trace.h"
#include "upstream/ProxyInfo.h"
#include "upstream/PublicProxyManager.h"

void CSWGAgent::ObtainPublicProxySettings() {
    // The reference stays with the run; StopComponents gives it back.
    PublicProxyManager* manager = PublicProxyManager::AcquireSingletonInstance();
    if (manager == nullptr) return;
    std::string host;
    int port = 0;
    const int status = manager->ObtainProxySettings(host, port);
    if (status != 0) {
        DNTRACE(TRACE, "Public Proxy Not detected status %d", status);
        return;
    }
    DNTRACE(TRACE, "Proxy detected");
    DNTRACE(TRACE, "proxy is %s and proxy port is %d", host.c_str(), port);
    LOCAL_PROXY_INFO info;
    info.proxy_mode = ProxyModeSystem;
    info.proxy_host = host;
    info.proxy_port = static_cast<std::uint16_t>(port);
    info.proxy_state = PROXY_STATE_IN_USE;
    SetProxyInfo(info);
}

// Nothing in the agent hands credentials to a proxy: the call is accepted and its arguments
// are ignored, by design.
void CSWGAgent::SendProxyCredentials(const std::string& /*host*/, int /*port*/,
                                     const std::string& /*user*/, const std::string& /*password*/) {
}
