// SPDX-License-Identifier: Apache-2.0
// Process facts from /proc: executable paths and the owners of TCP sockets.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/ProcessInfo.h"

#include <dirent.h>
#include <netinet/in.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>

namespace ServiceUtils {

long GetProcessFilePath(unsigned int pid, char* buffer, std::size_t size) {
    if (buffer == nullptr || size < 2) return EINVAL;
    char link[64];
    std::snprintf(link, sizeof(link), "/proc/%u/exe", pid);
    const ssize_t length = ::readlink(link, buffer, size - 1);
    if (length < 0) {
        const int error = errno;
        buffer[0] = '\0';
        return error;
    }
    // readlink does not say whether it cut the path; a full buffer may have been cut.
    if (static_cast<std::size_t>(length) == size - 1) {
        buffer[0] = '\0';
        return ERANGE;
    }
    buffer[length] = '\0';
    return 0;
}

}  // namespace ServiceUtils

namespace {

// One end of a TCP connection as the kernel's tables spell it: 16 address bytes (an IPv4
// address in its IPv4-mapped IPv6 form) and the port in host order.
struct Endpoint {
    unsigned char address[16] = {};
    unsigned int port = 0;

    bool operator==(const Endpoint& other) const {
        return port == other.port && std::memcmp(address, other.address, 16) == 0;
    }
};

bool ToEndpoint(const sockaddr* from, Endpoint& out) {
    out = Endpoint{};
    if (from == nullptr) return false;
    if (from->sa_family == AF_INET) {
        const auto* in4 = reinterpret_cast<const sockaddr_in*>(from);
        out.address[10] = 0xff;
        out.address[11] = 0xff;
        std::memcpy(out.address + 12, &in4->sin_addr, 4);
        out.port = ntohs(in4->sin_port);
        return true;
    }
    if (from->sa_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(from);
        std::memcpy(out.address, &in6->sin6_addr, 16);
        out.port = ntohs(in6->sin6_port);
        return true;
    }
    return false;
}

// Reads "0100007F:1F90" (IPv4) or 32 hex digits and a port (IPv6). The kernel prints each
// 32-bit word of the address as the number it holds in host order, so converting a word
// back and storing it in host order gives the original bytes.
bool ParseEndpoint(const std::string& text, Endpoint& out) {
    out = Endpoint{};
    const std::size_t colon = text.find(':');
    if (colon != 8 && colon != 32) return false;
    const std::size_t words = colon / 8;
    unsigned char* target = words == 1 ? out.address + 12 : out.address;
    if (words == 1) {
        out.address[10] = 0xff;
        out.address[11] = 0xff;
    }
    for (std::size_t i = 0; i < words; ++i) {
        const std::string digits = text.substr(i * 8, 8);
        char* end = nullptr;
        const auto word = static_cast<uint32_t>(std::strtoul(digits.c_str(), &end, 16));
        if (end == nullptr || *end != '\0') return false;
        std::memcpy(target + i * 4, &word, 4);
    }
    char* end = nullptr;
    out.port = static_cast<unsigned int>(std::strtoul(text.c_str() + colon + 1, &end, 16));
    return end != nullptr && *end == '\0';
}

// The socket inode of the entry in `table` with these two ends; 0 when there is none.
unsigned long FindInode(const char* table, const Endpoint& local, const Endpoint& remote) {
    std::ifstream in(table);
    std::string line;
    std::getline(in, line);  // column titles
    while (std::getline(in, line)) {
        char localText[64] = {};
        char remoteText[64] = {};
        unsigned long inode = 0;
        // sl local rem st tx:rx tr:when retrnsmt uid timeout inode
        if (std::sscanf(line.c_str(), " %*s %63s %63s %*s %*s %*s %*s %*s %*s %lu", localText,
                        remoteText, &inode) != 3)
            continue;
        Endpoint entryLocal;
        Endpoint entryRemote;
        if (inode == 0 || !ParseEndpoint(localText, entryLocal) ||
            !ParseEndpoint(remoteText, entryRemote))
            continue;
        if (entryLocal == local && entryRemote == remote) return inode;
    }
    return 0;
}

// /proc/net follows the process's namespace; thread-self follows this thread's, which is
// the one the listener's socket lives in.
unsigned long FindInodeInTables(const Endpoint& local, const Endpoint& remote, bool ipv4) {
    static const char* const kTables[2][2] = {
        {"/proc/thread-self/net/tcp", "/proc/net/tcp"},
        {"/proc/thread-self/net/tcp6", "/proc/net/tcp6"},
    };
    for (int family = ipv4 ? 0 : 1; family < 2; ++family) {
        const char* table =
            ::access(kTables[family][0], R_OK) == 0 ? kTables[family][0] : kTables[family][1];
        const unsigned long inode = FindInode(table, local, remote);
        if (inode != 0) return inode;
    }
    return 0;
}

bool ProcessHoldsInode(const char* pid, const std::string& wanted) {
    const std::string folder = std::string("/proc/") + pid + "/fd";
    DIR* fds = ::opendir(folder.c_str());
    if (fds == nullptr) return false;
    bool found = false;
    char target[64];
    while (const dirent* entry = ::readdir(fds)) {
        if (entry->d_name[0] == '.') continue;
        const std::string link = folder + "/" + entry->d_name;
        const ssize_t length = ::readlink(link.c_str(), target, sizeof(target) - 1);
        if (length <= 0) continue;
        target[length] = '\0';
        if (wanted == target) {
            found = true;
            break;
        }
    }
    ::closedir(fds);
    return found;
}

// A client that opened one diverted connection usually opens more: the last few owners are
// looked at before the whole process table.
class CRecentOwners {
public:
    int32_t Find(const std::string& wanted) {
        std::array<int32_t, kSize> candidates;
        {
            std::lock_guard<std::mutex> hold(m_lock);
            candidates = m_pids;
        }
        for (const int32_t pid : candidates) {
            if (pid > 0 && ProcessHoldsInode(std::to_string(pid).c_str(), wanted)) return pid;
        }
        return -1;
    }
    void Remember(int32_t pid) {
        std::lock_guard<std::mutex> hold(m_lock);
        for (const int32_t known : m_pids) {
            if (known == pid) return;
        }
        m_pids[m_next] = pid;
        m_next = (m_next + 1) % kSize;
    }

private:
    static constexpr std::size_t kSize = 8;
    std::mutex m_lock;
    std::array<int32_t, kSize> m_pids{};
    std::size_t m_next = 0;
};

CRecentOwners g_recentOwners;

int32_t FindInodeOwner(unsigned long inode) {
    const std::string wanted = "socket:[" + std::to_string(inode) + "]";
    const int32_t recent = g_recentOwners.Find(wanted);
    if (recent != -1) return recent;
    DIR* processes = ::opendir("/proc");
    if (processes == nullptr) return -1;
    int32_t owner = -1;
    while (const dirent* entry = ::readdir(processes)) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9') continue;
        if (ProcessHoldsInode(entry->d_name, wanted)) {
            owner = static_cast<int32_t>(std::strtol(entry->d_name, nullptr, 10));
            break;
        }
    }
    ::closedir(processes);
    if (owner != -1) g_recentOwners.Remember(owner);
    return owner;
}

}  // namespace

int32_t FindTcpSocketOwner(const sockaddr* local, const sockaddr* remote) {
    Endpoint localEnd;
    Endpoint remoteEnd;
    if (!ToEndpoint(local, localEnd) || !ToEndpoint(remote, remoteEnd)) return -1;
    const unsigned long inode = FindInodeInTables(localEnd, remoteEnd, local->sa_family == AF_INET);
    if (inode == 0) return -1;
    return FindInodeOwner(inode);
}
