// SPDX-License-Identifier: Apache-2.0
// CDnEventThread: a thread that sleeps until it is handed a job, does it and reports back.
#pragma once

#include <atomic>
#include <cstdint>

#include "foundation/DnThread.h"

// A worker that waits for wake_event, runs ProcessEvent once per wake-up and then notifies the
// caller's done event. Pools hand jobs out with Start and take a thread back once its
// work_state is idle again; a thread whose loop has ended (work_state ended) is discarded.
//
// Order after a job: ProcessEvent returns, done_event is notified, and only then does
// work_state go back to idle. A caller woken by its done event may still see the thread busy
// for a moment.
class CDnEventThread : public CDnThread {
public:
    static constexpr std::int32_t kBusy = 0;   // a job was handed over
    static constexpr std::int32_t kIdle = 1;   // waiting for a job
    static constexpr std::int32_t kEnded = 2;  // the loop left on the exit event

    // Names the thread "CDnEventThread"; work_state starts idle.
    CDnEventThread();

    // The job loop. Returns 0 when exit was requested before the loop began; the result of
    // the last ProcessEvent when exit was requested at or after a job; 1 when it left on the
    // exit event or on an unexpected wait result (work_state is then ended).
    long ActualThreadProc(void* arg) override;
    // One job, on the event thread; its result is kept as the thread's last result.
    virtual long ProcessEvent() = 0;

    // Under the thread's lock: if idle, or if `force`, makes `done` the event to notify after
    // the job, marks the thread busy and wakes it; returns 0. Otherwise changes nothing and
    // returns 1. `done` must outlive the job. Any thread may call it.
    long Start(boost_ext::condition_event& done, bool force);

    // kBusy, kIdle or kEnded; pools read it and may set it busy when they hand the thread out.
    std::atomic<std::int32_t> work_state{kIdle};
    // Manual reset; signalled by Start, reset by the thread when it takes the job.
    boost_ext::condition_event wake_event{false};
    // The caller's event for the job in hand; may be null.
    std::atomic<boost_ext::condition_event*> done_event{nullptr};
};
