// SPDX-License-Identifier: Apache-2.0
// CDnConnectionThreadPoolThread: hands connection threads to the listener and trims idle ones.
#include "proxy/ConnectionThreadPoolThread.h"

#include <algorithm>
#include <new>

#include "foundation/GlobalConst.h"
#include "foundation/Trace.h"
#include "proxy/ConnectionThread.h"
#include "proxy/ProxyLimits.h"

int g_nUseThreadPooling = 1;

namespace {
// A job's end signals m_threadDone a moment before its thread turns idle, so a waiter woken
// by it may find no idle thread, and the event is reset by then. The wait is therefore cut
// into rounds after which the lists are looked at again.
constexpr unsigned long kDoneRecheckMs = 100;
}  // namespace

CDnConnectionThreadPoolThread::CDnConnectionThreadPoolThread(std::uint32_t maxThreads)
    : m_maxThreads(maxThreads), m_configuredMax(maxThreads) {
    thread_name = "CDnConnectionThreadPoolThread";
}

CDnConnectionThreadPoolThread::~CDnConnectionThreadPoolThread() {
    Kill();
    Wait();
    Deinitialize();
}

bool CDnConnectionThreadPoolThread::Initialize(bool ipv6) {
    if (!CDnTimerThread::Initialize()) return false;
    boost::recursive_mutex::scoped_lock hold(m_lock);
    thread_name = "CDnConnectionThreadPoolThread";
    period_ms = kTickMs;
    m_minThreads = kMinThreads;
    m_maxThreads = m_configuredMax;
    m_tickCount = 0;
    m_bIPv6 = ipv6;
    return true;
}

void CDnConnectionThreadPoolThread::Destroy(CDnConnectionThread* thread) {
    thread->Deinitialize();
    delete thread;
}

bool CDnConnectionThreadPoolThread::Deinitialize() {
    {
        boost::recursive_mutex::scoped_lock hold(m_lock);
        for (CDnConnectionThread* thread : m_idle) Destroy(thread);
        for (CDnConnectionThread* thread : m_active) Destroy(thread);
        m_idle.clear();
        m_active.clear();
    }
    return CDnTimerThread::Deinitialize();
}

long CDnConnectionThreadPoolThread::StartThread() {
    try {
        return CDnTimerThread::StartThread();
    } catch (const boost::thread_resource_error& e) {
        return e.code().value() != 0 ? e.code().value() : SWG_E_FAIL;
    } catch (...) {
        return SWG_E_FAIL;
    }
}

bool CDnConnectionThreadPoolThread::Kill() {
    // The pool's own flag first: a request woken by a job this kill ends must not be handed
    // that thread.
    const bool own = CDnTimerThread::Kill();
    bool ok = true;
    {
        boost::recursive_mutex::scoped_lock hold(m_lock);
        for (CDnConnectionThread* thread : m_idle) ok = thread->Kill() && ok;
        for (CDnConnectionThread* thread : m_active) ok = thread->Kill() && ok;
    }
    return own && ok;
}

long CDnConnectionThreadPoolThread::Wait() {
    {
        boost::recursive_mutex::scoped_lock hold(m_lock);
        for (CDnConnectionThread* thread : m_idle) thread->Wait();
        for (CDnConnectionThread* thread : m_active) thread->Wait();
    }
    return CDnTimerThread::Wait();
}

std::size_t CDnConnectionThreadPoolThread::IdleCount() {
    boost::recursive_mutex::scoped_lock hold(m_lock);
    return m_idle.size();
}

std::size_t CDnConnectionThreadPoolThread::ActiveCount() {
    boost::recursive_mutex::scoped_lock hold(m_lock);
    return m_active.size();
}

int CDnConnectionThreadPoolThread::PurgeIdleConnections() {
    boost::recursive_mutex::scoped_lock hold(m_lock);
    int moved = 0;
    for (auto it = m_active.begin(); it != m_active.end() && !exit_requested;) {
        CDnConnectionThread* thread = *it;
        const std::int32_t state = thread->work_state;
        // A thread killed during a job ends its loop with work_state idle, or busy when the
        // kill came between wake-up and job: never hand it out, nor keep it for ever.
        const bool killed =
            thread->exit_requested && (state == CDnEventThread::kIdle || !thread->m_isRunning);
        if (state == CDnEventThread::kEnded || killed) {
            Destroy(thread);
            it = m_active.erase(it);
        } else if (state == CDnEventThread::kIdle) {
            m_idle.push_front(thread);
            it = m_active.erase(it);
            ++moved;
        } else {
            ++it;
        }
    }
    m_threadDone.reset();
    return moved;
}

bool CDnConnectionThreadPoolThread::ProcessTick() {
    const int purged = PurgeIdleConnections();
    boost::recursive_mutex::scoped_lock hold(m_lock);
    std::size_t total = m_idle.size() + m_active.size();
    while (total > m_minThreads && !m_idle.empty() && !exit_requested) {
        CDnConnectionThread* thread = m_idle.front();
        m_idle.pop_front();
        thread->Kill();
        thread->Wait();
        Destroy(thread);
        --total;
    }
    if (m_tickCount == 0)
        DNTRACE(THREAD, "---- IsIPv6:%d purged:%d Idle:%d Active:%d ----", m_bIPv6 ? 1 : 0, purged,
                static_cast<int>(m_idle.size()), static_cast<int>(m_active.size()));
    if (++m_tickCount >= 61) m_tickCount = 0;
    return true;
}

void CDnConnectionThreadPoolThread::KeepShareForRelays() {
    boost::recursive_mutex::scoped_lock hold(m_lock);
    const std::size_t share =
        std::max<std::size_t>(1, std::size_t{m_maxThreads} * kBeforeRelaySharePercent / 100);
    std::size_t waiting = 0;
    CDnConnectionThread* oldest = nullptr;
    std::int64_t oldestSince = 0;
    for (CDnConnectionThread* thread : m_active) {
        const std::int64_t since = thread->BeforeRelaySince();
        if (since <= 0) continue;
        ++waiting;
        if (oldest == nullptr || since < oldestSince) {
            oldest = thread;
            oldestSince = since;
        }
    }
    // The job closes itself and logs its connection; its thread ends and is purged.
    if (waiting >= share && oldest->CloseBeforeRelay(oldestSince))
        DNTRACE(THREAD, "Connection Pool : %d jobs wait before the relay, closing the oldest",
                static_cast<int>(waiting));
}

CDnConnectionThread* CDnConnectionThreadPoolThread::TakeIdle(const char* logLine) {
    CDnConnectionThread* thread = m_idle.front();
    m_idle.pop_front();
    thread->work_state = CDnEventThread::kBusy;
    m_active.push_front(thread);
    DNTRACE(THREAD, "%s", logLine);
    return thread;
}

CDnConnectionThread* CDnConnectionThreadPoolThread::CreateThread() {
    auto* thread = new (std::nothrow) CDnConnectionThread();
    if (thread == nullptr) {
        DNTRACE(ERR,
                "Connection Pool : Failed to create new Connection Thread, System Out Of "
                "Memory!!!");
        return nullptr;
    }
    if (!thread->Initialize()) {
        DNTRACE(ERR, "Connection Pool : Failed to initialize new connection thread.");
        delete thread;
        return nullptr;
    }
    const long started = thread->StartThread();
    if (started != 0) {
        DNTRACE(ERR, "Connection Pool : Failed to start new connection thread. Error Code : %d",
                static_cast<int>(started));
        delete thread;
        return nullptr;
    }
    thread->work_state = CDnEventThread::kBusy;
    m_active.push_front(thread);
    return thread;
}

bool CDnConnectionThreadPoolThread::WaitForThreadDone(boost::recursive_mutex::scoped_lock& hold,
                                                      bool& logged) {
    if (!logged) {
        DNTRACE(THREAD,
                "Connection Pool  : Failed to get a thread.  Waiting for an available thread");
        logged = true;
    }
    hold.unlock();
    boost_ext::condition_event* events[2] = {&m_threadDone, &exit_event};
    const long result =
        boost_ext::condition_event_group::WaitForMultipleObjects(2, events, false, kDoneRecheckMs);
    hold.lock();
    if (result == 0) {
        m_threadDone.reset();
        return !exit_requested;
    }
    if (result == 1) return false;
    // A round that ran out, or an empty wake-up: look at the lists again.
    if (result == WAIT_TIMEOUT_CODE) return !exit_requested;
    DNTRACE(ERR,
            "Connection Pool : Unknown event occurred while waiting for idle threads to become "
            "available. WaitResult : %d, Error Code : %d",
            static_cast<int>(result), 0);
    return false;
}

CDnConnectionThread* CDnConnectionThreadPoolThread::GetConnectionThread(bool wait) {
    boost::recursive_mutex::scoped_lock hold(m_lock);
    bool logged = false;
    while (!exit_requested) {
        if (g_nUseThreadPooling == 1 && !m_idle.empty())
            return TakeIdle("Connection Pool : Got Thread from Idle Pool");
        // A job that ended since the last purge left a thread that can serve now. Starting a
        // new one instead costs a thread, its stack and its first touch of the relay's buffers
        // for every connection, until the next tick gives them all up again.
        if (g_nUseThreadPooling == 1 && m_threadDone.is_signal_all() && PurgeIdleConnections() > 0)
            return TakeIdle("Connection Pool : Got Thread from Idle Pool");
        if (m_idle.size() + m_active.size() < m_maxThreads) return CreateThread();

        // Logged once per call: the rounds of a long wait would repeat it every 100 ms.
        if (!logged)
            DNTRACE(THREAD,
                    "Connection Pool : Over MaxThreads.  Purging Active Thread Pool of Idle "
                    "Threads");
        if (PurgeIdleConnections() > 0)
            return TakeIdle("Connection Pool : Found Idle Thread in Active List");
        if (!wait) return nullptr;
        if (!WaitForThreadDone(hold, logged)) return nullptr;
    }
    return nullptr;
}
