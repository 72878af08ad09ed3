// SPDX-License-Identifier: Apache-2.0
// Helpers for the gateway and failure policy tests: a connection thread wired to socketpair peers.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>

#include "core/SWGAgent.h"
#include "proxy/ConnectionThread.h"
#include "proxy/DnSocket.h"
#include "support/SocketPeers.h"

namespace swg_test {

// Puts the agent's configuration record, captive portal mode and probe back as they were.
class ScopedAgentState {
public:
    ScopedAgentState() : m_saved(g_pSWGAgent->GetOrgInfo()) {
        g_pSWGAgent->SetCaptivePortalMode(false);
        g_pSWGAgent->SetCaptivePortalProbe(nullptr);
    }
    ~ScopedAgentState() {
        g_pSWGAgent->SetOrgInfo(m_saved);
        g_pSWGAgent->SetCaptivePortalMode(false);
        g_pSWGAgent->SetCaptivePortalProbe(nullptr);
    }
    ScopedAgentState(const ScopedAgentState&) = delete;
    ScopedAgentState& operator=(const ScopedAgentState&) = delete;

    // Changes the record in force through `edit`.
    static void Edit(const std::function<void(CSWGAgent::ORGINFO&)>& edit) {
        CSWGAgent::ORGINFO info = g_pSWGAgent->GetOrgInfo();
        edit(info);
        g_pSWGAgent->SetOrgInfo(info);
    }

private:
    CSWGAgent::ORGINFO m_saved;
};

// A socketpair: the agent's end goes into a CDnSocket, the test keeps the peer's end.
struct SocketPairPeer {
    CDnSocket* agentSide = nullptr;  // owned by whoever it is handed to
    UniqueFd peer;
};

inline SocketPairPeer MakeSocketPairPeer() {
    int ends[2] = {-1, -1};
    SocketPairPeer result;
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return result;
    result.agentSide = new CDnSocket(ends[0]);
    result.peer.Reset(ends[1]);
    return result;
}

// Everything `fd` delivers until end of stream, or until nothing came for `quiet`.
inline std::string ReadToEnd(int fd, std::chrono::milliseconds quiet = std::chrono::seconds(2)) {
    std::string out;
    char chunk[4096];
    for (;;) {
        pollfd wait{fd, POLLIN, 0};
        if (::poll(&wait, 1, static_cast<int>(quiet.count())) != 1) break;
        const ssize_t count = ::recv(fd, chunk, sizeof(chunk), 0);
        if (count <= 0) break;
        out.append(chunk, static_cast<std::size_t>(count));
    }
    return out;
}

}  // namespace swg_test
