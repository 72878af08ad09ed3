// SPDX-License-Identifier: Apache-2.0
// Process facts: executable paths from /proc, and the owners of TCP sockets from sock_diag
// (the /proc tables where it is unavailable) and /proc/*/fd.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/ProcessInfo.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

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

// What the kernel says of one TCP socket: its inode (0 for none) and the uid that created it.
struct SocketFacts {
    unsigned long inode = 0;
    uid_t uid = 0;
};

// The entry in `table` with these two ends; inode 0 when there is none.
SocketFacts FindInTable(const char* table, const Endpoint& local, const Endpoint& remote) {
    std::ifstream in(table);
    std::string line;
    std::getline(in, line);  // column titles
    while (std::getline(in, line)) {
        char localText[64] = {};
        char remoteText[64] = {};
        SocketFacts facts;
        unsigned int uid = 0;
        // sl local rem st tx:rx tr:when retrnsmt uid timeout inode
        if (std::sscanf(line.c_str(), " %*s %63s %63s %*s %*s %*s %*s %u %*s %lu", localText,
                        remoteText, &uid, &facts.inode) != 4)
            continue;
        Endpoint entryLocal;
        Endpoint entryRemote;
        if (facts.inode == 0 || !ParseEndpoint(localText, entryLocal) ||
            !ParseEndpoint(remoteText, entryRemote))
            continue;
        facts.uid = static_cast<uid_t>(uid);
        if (entryLocal == local && entryRemote == remote) return facts;
    }
    return SocketFacts{};
}

// /proc/net follows the process's namespace; thread-self follows this thread's, which is
// the one the listener's socket lives in. Each read walks every TCP socket of the namespace.
SocketFacts FindInTables(const Endpoint& local, const Endpoint& remote, bool ipv4) {
    static const char* const kTables[2][2] = {
        {"/proc/thread-self/net/tcp", "/proc/net/tcp"},
        {"/proc/thread-self/net/tcp6", "/proc/net/tcp6"},
    };
    for (int family = ipv4 ? 0 : 1; family < 2; ++family) {
        const char* table =
            ::access(kTables[family][0], R_OK) == 0 ? kTables[family][0] : kTables[family][1];
        const SocketFacts facts = FindInTable(table, local, remote);
        if (facts.inode != 0) return facts;
    }
    return SocketFacts{};
}

enum class DiagAnswer { Found, NotFound, Unavailable };

// A netlink socket of the calling thread's network namespace, closed on scope exit.
class CDiagSocket {
public:
    CDiagSocket() : m_fd(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {}
    ~CDiagSocket() {
        if (m_fd != -1) ::close(m_fd);
    }
    CDiagSocket(const CDiagSocket&) = delete;
    CDiagSocket& operator=(const CDiagSocket&) = delete;

    // Sends one request and reads the kernel's answer, which the kernel queues before sendto
    // returns, so the read never waits. False when either step fails.
    bool Exchange(const inet_diag_req_v2& request, std::uint16_t flags, char* reply,
                  std::size_t size, std::size_t& length) const {
        if (m_fd == -1) return false;
        struct {
            nlmsghdr header;
            inet_diag_req_v2 request;
        } message{};
        message.header.nlmsg_len = sizeof(message);
        message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
        message.header.nlmsg_flags = flags;
        message.request = request;
        sockaddr_nl kernel{};
        kernel.nl_family = AF_NETLINK;
        if (::sendto(m_fd, &message, sizeof(message), 0, reinterpret_cast<sockaddr*>(&kernel),
                     sizeof(kernel)) != static_cast<ssize_t>(sizeof(message)))
            return false;
        const ssize_t received = ::recv(m_fd, reply, size, MSG_DONTWAIT);
        if (received <= 0) return false;
        length = static_cast<std::size_t>(received);
        return true;
    }

private:
    int m_fd;
};

inet_diag_req_v2 TcpRequest(int family) {
    inet_diag_req_v2 request{};
    request.sdiag_family = static_cast<std::uint8_t>(family);
    request.sdiag_protocol = IPPROTO_TCP;
    request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return request;
}

// The errno of an NLMSG_ERROR answer, 0 for any other first message, EPROTO for none.
int AnswerError(const char* reply, std::size_t length) {
    const auto* header = reinterpret_cast<const nlmsghdr*>(reply);
    if (!NLMSG_OK(header, length)) return EPROTO;
    if (header->nlmsg_type != NLMSG_ERROR) return 0;
    if (header->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) return EPROTO;
    return -static_cast<const nlmsgerr*>(NLMSG_DATA(header))->error;
}

// ENOENT answers both "no such socket" and "no TCP handler in this kernel" (inet_diag built
// as a module that could not be loaded). A dump that selects no state answers at once, with
// NLMSG_DONE where the handler is there; the answer holds for the life of the process.
bool TcpDiagPresent() {
    static std::atomic<int> s_known{0};  // 0 not yet asked, 1 present, 2 absent
    int known = s_known.load();
    if (known != 0) return known == 1;
    alignas(nlmsghdr) char reply[1024];
    std::size_t length = 0;
    inet_diag_req_v2 request = TcpRequest(AF_INET);
    request.idiag_states = 0;
    const CDiagSocket diag;
    if (!diag.Exchange(request, NLM_F_REQUEST | NLM_F_DUMP, reply, sizeof(reply), length))
        return false;  // not remembered: the socket itself may be refused to this thread only
    known = AnswerError(reply, length) == 0 ? 1 : 2;
    s_known.store(known);
    return known == 1;
}

void PutAddress(int family, const Endpoint& end, __be32* out) {
    if (family == AF_INET)
        std::memcpy(out, end.address + 12, 4);
    else
        std::memcpy(out, end.address, 16);
}

// One exact SOCK_DIAG_BY_FAMILY request for the four-tuple (sock_diag(7)): the kernel looks
// it up in its connection hash, so the cost does not grow with the number of other sockets.
// An IPv4 pair is asked as AF_INET, which also finds an IPv6 socket that holds it mapped.
DiagAnswer AskSockDiag(int family, const Endpoint& local, const Endpoint& remote,
                       SocketFacts& out) {
    inet_diag_req_v2 request = TcpRequest(family);
    request.idiag_states = ~0U;
    request.id.idiag_sport = htons(static_cast<std::uint16_t>(local.port));
    request.id.idiag_dport = htons(static_cast<std::uint16_t>(remote.port));
    PutAddress(family, local, request.id.idiag_src);
    PutAddress(family, remote, request.id.idiag_dst);

    alignas(nlmsghdr) char reply[4096];
    std::size_t length = 0;
    const CDiagSocket diag;
    if (!diag.Exchange(request, NLM_F_REQUEST, reply, sizeof(reply), length))
        return DiagAnswer::Unavailable;
    const int error = AnswerError(reply, length);
    if (error == ENOENT) return TcpDiagPresent() ? DiagAnswer::NotFound : DiagAnswer::Unavailable;
    const auto* header = reinterpret_cast<const nlmsghdr*>(reply);
    if (error != 0 || header->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
        header->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg)))
        return DiagAnswer::Unavailable;
    const auto* found = static_cast<const inet_diag_msg*>(NLMSG_DATA(header));
    // A socket in TIME_WAIT has no inode and no owner left.
    if (found->idiag_inode == 0) return DiagAnswer::NotFound;
    out.inode = found->idiag_inode;
    out.uid = static_cast<uid_t>(found->idiag_uid);
    return DiagAnswer::Found;
}

// The client socket with these ends: from sock_diag, else from the /proc tables.
SocketFacts FindSocket(const Endpoint& local, const Endpoint& remote, bool ipv4) {
    SocketFacts facts;
    const DiagAnswer answer = AskSockDiag(ipv4 ? AF_INET : AF_INET6, local, remote, facts);
    if (answer == DiagAnswer::Found) return facts;
    if (answer == DiagAnswer::NotFound) return SocketFacts{};
    return FindInTables(local, remote, ipv4);
}

// True when the link `name`, relative to `folder` (AT_FDCWD or an open folder), is the socket
// `wanted` ("socket:[inode]").
bool LinkIsInode(int folder, const char* name, const std::string& wanted) {
    char target[64];
    const ssize_t length = ::readlinkat(folder, name, target, sizeof(target) - 1);
    if (length <= 0) return false;
    target[length] = '\0';
    return wanted == target;
}

// True when descriptor `fd` of process `pid` is the socket `wanted`.
bool FdIsInode(const std::string& pid, const char* fd, const std::string& wanted) {
    return LinkIsInode(AT_FDCWD, ("/proc/" + pid + "/fd/" + fd).c_str(), wanted);
}

// The descriptor of process `pid` that is the socket `wanted`; -1 when it holds none. Each
// link is read relative to the open folder: a whole /proc path per descriptor cost the
// lookup of its four parts again, for every descriptor of a client with many.
int FindFdOfInode(const std::string& pid, const std::string& wanted) {
    DIR* fds = ::opendir(("/proc/" + pid + "/fd").c_str());
    if (fds == nullptr) return -1;
    int found = -1;
    while (const dirent* entry = ::readdir(fds)) {
        if (entry->d_name[0] == '.') continue;
        if (LinkIsInode(::dirfd(fds), entry->d_name, wanted)) {
            found = std::atoi(entry->d_name);
            break;
        }
    }
    ::closedir(fds);
    return found;
}

// A holder of a socket: process and descriptor.
struct Holder {
    int32_t pid = -1;
    int fd = -1;
};

// A client that opened one diverted connection usually opens more, and one that closes a
// connection before it opens the next usually gets the same descriptor number again: the
// last few owners are looked at before the whole process table, each first at the descriptor
// that held its last diverted socket.
class CRecentOwners {
public:
    Holder Find(const std::string& wanted) {
        std::array<Holder, kSize> candidates;
        {
            std::lock_guard<std::mutex> hold(m_lock);
            candidates = m_holders;
        }
        for (const Holder& known : candidates) {
            if (known.pid > 0 &&
                FdIsInode(std::to_string(known.pid), std::to_string(known.fd).c_str(), wanted))
                return known;
        }
        for (const Holder& known : candidates) {
            if (known.pid <= 0) continue;
            const int fd = FindFdOfInode(std::to_string(known.pid), wanted);
            if (fd != -1) return Holder{known.pid, fd};
        }
        return Holder{};
    }
    void Remember(const Holder& holder) {
        std::lock_guard<std::mutex> hold(m_lock);
        for (Holder& known : m_holders) {
            if (known.pid == holder.pid) {
                known.fd = holder.fd;
                return;
            }
        }
        m_holders[m_next] = holder;
        m_next = (m_next + 1) % kSize;
    }

private:
    static constexpr std::size_t kSize = 8;
    std::mutex m_lock;
    std::array<Holder, kSize> m_holders{};
    std::size_t m_next = 0;
};

CRecentOwners g_recentOwners;

// Scans /proc/*/fd. The processes of the socket's uid are looked at first; the others after,
// since a descriptor may have been handed on or its holder may have changed uid since.
Holder ScanForInode(const std::string& wanted, uid_t uid) {
    DIR* processes = ::opendir("/proc");
    if (processes == nullptr) return Holder{};
    Holder owner;
    std::vector<std::string> others;
    while (const dirent* entry = ::readdir(processes)) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9') continue;
        struct stat facts {};
        if (::fstatat(::dirfd(processes), entry->d_name, &facts, 0) == 0 && facts.st_uid != uid) {
            others.emplace_back(entry->d_name);
            continue;
        }
        owner.fd = FindFdOfInode(entry->d_name, wanted);
        if (owner.fd != -1) {
            owner.pid = static_cast<int32_t>(std::strtol(entry->d_name, nullptr, 10));
            break;
        }
    }
    ::closedir(processes);
    for (std::size_t i = 0; owner.pid == -1 && i < others.size(); ++i) {
        owner.fd = FindFdOfInode(others[i], wanted);
        if (owner.fd != -1)
            owner.pid = static_cast<int32_t>(std::strtol(others[i].c_str(), nullptr, 10));
    }
    return owner;
}

int32_t FindInodeOwner(const SocketFacts& socket) {
    const std::string wanted = "socket:[" + std::to_string(socket.inode) + "]";
    Holder owner = g_recentOwners.Find(wanted);
    if (owner.pid == -1) owner = ScanForInode(wanted, socket.uid);
    if (owner.pid != -1) g_recentOwners.Remember(owner);
    return owner.pid;
}

}  // namespace

int32_t FindTcpSocketOwner(const sockaddr* local, const sockaddr* remote) {
    Endpoint localEnd;
    Endpoint remoteEnd;
    if (!ToEndpoint(local, localEnd) || !ToEndpoint(remote, remoteEnd)) return -1;
    const SocketFacts socket = FindSocket(localEnd, remoteEnd, local->sa_family == AF_INET);
    if (socket.inode == 0) return -1;
    return FindInodeOwner(socket);
}
