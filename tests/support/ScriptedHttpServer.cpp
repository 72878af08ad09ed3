// SPDX-License-Identifier: Apache-2.0
// Test peer: an HTTP server on loopback that records one request and plays a scripted reply.
#include "support/ScriptedHttpServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <utility>

#include "support/TestServers.h"

namespace swg_test {

constexpr std::chrono::milliseconds kWait{5000};

ScriptedHttpServer::ScriptedHttpServer(int family, std::string reply, After after)
    : ScriptedHttpServer(std::move(ListenOnLoopback(family, 8).fd), std::move(reply), after) {}

ScriptedHttpServer::ScriptedHttpServer(UniqueFd listener, std::string reply, After after)
    : m_listener(std::move(listener)), m_reply(std::move(reply)), m_after(after) {
    if (m_listener.Get() == -1) return;
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getsockname(m_listener.Get(), reinterpret_cast<sockaddr*>(&address), &length) == 0)
        m_port = EndpointPort(address);
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
    if (!WaitReadable(m_listener.Get(), kWait)) return;
    UniqueFd client(::accept(m_listener.Get(), nullptr, nullptr));
    if (client.Get() == -1) return;
    const auto giveUp = std::chrono::steady_clock::now() + kWait;
    char byte = 0;
    while (m_request.find("\r\n\r\n") == std::string::npos &&
           std::chrono::steady_clock::now() < giveUp) {
        if (!WaitReadable(client.Get(), kWait)) break;
        if (::recv(client.Get(), &byte, 1, 0) != 1) break;
        m_request.push_back(byte);
    }
    if (!m_reply.empty()) (void)WriteAll(client.Get(), m_reply, kWait);
    if (m_after == After::WaitForClientClose) {
        char sink[256];
        while (WaitReadable(client.Get(), kWait) &&
               ::recv(client.Get(), sink, sizeof sink, 0) > 0) {
        }
    }
}

}  // namespace swg_test
