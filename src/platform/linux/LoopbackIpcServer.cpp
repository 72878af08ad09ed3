// SPDX-License-Identifier: Apache-2.0
// The plug-in channel's transport on Linux: a TCP server on the loopback address.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/linux/LoopbackIpcServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <system_error>

#include "foundation/GlobalConst.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Trace.h"

namespace {
constexpr int kBacklog = 16;
constexpr std::size_t kMaxRefusedLogged = 64;
constexpr int kAcceptRoundsPerWake = 16;
constexpr std::chrono::milliseconds kAcceptPause{100};
constexpr std::size_t kReadChunk = 16384;

std::string AddressText(const sockaddr_in& address) {
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

// Writes all of `parts` or fails; waits for room until `deadline`. 0 or an errno value.
int SendAll(int fd, iovec* parts, int count, std::chrono::steady_clock::time_point deadline) {
    while (count > 0) {
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = static_cast<std::size_t>(count);
        ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            const int error = errno;
            if (error == EINTR) continue;
            if (error != EAGAIN && error != EWOULDBLOCK) return error;
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd room{fd, POLLOUT, 0};
            if (left.count() <= 0 || poll(&room, 1, static_cast<int>(left.count())) == 0)
                return ETIMEDOUT;
            continue;
        }
        while (count > 0 && static_cast<std::size_t>(sent) >= parts->iov_len) {
            sent -= static_cast<ssize_t>(parts->iov_len);
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char*>(parts->iov_base) + sent;
            parts->iov_len -= static_cast<std::size_t>(sent);
        }
    }
    return 0;
}
}  // namespace

// One connection. The descriptor is closed when the last holder (the poll thread's list, the
// session map, a Send in progress) lets go, so a send never writes to a reused descriptor.
struct CLoopbackIpcServer::Peer {
    Peer(int descriptor, std::string where) : fd(descriptor), address(std::move(where)) {}
    ~Peer() { close(fd); }

    const int fd;
    const std::string address;
    CIpcFrameReader reader{true};
    bool identified = false;
    IPC_IDENTITY identity = IPC_IDENTITY_SERVICE;
    unsigned short session = 0;
    Clock::time_point deadline = Clock::time_point::max();
    Clock::time_point windowStart{};  // start of the second whose frames are counted
    unsigned int framesInWindow = 0;
    std::atomic<bool> closed{false};
    std::mutex writeLock;
};

IIPCServer* CIPCFactory::CreateIPCServer(IPC_IDENTITY /*self*/, IIPCCallback* callback,
                                         LM_STATUSCODE& status, unsigned short port) {
    IIPCServer* server = new (std::nothrow) CLoopbackIpcServer(callback, port);
    status = server != nullptr ? 0 : SWG_E_OUTOFMEMORY;
    return server;
}

CLoopbackIpcServer::CLoopbackIpcServer(IIPCCallback* callback, unsigned short port,
                                       LoopbackIpcLimits limits)
    : m_callback(callback), m_port(port), m_limits(limits) {}

CLoopbackIpcServer::~CLoopbackIpcServer() { TearDown(); }

void CLoopbackIpcServer::Release() { delete this; }

long CLoopbackIpcServer::Setup(const std::list<IPC_IDENTITY>& peers, unsigned int /*parameter*/) {
    if (m_listen >= 0) return 0;
    m_served = std::set<uint32_t>(peers.begin(), peers.end());
    int error = 0;
    m_listen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(m_port);
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(local);
    const int on = 1;
    if (m_listen < 0 || setsockopt(m_listen, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(m_listen, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0 ||
        listen(m_listen, kBacklog) != 0 ||
        getsockname(m_listen, reinterpret_cast<sockaddr*>(&local), &length) != 0 ||
        (m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) < 0) {
        error = errno;
    }
    if (error == 0) {
        try {
            m_thread = std::thread(&CLoopbackIpcServer::Run, this);
        } catch (const std::system_error& e) {
            error = e.code().value();
        }
    }
    if (error != 0) {
        DNTRACE(ERR, "SecureIPC : cannot listen on 127.0.0.1:%u: %s", m_port,
                ErrnoText(error).c_str());
        TearDown();
        return error;
    }
    m_boundPort = ntohs(local.sin_port);
    DNTRACE(IPC, "SecureIPC : listening on 127.0.0.1:%u", static_cast<unsigned>(m_boundPort));
    return 0;
}

void CLoopbackIpcServer::TearDown() {
    if (m_thread.joinable()) {
        m_stop = true;
        const uint64_t one = 1;
        const ssize_t written = write(m_wake, &one, sizeof(one));
        (void)written;  // a full counter already wakes the poll
        m_thread.join();
    }
    for (const PeerPtr& peer : m_peers) Close(peer, false);
    m_peers.clear();
    for (int* fd : {&m_listen, &m_wake}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
}

long CLoopbackIpcServer::Send(const IPC_MESSAGE& message, unsigned short session) {
    PeerPtr peer;
    {
        std::lock_guard<std::mutex> hold(m_sessionLock);
        const auto found = m_sessions.find(session);
        if (found != m_sessions.end()) peer = found->second;
    }
    if (!peer || peer->closed) return ENOTCONN;
    uint32_t length = message.length;
    iovec parts[2] = {{&length, sizeof(length)},
                      {const_cast<unsigned char*>(message.data), message.length}};
    std::lock_guard<std::mutex> hold(peer->writeLock);
    const int error = SendAll(peer->fd, parts, 2, Clock::now() + m_limits.sendWait);
    if (error == 0) return 0;
    DNTRACE(IPC, "SecureIPC : send to session %u of peer %s failed: %s", session,
            peer->address.c_str(), ErrnoText(error).c_str());
    // Part of a frame may be out: the stream is broken. The poll thread sees the shutdown,
    // closes the connection and reports it gone.
    shutdown(peer->fd, SHUT_RDWR);
    return error;
}

void CLoopbackIpcServer::Run() {
    std::vector<pollfd> waits;
    std::vector<PeerPtr> polled;
    while (!m_stop) {
        const Clock::time_point now = Clock::now();
        const bool accepting = now >= m_acceptPausedUntil;
        waits.assign({{m_wake, POLLIN, 0}, {accepting ? m_listen : -1, POLLIN, 0}});
        polled = m_peers;
        for (const PeerPtr& peer : polled) waits.push_back({peer->fd, POLLIN, 0});
        const int ready = poll(waits.data(), waits.size(), NextTimeoutMs(now));
        if (ready < 0 && errno != EINTR) {
            const int error = errno;
            DNTRACE(ERR, "SecureIPC : poll failed: %s", ErrnoText(error).c_str());
            m_acceptPausedUntil = Clock::now() + kAcceptPause;
            std::this_thread::sleep_for(kAcceptPause);
            continue;
        }
        const Clock::time_point after = Clock::now();
        if ((waits[1].revents & POLLIN) != 0) Accept(after);
        for (std::size_t i = 0; i < polled.size(); ++i) {
            if (waits[i + 2].revents != 0 && !polled[i]->closed) Read(polled[i], after);
        }
        ExpireDeadlines(after);
        m_peers.erase(std::remove_if(m_peers.begin(), m_peers.end(),
                                     [](const PeerPtr& peer) { return peer->closed.load(); }),
                      m_peers.end());
        if ((waits[0].revents & POLLIN) != 0) {
            uint64_t count = 0;
            const ssize_t got = read(m_wake, &count, sizeof(count));
            (void)got;
        }
    }
}

int CLoopbackIpcServer::NextTimeoutMs(Clock::time_point now) const {
    Clock::time_point next = Clock::time_point::max();
    if (now < m_acceptPausedUntil) next = m_acceptPausedUntil;
    for (const PeerPtr& peer : m_peers) next = std::min(next, peer->deadline);
    if (next == Clock::time_point::max()) return -1;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count();
    return static_cast<int>(std::clamp<long long>(left + 1, 0, 60000));
}

void CLoopbackIpcServer::Accept(Clock::time_point now) {
    for (int round = 0; round < kAcceptRoundsPerWake; ++round) {
        sockaddr_in from{};
        socklen_t length = sizeof(from);
        const int fd = accept4(m_listen, reinterpret_cast<sockaddr*>(&from), &length,
                               SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            const int error = errno;
            if (error == EAGAIN || error == EWOULDBLOCK) return;
            if (error == EINTR || error == ECONNABORTED || error == EPROTO) continue;
            // Out of descriptors or memory: the listener would stay readable and the loop spin.
            DNTRACE(ERR, "SecureIPC : accept failed: %s", ErrnoText(error).c_str());
            m_acceptPausedUntil = now + kAcceptPause;
            return;
        }
        const std::string address = AddressText(from);
        if (!Admit(address, ntohl(from.sin_addr.s_addr))) {
            close(fd);
            continue;
        }
        auto peer = std::make_shared<Peer>(fd, address);
        peer->deadline = now + m_limits.identityWait;
        m_peers.push_back(peer);
    }
}

bool CLoopbackIpcServer::Admit(const std::string& address, uint32_t ipv4) {
    if ((ipv4 >> 24) != 127) {
        // Logged once per address, and only for the first few addresses, so that a flood of
        // refused connections cannot flood the log or this set.
        if (m_refusedLogged.size() < kMaxRefusedLogged && m_refusedLogged.insert(ipv4).second) {
            DNTRACE(ERR, "SecureIPC : refused peer %s: not a loopback address", address.c_str());
        }
        return false;
    }
    const std::size_t waiting = static_cast<std::size_t>(
        std::count_if(m_peers.begin(), m_peers.end(),
                      [](const PeerPtr& peer) { return !peer->identified && !peer->closed; }));
    if (waiting >= m_limits.maxWaiting) {
        DNTRACE(ERR, "SecureIPC : refused peer %s: %zu connections already wait for their identity",
                address.c_str(), waiting);
        return false;
    }
    return true;
}

void CLoopbackIpcServer::Read(const PeerPtr& peer, Clock::time_point now) {
    unsigned char buffer[kReadChunk];
    const ssize_t got = recv(peer->fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (got < 0) {
        const int error = errno;
        if (error != EAGAIN && error != EWOULDBLOCK && error != EINTR) {
            Drop(peer, std::string("receive failed: ") + ErrnoText(error));
        }
        return;
    }
    if (got == 0) {
        EndOfStream(peer);
        return;
    }
    const unsigned char* data = buffer;
    std::size_t size = static_cast<std::size_t>(got);
    while (size > 0 && !peer->closed) {
        switch (peer->reader.Consume(data, size)) {
            case CIpcFrameReader::NeedMore:
                break;
            case CIpcFrameReader::IdentityDone:
                TakeIdentity(peer);
                break;
            case CIpcFrameReader::FrameDone: {
                if (now - peer->windowStart >= std::chrono::seconds(1)) {
                    peer->windowStart = now;
                    peer->framesInWindow = 0;
                }
                if (++peer->framesInWindow > m_limits.maxFramesPerSecond) {
                    Drop(peer, "more than " + std::to_string(m_limits.maxFramesPerSecond) +
                                   " frames within a second");
                    break;
                }
                IPC_MESSAGE message;
                message.length = static_cast<uint32_t>(peer->reader.FrameBytes().size());
                message.data = peer->reader.FrameBytes().data();
                m_callback->OnMsgRecv(message, peer->identity, peer->session);
                break;
            }
            case CIpcFrameReader::TooLong:
                Drop(peer, "frame of " + std::to_string(peer->reader.DeclaredLength()) +
                               " bytes is over the limit of " + std::to_string(kMaxIpcFrameBytes));
                break;
            case CIpcFrameReader::NoMagic:
                Drop(peer, "frame without the packet magic");
                break;
        }
    }
    if (peer->closed || !peer->identified) return;
    // A plug-in may stay quiet for ever, but a frame it has begun must end.
    if (!peer->reader.Partial()) {
        peer->deadline = Clock::time_point::max();
    } else if (peer->deadline == Clock::time_point::max()) {
        peer->deadline = now + m_limits.frameWait;
    }
}

void CLoopbackIpcServer::TakeIdentity(const PeerPtr& peer) {
    const uint32_t identity = peer->reader.Identity();
    if (m_served.count(identity) == 0) {
        Drop(peer, "identity " + std::to_string(identity) + " is not served");
        return;
    }
    const unsigned short session = NextSession();
    for (const PeerPtr& older : m_peers) {
        if (older == peer || older->closed || !older->identified || older->identity != identity)
            continue;
        DNTRACE(IPC, "SecureIPC : session %u of peer %s replaced by session %u of peer %s",
                older->session, older->address.c_str(), session, peer->address.c_str());
        Close(older, true);
    }
    peer->identified = true;
    peer->identity = static_cast<IPC_IDENTITY>(identity);
    peer->session = session;
    peer->deadline = Clock::time_point::max();
    {
        std::lock_guard<std::mutex> hold(m_sessionLock);
        m_sessions[session] = peer;
    }
    DNTRACE(IPC, "SecureIPC : peer %s is session %u of identity %u", peer->address.c_str(), session,
            identity);
    m_callback->OnPeerStateChanged(peer->identity, session, IPC_CONN_CONNECTED);
}

void CLoopbackIpcServer::EndOfStream(const PeerPtr& peer) {
    if (peer->reader.Partial()) {
        Drop(peer, "connection closed inside a frame");
    } else if (peer->identified) {
        DNTRACE(IPC, "SecureIPC : session %u of peer %s closed", peer->session,
                peer->address.c_str());
        Close(peer, true);
    } else {
        DNTRACE(IPC, "SecureIPC : peer %s closed before sending its identity",
                peer->address.c_str());
        Close(peer, false);
    }
}

void CLoopbackIpcServer::ExpireDeadlines(Clock::time_point now) {
    for (const PeerPtr& peer : m_peers) {
        if (peer->closed || peer->deadline > now) continue;
        const auto& wait = peer->identified ? m_limits.frameWait : m_limits.identityWait;
        Drop(peer, std::string(peer->identified ? "frame not complete" : "no identity") +
                       " within " + std::to_string(wait.count()) + " ms");
    }
}

void CLoopbackIpcServer::Drop(const PeerPtr& peer, const std::string& reason) {
    DNTRACE(ERR, "SecureIPC : dropped peer %s: %s", peer->address.c_str(), reason.c_str());
    Close(peer, true);
}

void CLoopbackIpcServer::Close(const PeerPtr& peer, bool report) {
    if (peer->closed.exchange(true)) return;
    shutdown(peer->fd, SHUT_RDWR);
    if (!peer->identified) return;
    {
        std::lock_guard<std::mutex> hold(m_sessionLock);
        m_sessions.erase(peer->session);
    }
    if (report)
        m_callback->OnPeerStateChanged(peer->identity, peer->session, IPC_CONN_DISCONNECTED);
}

unsigned short CLoopbackIpcServer::NextSession() {
    std::lock_guard<std::mutex> hold(m_sessionLock);
    do {
        ++m_lastSession;
    } while (m_lastSession == 0 || m_sessions.count(m_lastSession) != 0);
    return m_lastSession;
}
