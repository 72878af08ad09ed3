// SPDX-License-Identifier: Apache-2.0
// CDnConnectionThreadPoolThread: the connection threads of one listener, handed out and trimmed.
#pragma once

#include <cstdint>
#include <list>

#include "foundation/DnTimerThread.h"

class CDnConnectionThread;

// Always 1; any other value makes GetConnectionThread ignore the idle list.
extern int g_nUseThreadPooling;

// Keeps the connection threads of one address family: hands them to the listener, makes new
// ones up to the maximum, and every 3000 ms gives up idle threads while more than the
// minimum exist.
//
// A handed-out thread stays on m_active when its job ends; PurgeIdleConnections (on a tick,
// or when the maximum is reached) moves the idle ones to m_idle. Both lists add and take at
// the front.
//
// Ownership: owns every thread on both lists. Threading: GetConnectionThread runs on the
// listener thread, ProcessTick on the pool's own timer thread; both lists are guarded by the
// thread lock (Lock/m_lock). Kill and Wait of the connection threads run from ProcessTick
// under that lock, so a slow join holds up GetConnectionThread.
class CDnConnectionThreadPoolThread : public CDnTimerThread {
public:
    static constexpr std::uint32_t kTickMs = 3000;
    static constexpr std::uint32_t kMinThreads = 10;
    static constexpr std::uint32_t kMaxThreads = 750;

    // `maxThreads`: the upper bound of idle plus active threads that Initialize sets; tests
    // pass a smaller one.
    explicit CDnConnectionThreadPoolThread(std::uint32_t maxThreads = kMaxThreads);
    // Deinitializes and deletes any thread still owned.
    ~CDnConnectionThreadPoolThread() override;

    // CDnTimerThread::Initialize, then the name, the 3000 ms tick, the limits and the tick
    // count. `ipv6` only marks the log lines. Returns false when the base fails.
    bool Initialize(bool ipv6);
    using CDnThread::Initialize;
    // Deinitializes and deletes every thread, then the timer. Returns true.
    bool Deinitialize() override;
    // One tick: purge, then give up idle threads while more than m_minThreads exist; logs the
    // counts every 62nd tick. Returns true (the timer goes on).
    bool ProcessTick() override;
    // Moves idle threads from m_active to the front of m_idle and deletes ended ones. Returns
    // the number moved; resets m_threadDone.
    int PurgeIdleConnections();
    // A thread marked busy for the listener's next connection: an idle one, a new one under
    // the maximum, or, with `wait`, the first to finish a job. Null when told to exit, when a
    // new thread cannot be made, or at the maximum without `wait`. Listener thread.
    CDnConnectionThread* GetConnectionThread(bool wait);
    // Keeps jobs still before the relay within their share of the pool
    // (kBeforeRelaySharePercent of m_maxThreads): when they hold it already, the oldest of
    // them is closed, so that clients that stall cannot take the last threads. Listener
    // thread, before it hands out the next job.
    void KeepShareForRelays();
    // Starts the timer thread. Returns 0 or the error code of a thread that could not be made.
    long StartThread() override;
    // Kills every idle thread, every active one, then the timer. Returns false if one
    // failed. Does not wait.
    bool Kill() override;
    // Joins every idle thread, every active one, then the timer. Returns 0.
    long Wait() override;
    using CDnThread::Wait;

    // Counts of the two lists, for the log and for tests.
    std::size_t IdleCount();
    std::size_t ActiveCount();

    std::uint32_t m_minThreads = kMinThreads;
    std::uint32_t m_maxThreads;
    std::uint32_t m_tickCount = 0;
    // Manual reset; each connection thread signals it at the end of a job.
    boost_ext::condition_event m_threadDone{false};

private:
    // Steps of GetConnectionThread, under the lock.
    CDnConnectionThread* TakeIdle(const char* logLine);
    CDnConnectionThread* CreateThread();
    // Waits for m_threadDone or the exit event with the lock released; false when the wait
    // should end with no thread.
    bool WaitForThreadDone(boost::recursive_mutex::scoped_lock& hold, bool& logged);
    static void Destroy(CDnConnectionThread* thread);

    std::uint32_t m_configuredMax;
    std::list<CDnConnectionThread*> m_active;
    std::list<CDnConnectionThread*> m_idle;
    bool m_bIPv6 = false;
};
