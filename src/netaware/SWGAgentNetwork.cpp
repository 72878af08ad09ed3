// SPDX-License-Identifier: Apache-2.0
// Which network the host is on: each family's default route, the settling of a run of
// changes, the outgoing interface of a destination and its DNS domain.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <boost/thread/thread.hpp>
#include <cerrno>
#include <cstdio>
#include <vector>

#include "core/OsEvents.h"
#include "core/SWGAgent.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Trace.h"
#include "netaware/WebClient.h"
#include "platform/NetworkState.h"

namespace {

constexpr int kNoticeSettleMs = 500;
constexpr long kConnectivityTimeoutSeconds = 2;

const char* OrNone(const std::string& value) { return value.empty() ? "<none>" : value.c_str(); }

// The address taken for the interface: with IPv6 allowed, the first IPv6 address that does
// not look link-local, else the last IPv4 address; without, the first IPv4 address.
std::string PickAddress(const std::vector<InterfaceAddress>& addresses, const std::string& name,
                        bool allowIPv6) {
    std::string ipv4;
    for (const InterfaceAddress& address : addresses) {
        if (address.name != name) continue;
        if (address.family == AF_INET) {
            char text[INET_ADDRSTRLEN] = {};
            inet_ntop(AF_INET, address.bytes, text, sizeof(text));
            ipv4 = text;
            if (!allowIPv6) return ipv4;
        } else if (allowIPv6 && address.family == AF_INET6) {
            const uint8_t* b = address.bytes;
            // A rough link-local filter, kept as it is: it passes over x80 second bytes too.
            if (b[0] == 0xfe || b[1] == 0x80) continue;
            char text[40] = {};
            std::snprintf(text, sizeof(text),
                          "%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x",
                          b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11],
                          b[12], b[13], b[14], b[15]);
            return text;
        }
    }
    return ipv4;
}

}  // namespace

std::string CSWGAgent::getBestInterface(int family) {
    boost::recursive_mutex::scoped_lock hold(m_interfaceLock);
    return family == AF_INET6 ? m_strBestInterfaceV6 : m_strBestInterfaceV4;
}

std::string CSWGAgent::getBestInterfaceName(int family) {
    boost::recursive_mutex::scoped_lock hold(m_interfaceLock);
    return family == AF_INET6 ? m_strBestInterfaceNameV6 : m_strBestInterfaceNameV4;
}

void CSWGAgent::setBestInterface(const std::string& router, int family) {
    boost::recursive_mutex::scoped_lock hold(m_interfaceLock);
    if (family == AF_INET) m_strBestInterfaceV4 = router;
    if (family == AF_INET6) m_strBestInterfaceV6 = router;
}

void CSWGAgent::setBestInterfaceName(const std::string& name, int family) {
    boost::recursive_mutex::scoped_lock hold(m_interfaceLock);
    if (family == AF_INET) m_strBestInterfaceNameV4 = name;
    if (family == AF_INET6) m_strBestInterfaceNameV6 = name;
}

std::string CSWGAgent::getCurrentActiveInterface(int family) {
    INetworkState& state = m_pNetworkState != nullptr ? *m_pNetworkState : SystemNetworkState();
    std::string name;
    std::string router;
    if (!state.DefaultRoute(family, name, router)) {
        DNTRACE(ERR, "Failed to read the default route of %s",
                family == AF_INET6 ? "IPv6" : "IPv4");
    }
    // Blank rather than stale: the next notice reads them again.
    setBestInterface(router, family);
    setBestInterfaceName(name, family);
    return router;
}

int CSWGAgent::checkInterfaceChanges() {
    const std::string oldRouterV4 = getBestInterface(AF_INET);
    const std::string oldNameV4 = getBestInterfaceName(AF_INET);
    const std::string oldRouterV6 = getBestInterface(AF_INET6);
    const std::string oldNameV6 = getBestInterfaceName(AF_INET6);
    const std::string routerV4 = getCurrentActiveInterface(AF_INET);
    const std::string routerV6 = getCurrentActiveInterface(AF_INET6);
    const std::string nameV4 = getBestInterfaceName(AF_INET);
    const std::string nameV6 = getBestInterfaceName(AF_INET6);
    if (oldRouterV4 == routerV4 && oldNameV4 == nameV4 && oldRouterV6 == routerV6 &&
        oldNameV6 == nameV6) {
        return 1;
    }
    DNTRACE(
        TRACE,
        "Primary interface changed IPv4 [%s], [%s] => [%s], [%s], IPv6 [%s], [%s] => [%s], [%s]",
        OrNone(oldRouterV4), OrNone(oldNameV4), OrNone(routerV4), OrNone(nameV4),
        OrNone(oldRouterV6), OrNone(oldNameV6), OrNone(routerV6), OrNone(nameV6));
    return routerV4.empty() && routerV6.empty() ? 2 : 0;
}

void CSWGAgent::HandleNetworkChangeEvent() {
    // Notices that come meanwhile wait in the socket and are handled in turn.
    boost::this_thread::sleep_for(boost::chrono::milliseconds(kNoticeSettleMs));
    const int result = checkInterfaceChanges();
    if ((result & ~2) == 0) g_IPAddrChangeEvent.notify();
}

void CSWGAgent::takeActionOnAddrChange() {
    DNTRACE(TRACE, "CSWGAgent::TakeActionOnAddrChange");
    // A new network means the redirector's host names may resolve elsewhere now.
    sendClearDNSCacheCommand();
    const ORGINFO org = GetOrgInfo();
    bool backedOff = false;
    {
        boost::recursive_mutex::scoped_lock hold(m_orgInfoLock);
        backedOff = m_bBackedOff;
    }
    if (!org.bSwgHonorTND && (backedOff || org.bBackoffOnCustomerTrustedNetwork)) {
        DNTRACE(TRACE, "CSWGAgent::TakeActionOnAddrChange, Evaluating SWG backoff");
        OnBackoffStateChange();
    }
}

bool CSWGAgent::testConnectivity(int family) {
    if (getBestInterface(family).empty()) return false;
    const ORGINFO org = GetOrgInfo();
    std::string host;
    std::string request;
    if (GetHostAndRequestFromURL(org.strSWGEchoService, host, request) != 0) {
        DNTRACE(ERR, "Failed to parse URL %s", org.strSWGEchoService.c_str());
        return false;
    }
    CWebClient client;
    const bool connected = client.Connect(host.c_str(), 80, kConnectivityTimeoutSeconds,
                                          static_cast<uint16_t>(family)) == 0;
    const char* name = family == AF_INET6 ? "IPv6" : "IPv4";
    if (connected) {
        DNTRACE(TRACE, "CSWGAgent::testConnectivity : %s connectivity test succeeded to %s", name,
                host.c_str());
    } else {
        DNTRACE(TRACE, "CSWGAgent::testConnectivity : %s connectivity test failed to %s", name,
                host.c_str());
    }
    return connected;
}

boost::system::error_code CSWGAgent::GetPreferredInterface(const sockaddr* destination,
                                                           bool /*unused*/, bool wantDnsDomain,
                                                           bool allowIPv6, InterfaceInfo& info) {
    using boost::system::error_code;
    using boost::system::system_category;
    if (destination == nullptr) return error_code(EINVAL, system_category());
    INetworkState& state = m_pNetworkState != nullptr ? *m_pNetworkState : SystemNetworkState();
    std::string name;
    const int routeError = state.RouteInterface(destination, name);
    if (routeError != 0) return error_code(routeError, system_category());

    std::vector<InterfaceAddress> addresses;
    const int listError = state.InterfaceAddresses(addresses);
    if (listError != 0) {
        DNTRACE(ERR, "GetInterfaceByDestAddress: getifaddrs failed with err = %d", listError);
    }
    info.strInterfaceName = name;
    info.strIpAddress = PickAddress(addresses, name, allowIPv6);
    error_code result;
    if (info.strIpAddress.empty()) {
        result = error_code(listError != 0 ? listError : EADDRNOTAVAIL, system_category());
    }
    if (wantDnsDomain && !result && !GetInterfaceDnsDomain(name, info.strDnsDomain)) {
        result = error_code(-1, system_category());
    }
    return result;
}

bool CSWGAgent::GetInterfaceDnsDomain(const std::string& interfaceName, std::string& domain) {
    INetworkState& state = m_pNetworkState != nullptr ? *m_pNetworkState : SystemNetworkState();
    std::string found;
    if (!state.DnsDomain(interfaceName, found)) {
        DNTRACE(ERR, "Failed to read the DNS domain of %s", interfaceName.c_str());
        return false;
    }
    if (!found.empty()) domain = found;
    return true;
}
