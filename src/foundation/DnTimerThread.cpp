// SPDX-License-Identifier: Apache-2.0
// CDnTimerThread: a thread that calls ProcessTick every period_ms until told to stop.
#include "foundation/DnTimerThread.h"

#include "foundation/Trace.h"

CDnTimerThread::CDnTimerThread() { thread_name = "TimerThread"; }

long CDnTimerThread::ActualThreadProc(void* /*arg*/) {
    while (!exit_requested) {
        boost_ext::condition_event* exitOnly[1] = {&exit_event};
        const long result =
            boost_ext::condition_event_group::WaitForMultipleObjects(1, exitOnly, false, period_ms);
        if (result == WAIT_TIMEOUT_CODE) {
            if (!ProcessTick()) break;
        } else if (result == 0) {
            DNTRACE(THREAD, "Thread : (%s)Exit event signalled", thread_name);
            break;
        } else {
            DNTRACE(ERR, "Thread : (%s)Unknown wait result. Code : %x", thread_name,
                    static_cast<unsigned int>(result));
            break;
        }
    }
    DNTRACE(THREAD, "Thread : (%s)Main thread exits", thread_name);
    return 0;
}
