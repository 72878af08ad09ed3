// SPDX-License-Identifier: Apache-2.0
// Test peer: an HTTP server on loopback that records one request and plays a scripted reply.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "support/SocketPeers.h"

namespace swg_test {

// Serves exactly one connection on its own thread: reads the request up to its empty line
// (or end of stream), sends `reply`, then either closes or keeps the connection open until
// the client closes it. Every wait is bounded (a few seconds) so a broken client cannot hang
// the suite.
class ScriptedHttpServer {
public:
    enum class After { Close, WaitForClientClose };

    // Listens on loopback port 0 of `family`.
    ScriptedHttpServer(int family, std::string reply, After after);
    // Serves on an already listening descriptor (one bound in a test's own namespace).
    ScriptedHttpServer(UniqueFd listener, std::string reply, After after);
    ~ScriptedHttpServer();
    ScriptedHttpServer(const ScriptedHttpServer&) = delete;
    ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

    // False when the listener could not be set up.
    bool Ok() const { return m_listener.Get() != -1; }
    uint16_t Port() const { return m_port; }
    // Waits for the connection to be served and returns the request read ("" when none
    // came within the bounds).
    std::string Request();

private:
    void Serve();

    UniqueFd m_listener;
    uint16_t m_port = 0;
    std::string m_reply;
    After m_after;
    std::string m_request;
    std::thread m_thread;
};

}  // namespace swg_test
