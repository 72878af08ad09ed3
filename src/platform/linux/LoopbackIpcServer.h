// SPDX-License-Identifier: Apache-2.0
// The plug-in channel's transport on Linux: a TCP server on the loopback address.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/IpcServer.h"

// Bounds on what a peer may do. The defaults are the agent's; tests shorten them.
struct LoopbackIpcLimits {
    std::chrono::milliseconds identityWait{5000};  // a new connection must name itself within
    std::chrono::milliseconds frameWait{5000};     // a frame begun must be complete within
    std::chrono::milliseconds sendWait{2000};      // a peer must take a packet within
    std::size_t maxWaiting = 8;                    // connections that have not named themselves
    // A plug-in sends a handful of commands in its life; each costs the agent a configuration
    // read, so a flood must not queue work faster than the receiver does it.
    unsigned int maxFramesPerSecond = 64;
};

// Serves 127.0.0.1:`port` with the framing of ipc/wire/IpcFrame.h. Peers from outside the
// loopback network, with an identity not served, or that break the framing or its bounds are
// dropped with one log line each. One session per identity: a new connection of an identity
// replaces the older one, which is reported gone before the new one is reported connected.
//
// One thread of its own polls every connection and calls the callback; Send runs on the
// caller's thread. Destroyed by Release.
class CLoopbackIpcServer : public IIPCServer {
public:
    CLoopbackIpcServer(IIPCCallback* callback, unsigned short port,
                       LoopbackIpcLimits limits = LoopbackIpcLimits());
    CLoopbackIpcServer(const CLoopbackIpcServer&) = delete;
    CLoopbackIpcServer& operator=(const CLoopbackIpcServer&) = delete;

    long Setup(const std::list<IPC_IDENTITY>& peers, unsigned int parameter) override;
    long Send(const IPC_MESSAGE& message, unsigned short session) override;
    void TearDown() override;
    void Release() override;

    // The bound port (the kernel's pick when 0 was asked for); 0 before Setup.
    unsigned short Port() const { return m_boundPort; }

private:
    using Clock = std::chrono::steady_clock;
    struct Peer;
    using PeerPtr = std::shared_ptr<Peer>;

    ~CLoopbackIpcServer() override;

    void Run();
    int NextTimeoutMs(Clock::time_point now) const;
    void Accept(Clock::time_point now);
    bool Admit(const std::string& address, uint32_t ipv4);
    void Read(const PeerPtr& peer, Clock::time_point now);
    void TakeIdentity(const PeerPtr& peer);
    void EndOfStream(const PeerPtr& peer);
    void ExpireDeadlines(Clock::time_point now);
    void Drop(const PeerPtr& peer, const std::string& reason);
    void Close(const PeerPtr& peer, bool report);
    unsigned short NextSession();

    IIPCCallback* const m_callback;
    const unsigned short m_port;
    const LoopbackIpcLimits m_limits;
    std::set<uint32_t> m_served;
    int m_listen = -1;
    int m_wake = -1;  // eventfd that ends the poll for TearDown
    std::atomic<unsigned short> m_boundPort{0};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;

    // The poll thread's own state.
    std::vector<PeerPtr> m_peers;
    std::set<uint32_t> m_refusedLogged;  // addresses already logged as refused, bounded
    Clock::time_point m_acceptPausedUntil{};
    unsigned short m_lastSession = 0;

    std::mutex m_sessionLock;  // guards m_sessions, which Send reads
    std::map<unsigned short, PeerPtr> m_sessions;
};
