// SPDX-License-Identifier: Apache-2.0
// Test peers of the connection path: endpoints, session records, scripted TCP servers.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/SocketPeers.h"

namespace swg_test {

// An IPv4 or IPv6 socket address from its text and port (host order).
sockaddr_storage Endpoint(const char* address, std::uint16_t port);
socklen_t EndpointLength(const sockaddr_storage& address);
std::uint16_t EndpointPort(const sockaddr_storage& address);

// The 800-byte session record that names `destination` as the original destination, as a
// client that connects to the listener directly sends it first.
std::string SessionRecordFor(const sockaddr_storage& destination, std::int32_t pid = -1,
                             const std::string& hostNames = std::string());

// A blocking TCP connection to `address`; an invalid descriptor on failure.
UniqueFd ConnectTo(const sockaddr_storage& address);
// A client of the agent's listener on `listener`:5002 that has sent the record naming
// `destination`, then `payload`; an invalid descriptor when the connect or the write fails.
UniqueFd ListenerClient(const sockaddr_storage& destination, const std::string& payload = "",
                        const char* listener = "127.0.0.1");

// A TCP server on `address` (port 0: any free port) that runs `handler` with each accepted
// descriptor on a thread of its own, and closes the descriptor when the handler returns.
// With `accepting` false it only listens: connections complete in the backlog and are never
// taken. Stop (or the destructor) shuts down every connection still open, which ends
// handlers blocked on them, and joins all threads.
class TestServer {
public:
    using Handler = std::function<void(int fd)>;

    TestServer(const sockaddr_storage& address, Handler handler, int backlog = 128,
               bool accepting = true);
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    // False when the socket could not be bound or listened on.
    bool Ok() const { return m_listen.Get() != -1; }
    // The bound address, with the port the kernel chose.
    const sockaddr_storage& Address() const { return m_address; }
    // Connections accepted so far.
    int Accepted() const { return m_accepted.load(); }
    // Waits until `count` connections were accepted; false on timeout.
    bool WaitForAccepted(int count, std::chrono::milliseconds timeout);
    void Stop();

private:
    void AcceptLoop();

    sockaddr_storage m_address{};
    UniqueFd m_listen;
    Handler m_handler;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_accepted{0};
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<int> m_open;  // descriptors whose handler still runs
    std::vector<std::thread> m_handlers;
    std::thread m_acceptor;
};

// Handlers for TestServer.
// Sends back what it reads until the peer closes.
void EchoHandler(int fd);

}  // namespace swg_test
