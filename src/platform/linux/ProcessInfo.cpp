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
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
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
        return Send(request, flags) && Receive(reply, size, length);
    }

    bool Send(const inet_diag_req_v2& request, std::uint16_t flags) const {
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
        return ::sendto(m_fd, &message, sizeof(message), 0, reinterpret_cast<sockaddr*>(&kernel),
                        sizeof(kernel)) == static_cast<ssize_t>(sizeof(message));
    }

    // The next part of an answer. A dump's next part is made by the read before it, so this
    // read never waits either.
    bool Receive(char* reply, std::size_t size, std::size_t& length) const {
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

// The inode of the socket that the link `name` (relative to `folder`, AT_FDCWD or an open
// folder) points to; 0 when it is no socket or cannot be read, with `refused` set when the
// process's descriptors are not ours to read.
unsigned long SocketInodeOfLink(int folder, const char* name, bool* refused = nullptr) {
    char target[64];
    const ssize_t length = ::readlinkat(folder, name, target, sizeof(target) - 1);
    if (refused != nullptr) *refused = length < 0 && (errno == EACCES || errno == EPERM);
    constexpr char kPrefix[] = "socket:[";
    constexpr std::size_t kPrefixLength = sizeof(kPrefix) - 1;
    if (length <= static_cast<ssize_t>(kPrefixLength)) return 0;
    target[length] = '\0';
    if (std::strncmp(target, kPrefix, kPrefixLength) != 0) return 0;
    return std::strtoul(target + kPrefixLength, nullptr, 10);
}

// A holder of a socket: process and descriptor.
struct Holder {
    int32_t pid = -1;
    int fd = -1;
};

bool HolderHas(const Holder& holder, unsigned long inode) {
    const std::string link = "/proc/" + std::to_string(holder.pid) + "/fd/" +
                             std::to_string(holder.fd);
    return SocketInodeOfLink(AT_FDCWD, link.c_str()) == inode;
}

// The sockets a folder walk saw besides the one it looked for, with where they were.
using SeenSockets = std::vector<std::pair<unsigned long, Holder>>;

enum class FolderWalk { Found, Absent, Gone };

// Reads the descriptor links of process `pid` until one is socket `wanted` (its number goes to
// `fd`), adding every other socket it passes to `seen`. Gone when the process has no descriptor
// folder (it has exited). Each link is read relative to the open folder: a whole /proc path
// per descriptor cost the lookup of its four parts again, for every descriptor.
FolderWalk WalkFolder(const char* pid, unsigned long wanted, int& fd, SeenSockets& seen) {
    fd = -1;
    DIR* fds = ::opendir(("/proc/" + std::string(pid) + "/fd").c_str());
    if (fds == nullptr) return errno == ENOENT ? FolderWalk::Gone : FolderWalk::Absent;
    const auto owner = static_cast<int32_t>(std::strtol(pid, nullptr, 10));
    while (const dirent* entry = ::readdir(fds)) {
        if (entry->d_name[0] == '.') continue;
        bool refused = false;
        const unsigned long inode = SocketInodeOfLink(::dirfd(fds), entry->d_name, &refused);
        // Access is granted or refused for a process's descriptors all together: one refusal
        // spares the reads of the rest (hundreds, for a service manager).
        if (refused) break;
        if (inode == 0) continue;
        const int number = std::atoi(entry->d_name);
        if (inode == wanted) {
            fd = number;
            break;
        }
        seen.emplace_back(inode, Holder{owner, number});
    }
    ::closedir(fds);
    return fd != -1 ? FolderWalk::Found : FolderWalk::Absent;
}

// Where diverted sockets were last found. A client that opened one diverted connection
// usually opens more, and one that closes a connection before it opens the next usually
// gets the same descriptor number again: the last few owners are looked at before the
// whole process table, each first at the descriptor that held its last diverted socket.
// A walk through an owner's descriptors also notes the other sockets it passes: a client
// that opens many connections at once has the next ones among them, so their lookups take
// one link read instead of a walk each. An entry is only a hint, confirmed by reading that
// one link before it is believed (the socket may have moved to another descriptor or
// process meanwhile).
class COwnerCache {
public:
    Holder Find(unsigned long wanted) {
        std::array<Holder, kOwners> owners;
        Holder hint;
        {
            std::lock_guard<std::mutex> hold(m_lock);
            owners = m_owners;
            const auto noted = m_seen.find(wanted);
            if (noted != m_seen.end()) {
                hint = noted->second;
                m_seen.erase(noted);
            }
        }
        if (hint.pid > 0 && HolderHas(hint, wanted)) return hint;
        for (const Holder& known : owners) {
            if (known.pid > 0 && HolderHas(known, wanted)) return known;
        }
        SeenSockets seen;
        Holder found;
        for (const Holder& known : owners) {
            if (known.pid <= 0) continue;
            int fd = -1;
            const FolderWalk walk = WalkFolder(std::to_string(known.pid).c_str(), wanted, fd, seen);
            if (walk == FolderWalk::Gone) Forget(known.pid);
            if (walk == FolderWalk::Found) {
                found = Holder{known.pid, fd};
                break;
            }
        }
        Note(seen);
        return found;
    }

    // Most recent first, so that the busiest client is looked at first.
    void Remember(const Holder& holder) {
        std::lock_guard<std::mutex> hold(m_lock);
        std::size_t at = kOwners - 1;
        for (std::size_t i = 0; i < kOwners; ++i) {
            if (m_owners[i].pid == holder.pid) {
                at = i;
                break;
            }
        }
        for (std::size_t i = at; i > 0; --i) m_owners[i] = m_owners[i - 1];
        m_owners[0] = holder;
    }

    void Note(const SeenSockets& seen) {
        if (seen.empty()) return;
        std::lock_guard<std::mutex> hold(m_lock);
        for (const auto& socket : seen) {
            if (!m_seen.emplace(socket.first, socket.second).second) continue;
            m_order.push_back(socket.first);
        }
        // Oldest first; an inode that was taken out by a lookup is simply not there any more.
        while (m_order.size() > kSeenLimit) {
            m_seen.erase(m_order.front());
            m_order.pop_front();
        }
    }

private:
    static constexpr std::size_t kOwners = 8;
    // A few times the connections a busy client opens at once; about 100 KB at the most.
    static constexpr std::size_t kSeenLimit = 4096;

    // An owner that has exited is dropped, so that it costs no failed reads any more.
    void Forget(int32_t pid) {
        std::lock_guard<std::mutex> hold(m_lock);
        for (Holder& known : m_owners) {
            if (known.pid == pid) known = Holder{};
        }
    }

    std::mutex m_lock;
    std::array<Holder, kOwners> m_owners{};
    std::unordered_map<unsigned long, Holder> m_seen;
    std::deque<unsigned long> m_order;
};

COwnerCache g_owners;

// Scans /proc/*/fd. The processes of the socket's uid are looked at first; the others after,
// since a descriptor may have been handed on or its holder may have changed uid since.
Holder ScanForInode(unsigned long wanted, uid_t uid) {
    DIR* processes = ::opendir("/proc");
    if (processes == nullptr) return Holder{};
    Holder owner;
    SeenSockets seen;
    std::vector<std::string> others;
    while (const dirent* entry = ::readdir(processes)) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9') continue;
        struct stat facts {};
        if (::fstatat(::dirfd(processes), entry->d_name, &facts, 0) == 0 && facts.st_uid != uid) {
            others.emplace_back(entry->d_name);
            continue;
        }
        if (WalkFolder(entry->d_name, wanted, owner.fd, seen) == FolderWalk::Found) {
            owner.pid = static_cast<int32_t>(std::strtol(entry->d_name, nullptr, 10));
            break;
        }
    }
    ::closedir(processes);
    for (std::size_t i = 0; owner.pid == -1 && i < others.size(); ++i) {
        if (WalkFolder(others[i].c_str(), wanted, owner.fd, seen) == FolderWalk::Found)
            owner.pid = static_cast<int32_t>(std::strtol(others[i].c_str(), nullptr, 10));
    }
    // Only the owner's own sockets are worth noting; the rest of the host's are not diverted
    // connections waiting for a lookup, most of them.
    if (owner.pid != -1) {
        SeenSockets own;
        for (const auto& socket : seen) {
            if (socket.second.pid == owner.pid) own.push_back(socket);
        }
        g_owners.Note(own);
    }
    return owner;
}

int32_t FindInodeOwner(const SocketFacts& socket) {
    Holder owner = g_owners.Find(socket.inode);
    if (owner.pid == -1) owner = ScanForInode(socket.inode, socket.uid);
    if (owner.pid != -1) g_owners.Remember(owner);
    return owner.pid;
}

}  // namespace

bool FindTcpListeners(int family, uint16_t port, std::vector<std::array<unsigned char, 16>>& out) {
    out.clear();
    inet_diag_req_v2 request = TcpRequest(family);
    request.idiag_states = 1U << TCP_LISTEN;
    const CDiagSocket diag;
    if (!diag.Send(request, NLM_F_REQUEST | NLM_F_DUMP)) return false;
    alignas(nlmsghdr) char reply[16384];
    // Bounded: a namespace has few listeners, and a dump that never ends must not hold the
    // caller.
    for (int part = 0; part < 1024; ++part) {
        std::size_t length = 0;
        if (!diag.Receive(reply, sizeof(reply), length)) return false;
        for (auto* header = reinterpret_cast<const nlmsghdr*>(reply); NLMSG_OK(header, length);
             header = NLMSG_NEXT(header, length)) {
            if (header->nlmsg_type == NLMSG_DONE) return true;
            if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
                header->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg)))
                return false;
            const auto* found = static_cast<const inet_diag_msg*>(NLMSG_DATA(header));
            if (ntohs(found->id.idiag_sport) != port) continue;
            std::array<unsigned char, 16> address{};
            std::memcpy(address.data(), found->id.idiag_src, family == AF_INET ? 4 : 16);
            out.push_back(address);
        }
    }
    return false;
}

int32_t FindTcpSocketOwner(const sockaddr* local, const sockaddr* remote) {
    Endpoint localEnd;
    Endpoint remoteEnd;
    if (!ToEndpoint(local, localEnd) || !ToEndpoint(remote, remoteEnd)) return -1;
    const SocketFacts socket = FindSocket(localEnd, remoteEnd, local->sa_family == AF_INET);
    if (socket.inode == 0) return -1;
    return FindInodeOwner(socket);
}
