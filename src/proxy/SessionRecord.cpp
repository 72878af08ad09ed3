// SPDX-License-Identifier: Apache-2.0
// The session record of a connection that the kernel redirected, made on accept.
#include "proxy/SessionRecord.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <cstring>

#include "platform/OriginalDst.h"
#include "platform/ProcessInfo.h"

namespace {

bool SameEndpoint(const sockaddr_storage& a, const sockaddr_storage& b) {
    if (a.ss_family != b.ss_family) return false;
    if (a.ss_family == AF_INET) {
        const auto& a4 = reinterpret_cast<const sockaddr_in&>(a);
        const auto& b4 = reinterpret_cast<const sockaddr_in&>(b);
        return a4.sin_port == b4.sin_port && a4.sin_addr.s_addr == b4.sin_addr.s_addr;
    }
    if (a.ss_family == AF_INET6) {
        const auto& a6 = reinterpret_cast<const sockaddr_in6&>(a);
        const auto& b6 = reinterpret_cast<const sockaddr_in6&>(b);
        return a6.sin6_port == b6.sin6_port &&
               std::memcmp(&a6.sin6_addr, &b6.sin6_addr, sizeof(in6_addr)) == 0;
    }
    return false;
}

// 127.0.0.0/8, and 0.0.0.0, which Linux connects to this host itself. Host order.
bool IsLoopbackOrAny(uint32_t address) { return (address >> 24) == 127 || address == INADDR_ANY; }

// An address of one of this host's interfaces (the calling thread's network namespace).
bool IsOwnAddress(const sockaddr_storage& address) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return false;
    bool own = false;
    for (const ifaddrs* it = list; it != nullptr && !own; it = it->ifa_next) {
        if (it->ifa_addr == nullptr || it->ifa_addr->sa_family != address.ss_family) continue;
        if (address.ss_family == AF_INET) {
            own = reinterpret_cast<const sockaddr_in*>(it->ifa_addr)->sin_addr.s_addr ==
                  reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr;
        } else {
            own = std::memcmp(&reinterpret_cast<const sockaddr_in6*>(it->ifa_addr)->sin6_addr,
                              &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr,
                              sizeof(in6_addr)) == 0;
        }
    }
    freeifaddrs(list);
    return own;
}

}  // namespace

bool IsRedirectedDestination(const sockaddr_storage* original, const sockaddr_storage& local) {
    if (original == nullptr) return false;
    if (original->ss_family != AF_INET && original->ss_family != AF_INET6) return false;
    return !SameEndpoint(*original, local);
}

void FillSessionRecord(const sockaddr_storage& original, int32_t pid, ngc_session_info& record) {
    std::memset(&record, 0, sizeof(record));
    const std::size_t length =
        original.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    std::memcpy(record.orig_dst.raw, &original, length);
    record.process_id = pid;
}

bool IsListenerDestination(const sockaddr_storage& destination, uint16_t listenPort) {
    if (destination.ss_family == AF_INET) {
        const auto& in4 = reinterpret_cast<const sockaddr_in&>(destination);
        if (ntohs(in4.sin_port) != listenPort) return false;
        return IsLoopbackOrAny(ntohl(in4.sin_addr.s_addr)) || IsOwnAddress(destination);
    }
    if (destination.ss_family != AF_INET6) return false;
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(destination);
    if (ntohs(in6.sin6_port) != listenPort) return false;
    if (IN6_IS_ADDR_LOOPBACK(&in6.sin6_addr) || IN6_IS_ADDR_UNSPECIFIED(&in6.sin6_addr))
        return true;
    if (!IN6_IS_ADDR_V4MAPPED(&in6.sin6_addr)) return IsOwnAddress(destination);
    sockaddr_storage mapped{};
    auto& in4 = reinterpret_cast<sockaddr_in&>(mapped);
    in4.sin_family = AF_INET;
    std::memcpy(&in4.sin_addr, in6.sin6_addr.s6_addr + 12, sizeof(in4.sin_addr));
    return IsLoopbackOrAny(ntohl(in4.sin_addr.s_addr)) || IsOwnAddress(mapped);
}

bool MakeDivertedSessionRecord(int fd, bool ipv6, ngc_session_info& record) {
    sockaddr_storage original{};
    if (!GetOriginalDestination(fd, ipv6 ? AF_INET6 : AF_INET, original)) return false;
    sockaddr_storage local{};
    socklen_t length = sizeof(local);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return false;
    if (!IsRedirectedDestination(&original, local)) return false;
    sockaddr_storage peer{};
    length = sizeof(peer);
    int32_t pid = -1;
    // The client's socket has the client's address as its own end and the original
    // destination as its peer: NAT is invisible to the socket that was redirected.
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0)
        pid = FindTcpSocketOwner(reinterpret_cast<const sockaddr*>(&peer),
                                 reinterpret_cast<const sockaddr*>(&original));
    FillSessionRecord(original, pid, record);
    return true;
}
