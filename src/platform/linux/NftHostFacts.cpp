// SPDX-License-Identifier: Apache-2.0
// getaddrinfo, /proc/net and /proc/<pid>/cgroup for the diversion table.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/linux/NftHostFacts.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/ProcessInfo.h"

namespace {

constexpr long kCgroup2Magic = 0x63677270;  // CGROUP2_SUPER_MAGIC
constexpr char kCgroupRoot[] = "/sys/fs/cgroup";
constexpr char kListenState[] = "0A";  // TCP_LISTEN in /proc/net/tcp

bool SameAddress(const NftAddress& a, const NftAddress& b) {
    return a.family == b.family && a.bytes == b.bytes;
}

// /proc/net/tcp prints each 32-bit word of the address in host order as 8 hex digits.
std::string ProcAddressOf(int family, bool loopback) {
    if (family == AF_INET) return loopback ? "0100007F" : "00000000";
    return loopback ? "00000000000000000000000001000000" : std::string(32, '0');
}

bool TableHasListener(const char* path, const std::vector<std::string>& addresses, uint16_t port) {
    std::ifstream table(path);
    char portText[8];
    std::snprintf(portText, sizeof(portText), ":%04X", port);
    std::string line;
    std::getline(table, line);  // header
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot, local, remote, state;
        if (!(fields >> slot >> local >> remote >> state) || state != kListenState) continue;
        for (const std::string& address : addresses) {
            if (local == address + portText) return true;
        }
    }
    return false;
}

}  // namespace

std::vector<NftAddress> ResolveNftHostAddresses(const std::string& name) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    std::vector<NftAddress> addresses;
    if (getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0) return addresses;
    for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
        NftAddress address;
        address.family = entry->ai_family;
        if (entry->ai_family == AF_INET) {
            const auto* v4 = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
            std::memcpy(address.bytes.data(), &v4->sin_addr, sizeof(v4->sin_addr));
        } else if (entry->ai_family == AF_INET6) {
            const auto* v6 = reinterpret_cast<const sockaddr_in6*>(entry->ai_addr);
            std::memcpy(address.bytes.data(), &v6->sin6_addr, sizeof(v6->sin6_addr));
        } else {
            continue;
        }
        const auto same = [&](const NftAddress& a) { return SameAddress(a, address); };
        if (std::none_of(addresses.begin(), addresses.end(), same)) addresses.push_back(address);
    }
    freeaddrinfo(found);
    return addresses;
}

namespace {

bool Listed(const std::vector<std::array<unsigned char, 16>>& listeners, int family,
            bool loopback) {
    std::array<unsigned char, 16> wanted{};
    if (loopback && family == AF_INET) wanted[0] = 127, wanted[3] = 1;
    if (loopback && family == AF_INET6) wanted[15] = 1;
    return std::find(listeners.begin(), listeners.end(), wanted) != listeners.end();
}

// From sock_diag; false in `answered` where it cannot tell.
bool DiagHasListener(int family, uint16_t port, bool& answered) {
    std::vector<std::array<unsigned char, 16>> v4;
    std::vector<std::array<unsigned char, 16>> v6;
    answered = FindTcpListeners(AF_INET6, port, v6) &&
               (family == AF_INET6 || FindTcpListeners(AF_INET, port, v4));
    if (!answered) return false;
    if (family == AF_INET6) return Listed(v6, AF_INET6, true) || Listed(v6, AF_INET6, false);
    return Listed(v4, AF_INET, true) || Listed(v4, AF_INET, false) ||
           Listed(v6, AF_INET6, false);
}

}  // namespace

// The /proc tables list every connection of the namespace, TIME_WAIT included: read every
// watch period under load they cost tens of milliseconds, so they are only the fallback.
bool IsLoopbackPortListening(int family, uint16_t port) {
    bool answered = false;
    const bool listening = DiagHasListener(family, port, answered);
    if (answered) return listening;
    const std::vector<std::string> v6 = {ProcAddressOf(AF_INET6, true),
                                         ProcAddressOf(AF_INET6, false)};
    if (family == AF_INET6) return TableHasListener("/proc/thread-self/net/tcp6", v6, port);
    const std::vector<std::string> v4 = {ProcAddressOf(AF_INET, true),
                                         ProcAddressOf(AF_INET, false)};
    return TableHasListener("/proc/thread-self/net/tcp", v4, port) ||
           TableHasListener("/proc/thread-self/net/tcp6", {ProcAddressOf(AF_INET6, false)}, port);
}

std::string CgroupV2PathOf(int32_t pid, std::string& why) {
    struct statfs root {};
    if (statfs(kCgroupRoot, &root) != 0 || root.f_type != kCgroup2Magic) {
        why = "no cgroup v2 hierarchy at /sys/fs/cgroup";
        return "";
    }
    std::ifstream cgroups("/proc/" + std::to_string(pid) + "/cgroup");
    std::string line;
    while (std::getline(cgroups, line)) {
        if (line.rfind("0::", 0) != 0) continue;
        const std::string path = line.substr(3);
        struct stat info {};
        if (path.empty() || path == "/") {
            why = "the process shares the root cgroup with every other process";
        } else if (stat((kCgroupRoot + path).c_str(), &info) != 0) {
            why = "its cgroup " + path + " is not visible under /sys/fs/cgroup";
        } else {
            return path;
        }
        return "";
    }
    why = "the process has no cgroup v2 entry";
    return "";
}
