// SPDX-License-Identifier: Apache-2.0
// Test peers of the connection path: endpoints, session records, scripted TCP servers.
#include "support/TestServers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/RedirectorRecords.h"

namespace swg_test {

sockaddr_storage Endpoint(const char* address, std::uint16_t port) {
    sockaddr_storage out{};
    auto& in4 = reinterpret_cast<sockaddr_in&>(out);
    if (inet_pton(AF_INET, address, &in4.sin_addr) == 1) {
        in4.sin_family = AF_INET;
        in4.sin_port = htons(port);
        return out;
    }
    out = sockaddr_storage{};
    auto& in6 = reinterpret_cast<sockaddr_in6&>(out);
    if (inet_pton(AF_INET6, address, &in6.sin6_addr) == 1) {
        in6.sin6_family = AF_INET6;
        in6.sin6_port = htons(port);
    }
    return out;
}

socklen_t EndpointLength(const sockaddr_storage& address) {
    return address.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

std::uint16_t EndpointPort(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

std::string SessionRecordFor(const sockaddr_storage& destination, std::int32_t pid,
                             const std::string& hostNames) {
    ngc_session_info record;
    std::memset(&record, 0, sizeof(record));
    std::memcpy(record.orig_dst.raw, &destination, EndpointLength(destination));
    std::memcpy(record.host_names, hostNames.data(),
                std::min(hostNames.size(), sizeof(record.host_names)));
    record.process_id = pid;
    return std::string(reinterpret_cast<const char*>(&record), sizeof(record));
}

UniqueFd ConnectTo(const sockaddr_storage& address) {
    UniqueFd fd(::socket(address.ss_family, SOCK_STREAM, 0));
    if (fd.Get() == -1) return fd;
    if (::connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), EndpointLength(address)) !=
        0)
        fd.Reset();
    return fd;
}

UniqueFd ListenerClient(const sockaddr_storage& destination, const std::string& payload,
                        const char* listener) {
    UniqueFd client = ConnectTo(Endpoint(listener, 5002));
    if (client.Get() != -1 &&
        !WriteAll(client.Get(), SessionRecordFor(destination) + payload, std::chrono::seconds(5)))
        client.Reset();
    return client;
}

TestServer::TestServer(const sockaddr_storage& address, Handler handler, int backlog,
                       bool accepting)
    : m_address(address), m_handler(std::move(handler)) {
    m_listen.Reset(::socket(address.ss_family, SOCK_STREAM, 0));
    if (m_listen.Get() == -1) return;
    const int reuse = 1;
    (void)::setsockopt(m_listen.Get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
    socklen_t length = EndpointLength(m_address);
    auto* raw = reinterpret_cast<sockaddr*>(&m_address);
    if (::bind(m_listen.Get(), raw, length) != 0 || ::listen(m_listen.Get(), backlog) != 0 ||
        ::getsockname(m_listen.Get(), raw, &length) != 0) {
        m_listen.Reset();
        return;
    }
    if (accepting) m_acceptor = std::thread(&TestServer::AcceptLoop, this);
}

TestServer::~TestServer() { Stop(); }

void TestServer::AcceptLoop() {
    while (!m_stop) {
        pollfd entry{m_listen.Get(), POLLIN, 0};
        if (::poll(&entry, 1, 50) <= 0) continue;
        const int fd = ::accept(m_listen.Get(), nullptr, nullptr);
        if (fd == -1) continue;
        std::lock_guard<std::mutex> hold(m_lock);
        m_open.push_back(fd);
        // Counted before the handler runs: a client that got an answer sees its connection
        // counted.
        ++m_accepted;
        m_handlers.emplace_back([this, fd] {
            m_handler(fd);
            std::lock_guard<std::mutex> closing(m_lock);
            m_open.erase(std::find(m_open.begin(), m_open.end(), fd));
            ::close(fd);
        });
        m_changed.notify_all();
    }
}

bool TestServer::WaitForAccepted(int count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> hold(m_lock);
    return m_changed.wait_for(hold, timeout, [&] { return m_accepted.load() >= count; });
}

void TestServer::Stop() {
    if (m_stop.exchange(true)) return;
    if (m_acceptor.joinable()) m_acceptor.join();
    std::vector<std::thread> handlers;
    {
        // Under the lock: a handler closes its descriptor under it too, so no number shut
        // down here can have been reused.
        std::lock_guard<std::mutex> hold(m_lock);
        handlers.swap(m_handlers);
        for (const int fd : m_open) (void)::shutdown(fd, SHUT_RDWR);
    }
    for (std::thread& handler : handlers) handler.join();
    m_listen.Reset();
}

void EchoHandler(int fd) {
    char chunk[16384];
    for (;;) {
        const ssize_t got = ::recv(fd, chunk, sizeof(chunk), 0);
        if (got <= 0) return;
        if (!WriteAll(fd, std::string(chunk, static_cast<std::size_t>(got)),
                      std::chrono::seconds(30)))
            return;
    }
}

}  // namespace swg_test
