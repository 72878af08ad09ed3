// SPDX-License-Identifier: Apache-2.0
// CDnThread: the base of every long-lived worker thread of the agent.
#include "foundation/DnThread.h"

#include <exception>
#include <sstream>

#include <boost/chrono/duration.hpp>
#include <boost/thread/lock_guard.hpp>

#include "foundation/Trace.h"

namespace {
using RecursiveHolder = boost::lock_guard<boost::recursive_mutex>;

bool IsCurrentThread(const boost::thread& thread) {
    return thread.get_id() == boost::this_thread::get_id();
}
}  // namespace

CDnThread::CDnThread() = default;

CDnThread::~CDnThread() {
    if (m_isRunning && exit_requested) {
        exit_requested = true;
        exit_event.notify();
        // A thread that deletes its own object cannot join itself; it is detached below.
        if (!IsCurrentThread(m_thread)) CDnThread::Wait();
    }
    m_isRunning = false;
    exit_requested = false;
    if (m_thread.joinable()) m_thread.detach();
}

bool CDnThread::Kill() {
    exit_requested = true;
    exit_event.notify();
    return true;
}

long CDnThread::Wait() {
    if (m_thread.joinable()) m_thread.join();
    return 0;
}

long CDnThread::Wait(unsigned int ms) {
    if (!m_thread.joinable()) return 0;
    if (m_thread.try_join_for(boost::chrono::milliseconds(ms))) return 0;
    return WAIT_TIMEOUT_CODE;
}

const char* CDnThread::ThreadId() { return thread_id_text.c_str(); }

long CDnThread::StartThread() {
    RecursiveHolder hold(m_lock);
    if (m_isRunning) return 0;
    // The thread of an earlier run has left KickIt (m_isRunning is clear); let it finish on
    // its own rather than wait for it here.
    if (m_thread.joinable()) m_thread.detach();
    m_isRunning = true;
    try {
        m_thread = boost::thread(&CDnThread::KickIt, this);
    } catch (...) {
        m_isRunning = false;
        throw;
    }
    std::ostringstream id;
    id << m_thread.get_id();
    thread_id_text = id.str();
    DNTRACE(THREAD, "Thread : Created new thread ID = %s %s", thread_id_text.c_str(), thread_name);
    return 0;
}

bool CDnThread::Initialize() {
    m_isRunning = false;
    exit_requested = false;
    return true;
}

bool CDnThread::Deinitialize() {
    if (m_isRunning && exit_requested) {
        Kill();
        Wait();
    }
    m_isRunning = false;
    exit_requested = false;
    return true;
}

void CDnThread::KickIt() {
    {
        // StartThread holds the lock until the id text is recorded; the body may read it.
        RecursiveHolder started(m_lock);
    }
    m_isRunning = true;
    DNTRACE(THREAD, "Thread : Starting thread %s", thread_name);
    // Nothing may leave a thread's entry point: boost would end the process.
    try {
        ActualThreadProc(nullptr);
    } catch (const std::exception& e) {
        DNTRACE(ERR, "Thread : (%s)Exception escaped the thread: %s", thread_name, e.what());
    } catch (unsigned int code) {
        DNTRACE(ERR, "Thread : (%s)Exception escaped the thread. Code : %x", thread_name, code);
    } catch (long code) {
        DNTRACE(ERR, "Thread : (%s)Exception escaped the thread. Code : %lx", thread_name,
                static_cast<unsigned long>(code));
    } catch (...) {
        DNTRACE(ERR, "Thread : (%s)Unknown exception escaped the thread", thread_name);
    }
    m_isRunning = false;
}
