// SPDX-License-Identifier: Apache-2.0
// CDnThreadPoolThread: a pool of event-thread workers that grows on demand and shrinks on a timer.
#pragma once

#include <boost/thread/exceptions.hpp>
#include <boost/thread/lock_guard.hpp>
#include <cstddef>
#include <functional>
#include <list>
#include <new>

#include "foundation/ConditionEvent.h"
#include "foundation/DnEventThread.h"
#include "foundation/DnTimerThread.h"
#include "foundation/GlobalConst.h"
#include "foundation/Trace.h"

// Keeps workers of type T (a CDnEventThread) for reuse: GetThread hands one out, busy and
// listed as active; the worker turns idle by itself when its job is over, and PurgeIdleThreads
// (from GetThread or the timer) moves it back to the idle list. Every period, ProcessTick trims
// idle workers down to the minimum.
//
// Ownership: the pool owns every worker in both lists. A worker handed out belongs to its
// caller until its job ends; the pool never destroys a busy worker except in Deinitialize and
// the destructor, which join it first.
//
// Threads: GetThread and PurgeIdleThreads may be called from any thread. The pool's lock is
// held while a worker is created, while GetThread(true) waits and while the timer trims (so
// GetThread waits for a trim). Workers never take the pool's lock.
template <class T>
class CDnThreadPoolThread : public CDnTimerThread {
public:
    // Makes one worker without throwing; null when out of memory.
    using WorkerFactory = std::function<T*()>;

    // Names the thread "ThreadPool". `periodMs` is the trim period; the timer keeps `minimum`
    // workers; active plus idle never exceed `maximum`. `factory` makes each worker (by default
    // `new (std::nothrow) T()`).
    CDnThreadPoolThread(unsigned int periodMs, int minimum, int maximum,
                        WorkerFactory factory = DefaultFactory)
        : m_minimum(minimum), m_maximum(maximum), m_factory(std::move(factory)) {
        thread_name = "ThreadPool";
        period_ms = periodMs;
    }
    // Stops and joins the timer and every worker, then destroys the workers.
    ~CDnThreadPoolThread() override {
        CDnThreadPoolThread::Kill();
        CDnThreadPoolThread::Wait();
        DestroyAll();
    }

    using CDnThread::Wait;

    // Tells the timer to stop, then under the lock Kills every idle and every active worker.
    // True when all said true. Does not wait.
    bool Kill() override {
        // The timer's exit event goes first: a GetThread(true) holds the lock while it waits,
        // and that event is what ends its wait and lets go of the lock.
        bool all = CDnTimerThread::Kill();
        Holder hold(m_lock);
        for (T* worker : m_idle) all = worker->Kill() && all;
        for (T* worker : m_active) all = worker->Kill() && all;
        return all;
    }
    // Joins every idle and active worker under the lock, then the timer without it. Blocks for
    // as long as a worker's lookup takes. Returns 0.
    long Wait() override {
        {
            Holder hold(m_lock);
            for (T* worker : m_idle) worker->Wait();
            for (T* worker : m_active) worker->Wait();
        }
        return CDnTimerThread::Wait();
    }
    // Starts the timer. 0, or the code of the failure (logged).
    long StartThread() override {
        long code = 0;
        try {
            code = CDnTimerThread::StartThread();
        } catch (const boost::thread_resource_error& failure) {
            code = failure.code().value() != 0 ? failure.code().value() : SWG_E_FAIL;
        }
        if (code != 0) {
            DNTRACE(ERR, "Pooler : Failed to start thread pool thread. Error Code : %d",
                    static_cast<int>(code));
        }
        return code;
    }
    // Prepares the timer, also for a pool that ran before. False (logged) on failure.
    bool Initialize() override {
        if (!CDnTimerThread::Initialize()) {
            DNTRACE(ERR, "Pooler : Failed to initialize low level object");
            return false;
        }
        // A pool that was killed before keeps its exit event signalled until told otherwise.
        exit_event.reset();
        m_poolEvent.reset();
        return true;
    }
    // Destroys every worker (joining those that were told to stop), then sets the values a
    // reused pool starts from: period 500 ms, minimum 1, maximum 2. Then the base step.
    bool Deinitialize() override {
        {
            Holder hold(m_lock);
            DestroyAll();
            period_ms = kReusedPeriodMs;
            m_minimum = kReusedMinimum;
            m_maximum = kReusedMaximum;
        }
        return CDnTimerThread::Deinitialize();
    }
    // One trim: purge, drop workers whose loop has ended, then destroy idle workers (most
    // recently idled first) until the total is at the minimum. Always true.
    bool ProcessTick() override {
        PurgeIdleThreads();
        Holder hold(m_lock);
        DiscardEnded(m_active);
        DiscardEnded(m_idle);
        const std::size_t total = m_active.size() + m_idle.size();
        if (!AboveMinimum(total) || m_idle.empty()) return true;
        std::size_t taken = 0;
        while (!exit_requested && !m_idle.empty() && AboveMinimum(total - taken)) {
            T* worker = m_idle.front();
            m_idle.pop_front();
            Destroy(worker);
            ++taken;
        }
        return true;
    }

    // A worker, busy and listed as active, for one job; or null. With `wait` false, null comes
    // at once when all `maximum` workers are busy, `error` untouched. With `wait` true, blocks
    // (holding the pool's lock) until a worker is free or the pool is killed. A worker that
    // cannot be started gives null with its code in `*error` (if given). Raises the long
    // SWG_E_FAIL when a new worker cannot be initialised.
    T* GetThread(bool wait, long* error) {
        Holder hold(m_lock);
        DNTRACE(THREAD, "CDnThreadPoolThread : GetThread - idles %d actives %d",
                static_cast<int>(m_idle.size()), static_cast<int>(m_active.size()));
        while (!exit_requested) {
            if (T* worker = TakeIdle()) return worker;
            if (m_active.size() + m_idle.size() < static_cast<std::size_t>(Positive(m_maximum))) {
                return CreateWorker(error);
            }
            if (PurgeIdleThreads() > 0) {
                DNTRACE(THREAD, "Pooler : Found Idle Thread in Active List");
                if (T* worker = TakeIdle()) return worker;
            }
            if (!wait) return nullptr;
            WaitForCompletion();
        }
        return nullptr;
    }

    // Moves every active worker whose job is over to the head of the idle list. Returns how
    // many moved.
    int PurgeIdleThreads() {
        Holder hold(m_lock);
        // Reset before the walk: a job that ends during the walk then leaves the event
        // signalled for a waiter instead of being lost to a reset after it.
        m_poolEvent.reset();
        int moved = 0;
        for (auto it = m_active.begin(); it != m_active.end() && !exit_requested;) {
            if ((*it)->work_state == CDnEventThread::kIdle) {
                m_idle.push_front(*it);
                it = m_active.erase(it);
                ++moved;
            } else {
                ++it;
            }
        }
        return moved;
    }

    // Manual reset; the completion event to hand every worker's Start: signalled after each job.
    boost_ext::condition_event& PoolEvent() { return m_poolEvent; }

    // Counts and bounds, read under the lock; for diagnostics.
    std::size_t IdleCount() {
        Holder hold(m_lock);
        return m_idle.size();
    }
    std::size_t ActiveCount() {
        Holder hold(m_lock);
        return m_active.size();
    }
    int Minimum() {
        Holder hold(m_lock);
        return m_minimum;
    }
    int Maximum() {
        Holder hold(m_lock);
        return m_maximum;
    }

private:
    using Holder = boost::lock_guard<boost::recursive_mutex>;

    static constexpr unsigned int kReusedPeriodMs = 500;
    static constexpr int kReusedMinimum = 1;
    static constexpr int kReusedMaximum = 2;
    // GetThread(true) looks again this often: a worker turns idle only after it has signalled
    // the pool event, so the wake-up can come before the worker is ready to be purged.
    static constexpr unsigned long kWaitSliceMs = 50;

    static T* DefaultFactory() { return new (std::nothrow) T(); }
    static int Positive(int value) { return value < 0 ? 0 : value; }

    bool AboveMinimum(std::size_t count) const {
        return count > static_cast<std::size_t>(Positive(m_minimum));
    }

    T* HandOut(T* worker) {
        worker->work_state = CDnEventThread::kBusy;
        m_active.push_front(worker);
        return worker;
    }

    // The first idle worker whose loop still runs, handed out; null when there is none.
    T* TakeIdle() {
        while (!m_idle.empty()) {
            T* worker = m_idle.front();
            m_idle.pop_front();
            if (worker->work_state != CDnEventThread::kEnded) return HandOut(worker);
            Destroy(worker);
        }
        return nullptr;
    }

    T* CreateWorker(long* error) {
        T* worker = m_factory();
        if (worker == nullptr) {
            DNTRACE(ERR, "Pooler : Failed to create thread object, System Out Of Memory");
            if (error != nullptr) *error = SWG_E_OUTOFMEMORY;
            return nullptr;
        }
        if (!worker->Initialize()) {
            DNTRACE(ERR, "Pooler : Failed to initalize thread class");
            delete worker;
            throw SWG_E_FAIL;
        }
        long code = 0;
        try {
            code = worker->StartThread();
        } catch (const boost::thread_resource_error& failure) {
            code = failure.code().value() != 0 ? failure.code().value() : SWG_E_FAIL;
        }
        if (code != 0) {
            DNTRACE(ERR, "Pooler : Failed to start thread. Exception code : %d",
                    static_cast<int>(code));
            worker->Deinitialize();
            delete worker;
            if (error != nullptr) *error = code;
            return nullptr;
        }
        return HandOut(worker);
    }

    // One wait of GetThread(true) for a job to end or the pool to be killed.
    void WaitForCompletion() {
        boost_ext::condition_event* events[2] = {&m_poolEvent, &exit_event};
        const long result = boost_ext::condition_event_group::WaitForMultipleObjects(
            2, events, false, kWaitSliceMs);
        if (result == 0) m_poolEvent.reset();
    }

    void DiscardEnded(std::list<T*>& workers) {
        for (auto it = workers.begin(); it != workers.end();) {
            if ((*it)->work_state == CDnEventThread::kEnded) {
                Destroy(*it);
                it = workers.erase(it);
            } else {
                ++it;
            }
        }
    }

    static void Destroy(T* worker) {
        worker->Kill();
        worker->Wait();
        worker->Deinitialize();
        delete worker;
    }

    void DestroyAll() {
        Holder hold(m_lock);
        for (T* worker : m_idle) {
            worker->Deinitialize();
            delete worker;
        }
        m_idle.clear();
        for (T* worker : m_active) {
            worker->Deinitialize();
            delete worker;
        }
        m_active.clear();
    }

    // Fields in their fixed order.
    boost_ext::condition_event m_poolEvent{false};
    std::list<T*> m_active;
    std::list<T*> m_idle;
    int m_minimum;
    int m_maximum;
    WorkerFactory m_factory;
};
