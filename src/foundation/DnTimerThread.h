// SPDX-License-Identifier: Apache-2.0
// CDnTimerThread: a thread that calls ProcessTick every period_ms until told to stop.
#pragma once

#include "foundation/DnThread.h"

// Runs ProcessTick on its own thread, period_ms after the end of the previous tick (so ticks
// never overlap and the schedule drifts by their duration), until ProcessTick returns false or
// Kill signals the exit event. Adds no fields to CDnThread.
class CDnTimerThread : public CDnThread {
public:
    // Names the thread "TimerThread"; the period stays at 1000 ms until the owner sets it.
    CDnTimerThread();

    // The tick loop; returns 0.
    long ActualThreadProc(void* arg) override;
    // One tick, on the timer thread. Returns false to end the thread.
    virtual bool ProcessTick() = 0;
};
