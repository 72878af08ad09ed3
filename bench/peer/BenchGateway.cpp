// SPDX-License-Identifier: Apache-2.0
// swg-bench-gateway: the lightest gateway the agent accepts, for the peer benchmark. One epoll
// thread; a CONNECT is answered with 200 and a Via line that names a gateway, any other request
// head is forwarded as it came to the Host it names; then bytes are relayed both ways, a FIN
// passed on as a half-close. No licence check, no log, no faults: whatever relays through it
// pays the same small cost, so the figures compare the relays in front of it.
//
//   swg-bench-gateway LISTEN_IP:PORT [LISTEN_IP:PORT ...]
//
// Destinations are numeric IPv4 addresses in 198.18.0.0/15 or 127.0.0.0/8 only.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kBuffer = 65536;
constexpr std::size_t kHeadLimit = 65536;
constexpr char kConnectReply[] =
    "HTTP/1.1 200 Connection established\r\nVia: 1.1 s_proxy_bench\r\n\r\n";

struct Session;

// What an epoll entry points at: a listener (session null) or one side of a session.
struct Side {
    Session* session = nullptr;
    int fd = -1;
    bool listener = false;
};

// One direction: bytes read from `from` wait in `buffer` for `to`.
struct Pipe {
    std::vector<char> buffer = std::vector<char>(kBuffer);
    std::size_t begin = 0;
    std::size_t end = 0;
    bool eof = false;   // `from` has ended; `to` gets a FIN once the buffer is empty
    bool done = false;  // the FIN has been passed on
};

struct Session {
    Side client;
    Side upstream;
    bool connecting = false;
    bool relaying = false;
    bool closed = false;
    std::string head;
    Pipe up;    // client to upstream
    Pipe down;  // upstream to client
};

int g_epoll = -1;
// Sessions closed during one batch of events, freed after it: a later event of the same batch
// may still point at them.
std::vector<Session*> g_closed;

bool IsAllowed(in_addr_t address) {
    const std::uint32_t host = ntohl(address);
    return (host >> 17) == (0xC6120000u >> 17) || (host >> 24) == 127;
}

void SetNoDelay(int fd) {
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

void Watch(Side& side, std::uint32_t events, int op) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = &side;
    (void)epoll_ctl(g_epoll, op, side.fd, &event);
}

void Close(Session* session) {
    for (Side* side : {&session->client, &session->upstream}) {
        if (side->fd != -1) close(side->fd);  // close also leaves the epoll set
        side->fd = -1;
    }
    session->closed = true;
    g_closed.push_back(session);
}

// Interest of each side from the state of both pipes.
void Rearm(Session* session) {
    std::uint32_t client = 0;
    std::uint32_t upstream = 0;
    if (!session->relaying) {
        if (session->connecting)
            upstream = EPOLLOUT;
        else
            client = EPOLLIN;
    } else {
        if (session->up.end == 0 && !session->up.eof) client |= EPOLLIN;
        if (session->up.end > session->up.begin) upstream |= EPOLLOUT;
        if (session->down.end == 0 && !session->down.eof) upstream |= EPOLLIN;
        if (session->down.end > session->down.begin) client |= EPOLLOUT;
    }
    Watch(session->client, client, EPOLL_CTL_MOD);
    if (session->upstream.fd != -1) Watch(session->upstream, upstream, EPOLL_CTL_MOD);
}

// Parses "host:port" (CONNECT) or the Host header (any other method, port 80 by default).
bool Destination(const std::string& head, sockaddr_in& target) {
    std::string authority;
    if (head.compare(0, 8, "CONNECT ") == 0) {
        authority = head.substr(8, head.find(' ', 8) - 8);
    } else {
        std::size_t at = head.find("\r\nHost:");
        if (at == std::string::npos) at = head.find("\r\nhost:");
        if (at == std::string::npos) return false;
        at = head.find_first_not_of(' ', at + 7);
        authority = head.substr(at, head.find("\r\n", at) - at);
    }
    const std::size_t colon = authority.find(':');
    const std::string host = authority.substr(0, colon);
    const int port = colon == std::string::npos ? 80 : std::atoi(authority.c_str() + colon + 1);
    target = sockaddr_in{};
    target.sin_family = AF_INET;
    target.sin_port = htons(static_cast<std::uint16_t>(port));
    return port > 0 && port < 65536 && inet_pton(AF_INET, host.c_str(), &target.sin_addr) == 1 &&
           IsAllowed(target.sin_addr.s_addr);
}

// Fills `pipe` from the request: a forwarded head and whatever followed it go upstream first.
void StartRelay(Session* session) {
    const bool tunnel = session->head.compare(0, 8, "CONNECT ") == 0;
    const std::size_t headEnd = session->head.find("\r\n\r\n") + 4;
    std::string toUpstream = tunnel ? session->head.substr(headEnd) : session->head;
    std::string toClient = tunnel ? std::string(kConnectReply) : std::string();
    std::memcpy(session->up.buffer.data(), toUpstream.data(), toUpstream.size());
    session->up.end = toUpstream.size();
    std::memcpy(session->down.buffer.data(), toClient.data(), toClient.size());
    session->down.end = toClient.size();
    session->head.clear();
    session->relaying = true;
}

bool ReadHead(Session* session) {
    char chunk[4096];
    const ssize_t count = recv(session->client.fd, chunk, sizeof(chunk), 0);
    if (count == 0 || (count < 0 && errno != EAGAIN)) return false;
    if (count < 0) return true;
    session->head.append(chunk, static_cast<std::size_t>(count));
    if (session->head.find("\r\n\r\n") == std::string::npos)
        return session->head.size() < kHeadLimit;
    if (session->head.size() > kBuffer) return false;
    sockaddr_in target{};
    if (!Destination(session->head, target)) return false;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd == -1) return false;
    SetNoDelay(fd);
    session->upstream.fd = fd;
    Watch(session->upstream, 0, EPOLL_CTL_ADD);
    if (connect(fd, reinterpret_cast<sockaddr*>(&target), sizeof(target)) == 0) {
        StartRelay(session);
    } else if (errno == EINPROGRESS) {
        session->connecting = true;
    } else {
        return false;
    }
    return true;
}

bool FinishConnect(Session* session) {
    int error = 0;
    socklen_t length = sizeof(error);
    if (getsockopt(session->upstream.fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0)
        return false;
    session->connecting = false;
    StartRelay(session);
    return true;
}

// One read into and one write out of `pipe`; false when the session must end.
bool Move(Pipe& pipe, int from, int to, std::uint32_t events, bool fromSide) {
    if (fromSide && (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) && pipe.end == 0 && !pipe.eof) {
        const ssize_t count = recv(from, pipe.buffer.data(), kBuffer, 0);
        if (count > 0) {
            pipe.begin = 0;
            pipe.end = static_cast<std::size_t>(count);
        } else if (count == 0) {
            pipe.eof = true;
        } else if (errno != EAGAIN) {
            return false;
        }
    }
    if (pipe.end > pipe.begin) {
        const ssize_t count =
            send(to, pipe.buffer.data() + pipe.begin, pipe.end - pipe.begin, MSG_NOSIGNAL);
        if (count > 0) {
            pipe.begin += static_cast<std::size_t>(count);
            if (pipe.begin == pipe.end) pipe.begin = pipe.end = 0;
        } else if (count < 0 && errno != EAGAIN) {
            return false;
        }
    }
    if (pipe.eof && pipe.end == 0 && !pipe.done) {
        (void)shutdown(to, SHUT_WR);
        pipe.done = true;
    }
    return true;
}

void Serve(Side* side, std::uint32_t events) {
    Session* session = side->session;
    if (session->closed) return;
    bool alive = true;
    if (!session->relaying) {
        alive = session->connecting ? FinishConnect(session) : ReadHead(session);
    }
    if (alive && session->relaying) {
        const bool fromClient = side == &session->client;
        const int client = session->client.fd;
        const int upstream = session->upstream.fd;
        // Each event serves both pipes: a side that turned writable lets its pipe drain.
        alive = Move(session->up, client, upstream, fromClient ? events : 0, fromClient) &&
                Move(session->down, upstream, client, fromClient ? 0 : events, !fromClient);
        alive = alive && !(session->up.done && session->down.done);
    }
    if (!alive) {
        Close(session);
        return;
    }
    Rearm(session);
}

void Accept(int listener) {
    for (;;) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd == -1) return;
        SetNoDelay(fd);
        auto* session = new Session;
        session->client = Side{session, fd, false};
        session->upstream = Side{session, -1, false};
        Watch(session->client, EPOLLIN, EPOLL_CTL_ADD);
    }
}

int Listen(const char* text, std::vector<Side>& sides) {
    std::string address(text);
    const std::size_t colon = address.rfind(':');
    sockaddr_in bind_to{};
    bind_to.sin_family = AF_INET;
    bind_to.sin_port = htons(static_cast<std::uint16_t>(std::atoi(address.c_str() + colon + 1)));
    if (colon == std::string::npos ||
        inet_pton(AF_INET, address.substr(0, colon).c_str(), &bind_to.sin_addr) != 1)
        return -1;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(fd, reinterpret_cast<sockaddr*>(&bind_to), sizeof(bind_to)) != 0 ||
        listen(fd, 4096) != 0)
        return -1;
    sides.push_back(Side{nullptr, fd, true});
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s LISTEN_IP:PORT [LISTEN_IP:PORT ...]\n", argv[0]);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    g_epoll = epoll_create1(EPOLL_CLOEXEC);
    std::vector<Side> listeners;
    listeners.reserve(static_cast<std::size_t>(argc));
    for (int i = 1; i < argc; ++i) {
        if (Listen(argv[i], listeners) == -1) {
            std::fprintf(stderr, "swg-bench-gateway: cannot listen on %s: %s\n", argv[i],
                         std::strerror(errno));
            return 1;
        }
    }
    for (Side& listener : listeners) Watch(listener, EPOLLIN, EPOLL_CTL_ADD);
    std::printf("ready\n");
    std::fflush(stdout);
    epoll_event events[256];
    for (;;) {
        const int count = epoll_wait(g_epoll, events, 256, -1);
        for (int i = 0; i < count; ++i) {
            auto* side = static_cast<Side*>(events[i].data.ptr);
            if (side->listener)
                Accept(side->fd);
            else
                Serve(side, events[i].events);
        }
        for (Session* session : g_closed) delete session;
        g_closed.clear();
    }
}
