// SPDX-License-Identifier: Apache-2.0
// Throughput and connection rate through the agent's listener and relay, against direct and socat.
//
// Runs in a network namespace of its own (needs root), so that port 5002 is free and nothing
// leaves the host. Three paths to the same in-process servers on 127.0.0.1:
//   direct  client -> server
//   agent   client -> 127.0.0.1:5002 (CDnListenThread, session record in front) -> server
//   socat   client -> socat TCP-LISTEN:p,fork,reuseaddr TCP:127.0.0.1:q -> server
// Bulk: one connection moves SWG_BENCH_MB megabytes (default 256) up, then one down.
// Every client speaks first and ends a line early: the agent waits for a client's first line
// before it connects (a silent client is dropped after 2 s), so on every path the request, each
// upload chunk and the download's opening line end with a newline.
// Rate: SWG_BENCH_CONNECTIONS connections (default 4000) from SWG_BENCH_CLIENTS client
// threads (default 4), each a 64-byte request and a 64-byte answer on a new connection.
// Every figure is the median of SWG_BENCH_ROUNDS rounds (default 5); the paths take turns
// within a round. Every transfer stops after 30 s, every rate phase after 20 s.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "platform/RedirectorRecords.h"
#include "proxy/ListenThread.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kChunk = 65536;
constexpr std::size_t kMessage = 64;
constexpr auto kTransferLimit = std::chrono::seconds(30);
constexpr auto kRateLimit = std::chrono::seconds(20);

std::size_t EnvNumber(const char* name, std::size_t fallback, std::size_t most) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') return fallback;
    const unsigned long value = std::strtoul(text, nullptr, 10);
    return value == 0 ? fallback : std::min<std::size_t>(value, most);
}

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

sockaddr_in Loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

int Listen(std::uint16_t& port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof(address);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(fd, 1024) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::perror("server socket");
        std::exit(1);
    }
    port = ntohs(address.sin_port);
    return fd;
}

int Connect(std::uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = Loopback(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool SendAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n <= 0) return false;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

bool ReadAll(int fd, char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::recv(fd, data, size, 0);
        if (n <= 0) return false;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

// The record a client of the agent sends first, naming the server as its destination.
std::string RecordFor(std::uint16_t port) {
    ngc_session_info record;
    std::memset(&record, 0, sizeof(record));
    record.orig_dst.v4 = Loopback(port);
    record.process_id = -1;
    return std::string(reinterpret_cast<const char*>(&record), sizeof(record));
}

// ---- servers ----------------------------------------------------------------------------

// Accepts on its own thread; each connection is handed to `serve` on a thread of its own.
class BulkServer {
public:
    explicit BulkServer(std::function<void(int)> serve) : m_serve(std::move(serve)) {
        m_fd = Listen(m_port);
        m_acceptor = std::thread([this] {
            for (;;) {
                const int fd = ::accept(m_fd, nullptr, nullptr);
                if (fd == -1) return;
                std::thread([this, fd] {
                    m_serve(fd);
                    ::close(fd);
                }).detach();
            }
        });
    }
    ~BulkServer() {
        ::shutdown(m_fd, SHUT_RDWR);
        m_acceptor.join();
        ::close(m_fd);
    }
    std::uint16_t Port() const { return m_port; }

private:
    std::function<void(int)> m_serve;
    std::uint16_t m_port = 0;
    int m_fd = -1;
    std::thread m_acceptor;
};

// One epoll thread: reads a 64-byte request, answers 64 bytes, closes at the client's close.
// Its cost per connection is small and the same for every path.
class RequestServer {
public:
    RequestServer() {
        m_fd = Listen(m_port);
        m_epoll = ::epoll_create1(0);
        Watch(m_fd);
        m_thread = std::thread([this] { Loop(); });
    }
    ~RequestServer() {
        m_stop = true;
        m_thread.join();
        for (const auto& entry : m_pending) ::close(entry.first);
        ::close(m_epoll);
        ::close(m_fd);
    }
    std::uint16_t Port() const { return m_port; }

private:
    void Watch(int fd) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event);
    }
    void Loop() {
        epoll_event events[64];
        char buffer[kMessage];
        const std::string answer(kMessage, 'a');
        while (!m_stop) {
            const int count = ::epoll_wait(m_epoll, events, 64, 100);
            for (int i = 0; i < count; ++i) {
                const int fd = events[i].data.fd;
                if (fd == m_fd) {
                    const int client = ::accept(m_fd, nullptr, nullptr);
                    if (client == -1) continue;
                    m_pending[client] = 0;
                    Watch(client);
                    continue;
                }
                std::size_t& got = m_pending[fd];
                const ssize_t n = ::recv(fd, buffer, kMessage - (got % kMessage), 0);
                if (n <= 0) {
                    ::epoll_ctl(m_epoll, EPOLL_CTL_DEL, fd, nullptr);
                    m_pending.erase(fd);
                    ::close(fd);
                    continue;
                }
                got += static_cast<std::size_t>(n);
                if (got % kMessage == 0) (void)SendAll(fd, answer.data(), answer.size());
            }
        }
    }

    std::uint16_t m_port = 0;
    int m_fd = -1;
    int m_epoll = -1;
    std::atomic<bool> m_stop{false};
    std::map<int, std::size_t> m_pending;
    std::thread m_thread;
};

// ---- socat ------------------------------------------------------------------------------

class Socat {
public:
    Socat(std::uint16_t listenPort, std::uint16_t target) : m_port(listenPort) {
        const std::string listen = "TCP-LISTEN:" + std::to_string(listenPort) + ",fork,reuseaddr";
        const std::string connect = "TCP:127.0.0.1:" + std::to_string(target);
        m_pid = ::fork();
        if (m_pid == 0) {
            // Its complaints about peers that went away are noise here.
            const int null = ::open("/dev/null", O_WRONLY);
            if (null != -1) ::dup2(null, STDERR_FILENO);
            ::execlp("socat", "socat", listen.c_str(), connect.c_str(),
                     static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~Socat() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGTERM);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    // Waits until socat listens (a probe connection is made and closed at once).
    bool Ready() {
        for (int i = 0; i < 200; ++i) {
            const int fd = Connect(m_port);
            if (fd != -1) {
                ::close(fd);
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

private:
    std::uint16_t m_port;
    pid_t m_pid = -1;
};

// ---- measurements -------------------------------------------------------------------------

struct Path {
    const char* name;
    std::uint16_t port;  // where the client connects
    bool agent;          // send the session record first
};

// Megabytes per second for `total` bytes from client to server.
double Upload(const Path& path, std::uint16_t sinkPort, std::atomic<std::uint64_t>& sunk,
              std::atomic<int>& sinksDone, std::size_t total) {
    const int before = sinksDone.load();
    sunk = 0;
    const auto start = Clock::now();
    const int fd = Connect(path.port);
    if (fd == -1) return 0;
    std::string head = path.agent ? RecordFor(sinkPort) : std::string();
    if (!head.empty()) (void)SendAll(fd, head.data(), head.size());
    std::vector<char> chunk(kChunk, 'u');
    chunk.back() = '\n';
    std::size_t sent = 0;
    while (sent < total && Clock::now() - start < kTransferLimit) {
        const std::size_t n = std::min(kChunk, total - sent);
        if (!SendAll(fd, chunk.data(), n)) break;
        sent += n;
    }
    ::shutdown(fd, SHUT_WR);
    while (sinksDone.load() == before &&
           Clock::now() - start < kTransferLimit + std::chrono::seconds(5))
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    const double seconds = Seconds(Clock::now() - start);
    ::close(fd);
    return static_cast<double>(sunk.load()) / 1048576.0 / seconds;
}

// Megabytes per second for what the source sends until it closes.
double Download(const Path& path, std::uint16_t sourcePort) {
    const auto start = Clock::now();
    const int fd = Connect(path.port);
    if (fd == -1) return 0;
    const std::string head = (path.agent ? RecordFor(sourcePort) : std::string()) + "go\n";
    (void)SendAll(fd, head.data(), head.size());
    std::vector<char> chunk(kChunk);
    std::uint64_t received = 0;
    while (Clock::now() - start < kTransferLimit) {
        const ssize_t n = ::recv(fd, chunk.data(), chunk.size(), 0);
        if (n <= 0) break;
        received += static_cast<std::uint64_t>(n);
    }
    const double seconds = Seconds(Clock::now() - start);
    ::close(fd);
    return static_cast<double>(received) / 1048576.0 / seconds;
}

// Connections per second, each a request and its answer on a new connection.
double Rate(const Path& path, std::uint16_t serverPort, std::size_t connections,
            std::size_t clients) {
    std::atomic<std::size_t> next{0};
    std::atomic<std::size_t> done{0};
    const std::string head = (path.agent ? RecordFor(serverPort) : std::string()) +
                             std::string(kMessage - 1, 'q') + "\n";
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (std::size_t c = 0; c < clients; ++c) {
        threads.emplace_back([&] {
            char answer[kMessage];
            while (next++ < connections && Clock::now() - start < kRateLimit) {
                const int fd = Connect(path.port);
                if (fd == -1) continue;
                if (SendAll(fd, head.data(), head.size()) && ReadAll(fd, answer, kMessage)) ++done;
                ::close(fd);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    return static_cast<double>(done.load()) / Seconds(Clock::now() - start);
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

bool Setup() {
    if (::geteuid() != 0) {
        std::fprintf(stderr,
                     "RelayListenerBench needs root: it runs in a network namespace of "
                     "its own (unshare -n).\n");
        return false;
    }
    if (::unshare(CLONE_NEWNET) != 0) {
        std::perror("unshare(CLONE_NEWNET)");
        return false;
    }
    if (std::system("ip link set lo up") != 0) {
        std::fprintf(stderr, "could not bring lo up\n");
        return false;
    }
    ::signal(SIGPIPE, SIG_IGN);
    return true;
}

void PrintMachine() {
    utsname name{};
    ::uname(&name);
    std::printf("machine: %s %s %s, %u hardware threads\n", name.sysname, name.release,
                name.machine, std::thread::hardware_concurrency());
#if defined(NDEBUG)
    std::printf("build: optimised (NDEBUG)\n");
#else
    std::printf("build: debug (assertions on); use the release preset for figures\n");
#endif
}

}  // namespace

int main() {
    if (!Setup()) return 1;
    PrintMachine();
    const std::size_t megabytes = EnvNumber("SWG_BENCH_MB", 256, 8192);
    const std::size_t connections = EnvNumber("SWG_BENCH_CONNECTIONS", 4000, 100000);
    const std::size_t clients = EnvNumber("SWG_BENCH_CLIENTS", 4, 64);
    const std::size_t rounds = EnvNumber("SWG_BENCH_ROUNDS", 5, 20);
    const std::size_t total = megabytes << 20;

    std::atomic<std::uint64_t> sunk{0};
    std::atomic<int> sinksDone{0};
    BulkServer sink([&](int fd) {
        std::vector<char> chunk(kChunk);
        std::uint64_t got = 0;
        for (;;) {
            const ssize_t n = ::recv(fd, chunk.data(), chunk.size(), 0);
            if (n <= 0) break;
            got += static_cast<std::uint64_t>(n);
        }
        if (got > 0) {  // probe connections carry nothing
            sunk = got;
            ++sinksDone;
        }
    });
    BulkServer source([&](int fd) {
        // A probe connection closes at once; a measured one takes everything.
        std::vector<char> chunk(kChunk, 'd');
        std::size_t sent = 0;
        const auto start = Clock::now();
        while (sent < total && Clock::now() - start < kTransferLimit) {
            if (!SendAll(fd, chunk.data(), std::min(kChunk, total - sent))) break;
            sent += std::min(kChunk, total - sent);
        }
    });
    RequestServer requests;

    CDnListenThread listener;
    if (!listener.Initialize(false) || listener.StartThread() != 0) {
        std::fprintf(stderr, "the agent's listener did not start\n");
        return 1;
    }
    while (!listener.IsListening()) std::this_thread::sleep_for(std::chrono::milliseconds(1));

    Socat socatSink(6001, sink.Port());
    Socat socatSource(6002, source.Port());
    Socat socatRequests(6003, requests.Port());
    if (!socatSink.Ready() || !socatSource.Ready() || !socatRequests.Ready()) {
        std::fprintf(stderr, "socat did not start (is it installed?)\n");
        return 1;
    }

    std::printf("bulk: %zu MB per transfer; rate: %zu connections from %zu clients; %zu rounds\n",
                megabytes, connections, clients, rounds);
    const char* names[3] = {"direct", "agent", "socat"};
    std::map<std::string, std::vector<double>> up, down, rate;
    for (std::size_t round = 0; round < rounds; ++round) {
        for (std::size_t turn = 0; turn < 3; ++turn) {
            const std::size_t which = (turn + round) % 3;  // the paths take turns going first
            const std::string name = names[which];
            // Where each path's client connects for the sink, the source and the requests.
            const std::uint16_t agentPort = CDnListenThread::kListenPort;
            const std::uint16_t ports[3][3] = {{sink.Port(), source.Port(), requests.Port()},
                                               {agentPort, agentPort, agentPort},
                                               {6001, 6002, 6003}};
            const Path upPath{names[which], ports[which][0], which == 1};
            const Path downPath{names[which], ports[which][1], which == 1};
            const Path ratePath{names[which], ports[which][2], which == 1};
            up[name].push_back(Upload(upPath, sink.Port(), sunk, sinksDone, total));
            down[name].push_back(Download(downPath, source.Port()));
            rate[name].push_back(Rate(ratePath, requests.Port(), connections, clients));
        }
    }

    std::printf("\n%-8s %14s %14s %16s\n", "path", "upload MB/s", "download MB/s", "connections/s");
    for (const char* name : names)
        std::printf("%-8s %14.0f %14.0f %16.0f\n", name, Median(up[name]), Median(down[name]),
                    Median(rate[name]));
    const auto ratio = [&](std::map<std::string, std::vector<double>>& figures, const char* a,
                           const char* b) { return Median(figures[a]) / Median(figures[b]); };
    std::printf("\nagent/direct: upload %.2f, download %.2f, rate %.2f\n",
                ratio(up, "agent", "direct"), ratio(down, "agent", "direct"),
                ratio(rate, "agent", "direct"));
    std::printf("agent/socat:  upload %.2f, download %.2f, rate %.2f\n",
                ratio(up, "agent", "socat"), ratio(down, "agent", "socat"),
                ratio(rate, "agent", "socat"));
    std::printf("socat/direct: upload %.2f, download %.2f, rate %.2f\n",
                ratio(up, "socat", "direct"), ratio(down, "socat", "direct"),
                ratio(rate, "socat", "direct"));
    const bool bulkMet = ratio(up, "agent", "socat") >= 1.0 && ratio(down, "agent", "socat") >= 1.0;
    const bool rateMet = ratio(rate, "agent", "socat") >= 0.8;
    std::printf("target: bulk >= socat %s; rate >= 80%% of socat %s\n", bulkMet ? "met" : "MISSED",
                rateMet ? "met" : "MISSED");

    listener.Deinitialize();
    return 0;
}
