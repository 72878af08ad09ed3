// SPDX-License-Identifier: Apache-2.0
// CDnEventThread: a thread that sleeps until it is handed a job, does it and reports back.
#include "foundation/DnEventThread.h"

#include <boost/thread/lock_guard.hpp>

#include "foundation/Trace.h"

CDnEventThread::CDnEventThread() { thread_name = "CDnEventThread"; }

long CDnEventThread::ActualThreadProc(void* /*arg*/) {
    if (exit_requested) return 0;
    long lastResult = 0;
    do {
        // The exit event comes first: with both signalled, the thread stops.
        boost_ext::condition_event* events[2] = {&exit_event, &wake_event};
        const long result = boost_ext::condition_event_group::WaitForMultipleObjects(
            2, events, false, WAIT_INFINITE);
        if (result == 1) {
            wake_event.reset();
            if (exit_requested) return lastResult;
            lastResult = ProcessEvent();
            boost_ext::condition_event* done = done_event;
            if (done != nullptr) done->notify();
            work_state = kIdle;
        } else if (result == 0) {
            work_state = kEnded;
            return 1;
        } else {
            // Also the empty wake-up (WAIT_TIMEOUT_CODE): the thread ends and its pool
            // replaces it.
            DNTRACE(ERR, "Thread : (%s)Unknown wait result. Code : %x", thread_name,
                    static_cast<unsigned int>(result));
            work_state = kEnded;
            return 1;
        }
    } while (!exit_requested);
    return lastResult;
}

long CDnEventThread::Start(boost_ext::condition_event& done, bool force) {
    boost::lock_guard<boost::recursive_mutex> hold(m_lock);
    if (work_state != kIdle && !force) return 1;
    done_event = &done;
    work_state = kBusy;
    wake_event.notify();
    return 0;
}
