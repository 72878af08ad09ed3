// SPDX-License-Identifier: Apache-2.0
// Relay throughput: bytes per second through one CSocketPair over loopback TCP, one way and both
// ways.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <boost/function.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "proxy/DnSocket.h"
#include "proxy/SocketPair.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kChunk = 65536;
constexpr std::size_t kDefaultMegabytes = 256;
constexpr std::size_t kMaxMegabytes = 4096;
// Each transfer gives up after this long, whatever its size.
constexpr auto kTimeLimit = std::chrono::seconds(30);

bool ConnectedPair(int& a, int& b) {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    bool ok = listener != -1 &&
              ::bind(listener, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
              ::listen(listener, 1) == 0 &&
              ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    a = ok ? ::socket(AF_INET, SOCK_STREAM, 0) : -1;
    ok = ok && a != -1 && ::connect(a, reinterpret_cast<sockaddr*>(&address), length) == 0;
    b = ok ? ::accept(listener, nullptr, nullptr) : -1;
    if (listener != -1) ::close(listener);
    return ok && b != -1;
}

// Sends `total` bytes on `fd`, stopping early at the deadline; returns the bytes sent.
std::size_t Pump(int fd, std::size_t total, Clock::time_point deadline) {
    std::vector<char> chunk(kChunk, 'x');
    std::size_t sent = 0;
    while (sent < total && Clock::now() < deadline) {
        const ssize_t n = ::send(fd, chunk.data(), std::min(kChunk, total - sent), MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<std::size_t>(n);
    }
    return sent;
}

// Reads until `total` bytes, end of stream or the deadline; returns the bytes read.
std::size_t Drain(int fd, std::size_t total, Clock::time_point deadline) {
    std::vector<char> chunk(kChunk);
    std::size_t got = 0;
    while (got < total && Clock::now() < deadline) {
        const ssize_t n = ::recv(fd, chunk.data(), kChunk, 0);
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    return got;
}

// Runs one relay and reports MB/s over the bytes that arrived.
void Measure(const char* name, std::size_t bytes, bool bothWays) {
    int client = -1, local = -1, remote = -1, server = -1;
    if (!ConnectedPair(client, local) || !ConnectedPair(remote, server)) {
        std::printf("%-10s setup failed\n", name);
        return;
    }
    CDnSocket localSock(local);
    CDnSocket remoteSock(remote);
    std::atomic<bool> exit{false};
    std::thread relay([&] {
        boost::function<bool()> callback = [] { return true; };
        CSocketPair pair(remoteSock, localSock, exit, callback);
        (void)pair.ProxyLoop();
    });

    const auto start = Clock::now();
    const auto deadline = start + kTimeLimit;
    std::size_t up = 0, down = 0;
    std::thread upWriter([&] { (void)Pump(client, bytes, deadline); });
    std::thread upReader([&] { up = Drain(server, bytes, deadline); });
    std::thread downWriter([&] { (void)Pump(server, bothWays ? bytes : 0, deadline); });
    down = bothWays ? Drain(client, bytes, deadline) : 0;
    upWriter.join();
    upReader.join();
    downWriter.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();

    exit = true;
    (void)localSock.Shutdown(SHUT_RDWR);
    (void)remoteSock.Shutdown(SHUT_RDWR);
    relay.join();
    ::close(client);
    ::close(server);
    const double megabytes = static_cast<double>(up + down) / (1024.0 * 1024.0);
    std::printf("%-10s %8.1f MB in %6.2f s  %8.1f MB/s%s\n", name, megabytes, seconds,
                megabytes / seconds,
                up + down < (bothWays ? 2 : 1) * bytes ? "  (time limit reached)" : "");
}

}  // namespace

// Usage: RelayBench [megabytes per direction, default 256, at most 4096]
int main(int argc, char** argv) {
    std::size_t megabytes = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : kDefaultMegabytes;
    if (megabytes == 0 || megabytes > kMaxMegabytes) megabytes = kDefaultMegabytes;
    utsname machine{};
    ::uname(&machine);
#ifdef NDEBUG
    const char* build = "optimised (NDEBUG)";
#else
    const char* build = "debug";
#endif
    std::printf("relay throughput, %s %s %s, %u cores, %s build, %zu MB per direction\n",
                machine.sysname, machine.release, machine.machine,
                std::thread::hardware_concurrency(), build, megabytes);
    Measure("one-way", megabytes << 20, false);
    Measure("both-ways", megabytes << 20, true);
    return 0;
}
