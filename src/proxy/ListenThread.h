// SPDX-License-Identifier: Apache-2.0
// CDnListenThread: the loopback listener that accepts diverted connections of one address family.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "foundation/DnThread.h"
#include "proxy/ConnectionThreadPoolThread.h"

// Owns one listening socket on 127.0.0.1 or ::1 and the pool of connection threads behind
// it. Its thread secures a connection thread first and only then accepts, so that an
// accepted socket never waits without a worker; when all threads are busy, connections wait
// in the kernel's backlog of 128.
//
// Life: Initialize (socket and bind), StartThread (pool, then the accept loop, which calls
// listen), Kill, Wait, Deinitialize. Initialize and Deinitialize run under the listener's
// own lock. Kill may come from any thread.
class CDnListenThread : public CDnThread {
public:
    static constexpr std::uint16_t kListenPort = 5002;
    static constexpr int kBacklog = 128;

    // `port` and `maxThreads` stay at their defaults in the agent; tests that share a
    // network namespace with other programs pass port 0 (any free port) and may pass a
    // smaller pool.
    explicit CDnListenThread(std::uint16_t port = kListenPort,
                             std::uint32_t maxThreads = CDnConnectionThreadPoolThread::kMaxThreads);
    // Kills and joins the listener and its pool if still running.
    ~CDnListenThread() override;

    // Makes the pool ready, opens the socket of the family (`ipv6`) and binds it to the
    // loopback address. Returns false, logged, when any of these fails (nothing is left
    // open then).
    bool Initialize(bool ipv6);
    using CDnThread::Initialize;
    // Starts the pool's timer, then the accept loop. Returns 0, or the code of what failed
    // (the pool is stopped again then).
    long StartThread() override;
    // Stops accepting, sets exit_requested and kills the pool and its threads. Does not
    // wait. Returns false when the pool reported a failure.
    bool Kill() override;
    // Closes the listening socket if still open, waits for the pool and joins the listener
    // thread. Returns 0. Call Kill first.
    long Wait() override;
    using CDnThread::Wait;
    // Kill, Wait, then the pool's and the thread's own Deinitialize. Returns true.
    bool Deinitialize() override;
    // The thread body: runs StartListenerThread; a negative result posts MSG_ID_QUIT.
    long ActualThreadProc(void* arg) override;
    // listen, then the accept loop until exit_requested. Returns 0, or 0x80004005 when
    // listen failed.
    long StartListenerThread();

    // The port the socket is bound to (the kernel's choice when constructed with 0).
    std::uint16_t ListenPort() const { return m_listenPort; }
    // True from the thread's listen until the loop ends: connections are taken into the
    // backlog. Any thread.
    bool IsListening() const { return m_bListening.load(); }

    CDnConnectionThreadPoolThread m_ConnectionThreadPool;

private:
    // One failed accept: logs it and returns false when the loop must end. Pauses on a
    // shortage of descriptors or memory.
    bool HandleAcceptFailure(int error);
    // Hands an accepted descriptor to `thread`. Returns false when the loop must end.
    bool StartConnection(class CDnConnectionThread* thread, int fd);
    // Waits `ms` on the exit event; true when it was signalled.
    bool PauseOrExit(unsigned long ms);
    void CloseListenSocket();

    boost::recursive_mutex m_initLock;
    std::uint16_t m_requestedPort;
    std::uint16_t m_listenPort;
    std::atomic<int> m_listenSocket{-1};
    std::mutex m_listenSocketLock;  // held while the descriptor is shut down or closed
    std::atomic<bool> m_bListening{false};
    bool m_bInitialized = false;
    bool m_bIPv6 = false;
};
