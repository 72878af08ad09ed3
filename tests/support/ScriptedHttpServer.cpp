// SPDX-License-Identifier: Apache-2.0
// Test peer: an HTTP server on loopback that records one request and plays a scripted reply.
#include "support/ScriptedHttpServer.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <utility>

namespace swg_test {

namespace {

constexpr int kWaitMs = 5000;

uint16_t PortOf(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
    return ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
}

bool PollIn(int fd, int timeoutMs) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, timeoutMs) == 1;
}

}  // namespace

ScriptedHttpServer::ScriptedHttpServer(int family, std::string reply, After after)
    : ScriptedHttpServer(std::move(ListenOnLoopback(family, 8).fd), std::move(reply), after) {}

ScriptedHttpServer::ScriptedHttpServer(UniqueFd listener, std::string reply, After after)
    : m_listener(std::move(listener)), m_reply(std::move(reply)), m_after(after) {
    if (m_listener.Get() == -1) return;
    m_port = PortOf(m_listener.Get());
    m_thread = std::thread([this] { Serve(); });
}

ScriptedHttpServer::~ScriptedHttpServer() {
    if (m_thread.joinable()) m_thread.join();
}

std::string ScriptedHttpServer::Request() {
    if (m_thread.joinable()) m_thread.join();
    return m_request;
}

void ScriptedHttpServer::Serve() {
    if (!PollIn(m_listener.Get(), kWaitMs)) return;
    UniqueFd client(::accept(m_listener.Get(), nullptr, nullptr));
    if (client.Get() == -1) return;
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    char byte = 0;
    while (m_request.find("\r\n\r\n") == std::string::npos &&
           std::chrono::steady_clock::now() < giveUp) {
        if (!PollIn(client.Get(), kWaitMs)) break;
        if (::recv(client.Get(), &byte, 1, 0) != 1) break;
        m_request.push_back(byte);
    }
    if (!m_reply.empty()) (void)WriteAll(client.Get(), m_reply, std::chrono::milliseconds(kWaitMs));
    if (m_after == After::WaitForClientClose) {
        char sink[256];
        while (PollIn(client.Get(), kWaitMs) && ::recv(client.Get(), sink, sizeof sink, 0) > 0) {
        }
    }
}

}  // namespace swg_test
