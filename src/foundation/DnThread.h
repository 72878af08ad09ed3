// SPDX-License-Identifier: Apache-2.0
// CDnThread: the base of every long-lived worker thread of the agent.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>

#include "foundation/ConditionEvent.h"

// One system thread that runs ActualThreadProc, told to stop by Kill and joined by Wait.
//
// Life: Initialize, StartThread, optionally Kill and Wait, Deinitialize, delete. Kill may come
// from any thread; Wait, StartThread and Deinitialize from one controlling thread at a time
// (Wait from the thread itself raises the boost error "boost thread: trying joining itself").
//
// The flags are std::atomic so that they can be read without a lock from any thread, as the
// loops and blocking readers do. A blocking reader that must give up when the thread is told
// to stop takes `const std::atomic<bool>&` and is handed `exit_requested` itself; it never
// gets a copy. The fields are public because pools and owners read and set them
// (`work_state`, `period_ms`) and reset `exit_event` between runs.
//
// Destruction: the destructor stops and joins the thread only when it is running and Kill was
// called; otherwise it detaches it. A derived class whose thread uses the derived object must
// therefore Kill and Wait before its own destructor returns.
//
// A derived class that overrides one of the two Wait operations adds `using CDnThread::Wait;`
// so that the other stays callable through the derived type (C++ name hiding).
class CDnThread {
public:
    // Named "Thread", period 1000 ms, not running; no system thread until StartThread.
    CDnThread();
    CDnThread(const CDnThread&) = delete;
    CDnThread& operator=(const CDnThread&) = delete;
    // If running and exit_requested is set: signals the exit event again and joins (unless
    // called on the thread itself). Then clears both flags and detaches the thread.
    virtual ~CDnThread();

    // Sets exit_requested and signals exit_event. Does not wait. Returns true.
    virtual bool Kill();
    // Joins the thread if joinable. Returns 0. Raises boost::thread_resource_error
    // ("boost thread: trying joining itself") when called on the thread itself.
    virtual long Wait();
    // Joins for at most `ms` milliseconds. Returns 0 when joined or not joinable,
    // WAIT_TIMEOUT_CODE when the thread still runs. Raises as Wait() on the thread itself.
    virtual long Wait(unsigned int ms);
    // Printable id of the thread ("" before StartThread). The text belongs to the object and
    // changes only in StartThread.
    virtual const char* ThreadId();
    // Unless running, starts a thread that runs KickIt, records its id and logs it.
    // Returns 0; a failure to create the thread is raised by boost and not caught here.
    virtual long StartThread();
    // Clears m_isRunning and exit_requested. Returns true.
    virtual bool Initialize();
    // If running and exit_requested is set: Kill and Wait. Then clears both flags. Returns
    // true.
    virtual bool Deinitialize();
    // The thread's body; `arg` is null. Runs on the new thread, inside KickIt.
    virtual long ActualThreadProc(void* arg) = 0;

    // The thread's recursive lock, for derived classes and their owners. Lock blocks until
    // held; a failure is a programming error and raises the boost lock error.
    void Lock() { m_lock.lock(); }
    void Unlock() { m_lock.unlock(); }

    // Fields in their fixed order.

    // Set by derived constructors; read by log lines of the running thread, so it is set
    // before StartThread and then left alone.
    const char* thread_name = "Thread";

private:
    boost::thread m_thread;

public:
    // Milliseconds between ticks of a timer thread; read at the start of every wait.
    std::atomic<std::uint32_t> period_ms{1000};
    // Written by StartThread only.
    std::string thread_id_text;
    // True from StartThread until KickIt is done: it covers the moment before the new thread
    // gets going, so that a second StartThread, Deinitialize or the destructor sees it.
    std::atomic<bool> m_isRunning{false};
    // Manual reset; signalled by Kill and left signalled until somebody resets it.
    boost_ext::condition_event exit_event{false};
    // Set by Kill; stays set until the next Initialize or Deinitialize.
    std::atomic<bool> exit_requested{false};

protected:
    // The lock behind Lock() and Unlock(), for scoped holders in derived classes.
    boost::recursive_mutex m_lock;

    // Entry of the new thread: marks it running, logs, runs ActualThreadProc, clears the mark.
    // An exception that ActualThreadProc lets out is logged here and ends the thread.
    void KickIt();
};
