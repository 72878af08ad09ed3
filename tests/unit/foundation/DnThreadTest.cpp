// SPDX-License-Identifier: Apache-2.0
// Tests of the thread base, the timer thread and the event thread.
#include "foundation/DnThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "foundation/DnEventThread.h"
#include "foundation/DnTimerThread.h"
#include "foundation/Trace.h"
#include "support/ThreadTestSupport.h"

namespace {

using boost_ext::condition_event;
using swg_test::RecordingTrace;
using swg_test::WaitUntil;

constexpr unsigned int kGuardMs = 10000;

boost::posix_time::ptime Guard() {
    return boost::posix_time::microsec_clock::universal_time() +
           boost::posix_time::milliseconds(kGuardMs);
}

// Sits on its exit event; optionally lingers after it so that a join can be told from none.
class ParkedThread : public CDnThread {
public:
    explicit ParkedThread(std::atomic<bool>* left = nullptr, bool stopInDestructor = true)
        : m_left(left), m_stopInDestructor(stopInDestructor) {}
    ~ParkedThread() override {
        if (m_stopInDestructor) {
            Kill();
            Wait();
        }
    }
    long ActualThreadProc(void*) override {
        // After Kill the derived part may already be destroyed (the destructor case): from
        // then on only the base's exit event and locals are touched.
        std::atomic<bool>* left = m_left;
        condition_event& exitEvent = exit_event;
        runningInside = m_isRunning.load();
        ++entries;
        entered.notify();
        while (!exitEvent.is_signal_all()) exitEvent.wait();
        if (left != nullptr) {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            *left = true;
        }
        return 0;
    }

    std::atomic<bool> runningInside{false};
    std::atomic<int> entries{0};
    condition_event entered{false};

private:
    std::atomic<bool>* m_left;
    const bool m_stopInDestructor;
};

// Kill on a thread that never ran must only raise the flag and signal the exit event;
// Initialize lowers the flag but leaves the event to its owner.
TEST(DnThreadTest, KillOnNeverStartedThread) {
    ParkedThread thread;
    EXPECT_TRUE(thread.Kill());
    EXPECT_TRUE(thread.exit_requested);
    EXPECT_TRUE(thread.exit_event.is_signal_all());
    EXPECT_FALSE(thread.m_isRunning);
    EXPECT_EQ(thread.Wait(), 0);
    EXPECT_EQ(thread.Wait(10), 0);
    EXPECT_TRUE(thread.Initialize());
    EXPECT_FALSE(thread.exit_requested);
    EXPECT_TRUE(thread.exit_event.is_signal_all());
}

// StartThread must run the body once on a thread marked running, log both lines and ignore
// a second call; Wait(ms) must give up on the running thread and join it once killed.
TEST(DnThreadTest, StartRunsTheBodyOnceAndTimedWaitGivesUpWhileItRuns) {
    RecordingTrace trace;
    ParkedThread thread;
    ASSERT_TRUE(thread.Initialize());
    EXPECT_EQ(thread.StartThread(), 0);
    ASSERT_TRUE(thread.entered.timed_wait(Guard()));
    EXPECT_TRUE(thread.runningInside);
    EXPECT_EQ(thread.StartThread(), 0);

    EXPECT_EQ(thread.Wait(20), WAIT_TIMEOUT_CODE);
    EXPECT_TRUE(thread.m_isRunning);
    EXPECT_EQ(thread.entries, 1);
    const std::string id = thread.ThreadId();
    EXPECT_EQ(trace.Count(THREAD, "Thread : Created new thread ID = " + id + " Thread"), 1);
    EXPECT_EQ(trace.Count(THREAD, "Thread : Starting thread Thread"), 1);

    thread.Kill();
    EXPECT_EQ(thread.Wait(kGuardMs), 0);
    EXPECT_FALSE(thread.m_isRunning);
}

// Runs the given body as its thread procedure.
class BodyThread : public CDnThread {
public:
    explicit BodyThread(std::function<void()> body) : m_body(std::move(body)) {}
    ~BodyThread() override { Wait(); }
    long ActualThreadProc(void*) override {
        m_body();
        return 0;
    }

private:
    std::function<void()> m_body;
};

// Deinitialize and the destructor of a killed, running thread must join it before they
// return; otherwise the thread outlives its object.
TEST(DnThreadTest, DeinitializeAndDestructorJoinAKilledThread) {
    for (const bool byDestructor : {false, true}) {
        SCOPED_TRACE(byDestructor ? "destructor" : "Deinitialize");
        std::atomic<bool> left{false};
        auto* thread = new ParkedThread(&left, false);
        thread->StartThread();
        ASSERT_TRUE(thread->entered.timed_wait(Guard()));
        thread->Kill();
        if (!byDestructor) {
            EXPECT_TRUE(thread->Deinitialize());
            EXPECT_TRUE(left);
            EXPECT_FALSE(thread->exit_requested);
        }
        delete thread;
        EXPECT_TRUE(left);
    }
}

// An exception leaving the body must end only that thread, logged, with the running mark
// cleared so that the object can be started again.
TEST(DnThreadTest, EscapedExceptionEndsTheThreadAndIsLogged) {
    RecordingTrace trace;
    bool throwCode = false;
    BodyThread thread([&throwCode] {
        if (throwCode) throw 0x80004005u;
        throw std::runtime_error("boom");
    });
    thread.StartThread();
    ASSERT_EQ(thread.Wait(kGuardMs), 0);
    EXPECT_FALSE(thread.m_isRunning);
    EXPECT_EQ(trace.Count(ERR, "Thread : (Thread)Exception escaped the thread: boom"), 1);

    throwCode = true;
    thread.StartThread();
    ASSERT_EQ(thread.Wait(kGuardMs), 0);
    EXPECT_EQ(trace.Count(ERR, "Thread : (Thread)Exception escaped the thread. Code : 80004005"),
              1);
}

class CountingTimer : public CDnTimerThread {
public:
    // Ticks until the tick numbered `stopAfter` (0: forever).
    CountingTimer(int stopAfter, unsigned int periodMs) : m_stopAfter(stopAfter) {
        period_ms = periodMs;
    }
    ~CountingTimer() override {
        Kill();
        Wait();
    }
    bool ProcessTick() override {
        const int n = ++ticks;
        return m_stopAfter == 0 || n < m_stopAfter;
    }
    std::atomic<int> ticks{0};

private:
    const int m_stopAfter;
};

// The timer must tick until ProcessTick says stop, then end on its own with its log line;
// Kill must wake a timer that sleeps through a long period at once, without a tick.
TEST(DnTimerThreadTest, EndsWhenProcessTickSaysStopOrOnKill) {
    RecordingTrace trace;
    CountingTimer ending(3, 5);
    ending.StartThread();
    ASSERT_EQ(ending.Wait(kGuardMs), 0);
    EXPECT_EQ(ending.ticks, 3);
    EXPECT_FALSE(ending.m_isRunning);
    EXPECT_EQ(trace.Count(THREAD, "Thread : (TimerThread)Main thread exits"), 1);
    EXPECT_EQ(trace.Count(THREAD, "Thread : (TimerThread)Exit event signalled"), 0);

    CountingTimer sleeping(0, 60000);
    sleeping.StartThread();
    ASSERT_TRUE(WaitUntil([&] { return sleeping.exit_event.subscriber_count() == 1; }));
    sleeping.Kill();
    EXPECT_EQ(sleeping.Wait(kGuardMs), 0);
    EXPECT_EQ(sleeping.ticks, 0);
    EXPECT_EQ(trace.Count(THREAD, "Thread : (TimerThread)Exit event signalled"), 1);
}

class EventWorker : public CDnEventThread {
public:
    ~EventWorker() override {
        release.notify();
        Kill();
        Wait();
    }
    long ProcessEvent() override {
        stateDuringJob = work_state.load();
        ++jobs;
        started.notify();
        if (holdJobs) {
            while (!release.is_signal_all()) release.wait();
        }
        return 5;
    }
    std::atomic<int> jobs{0};
    std::atomic<int> stateDuringJob{-1};
    std::atomic<bool> holdJobs{false};
    condition_event started{true};
    condition_event release{false};
};

class DnEventThreadTest : public ::testing::Test {
protected:
    void SetUp() override {
        worker.StartThread();
        // In its wait: subscribed to its exit event.
        ASSERT_TRUE(WaitUntil([&] { return worker.exit_event.subscriber_count() == 1; }));
    }
    // Hands out a job that reports to `first` and stays in ProcessEvent until `release`.
    void StartHeldJob() {
        worker.holdJobs = true;
        ASSERT_EQ(worker.Start(first, false), 0);
        ASSERT_TRUE(worker.started.timed_wait(Guard()));
    }
    // Done events outlive the worker: it may still notify them as a test ends.
    condition_event first{true}, second{true};
    EventWorker worker;
};

// Start must hand out a job: the job runs with the thread busy, the caller's event is
// notified, and the thread goes back to idle for the next job.
TEST_F(DnEventThreadTest, StartHandsOutAJobAndReportsCompletion) {
    for (int job = 1; job <= 2; ++job) {
        EXPECT_EQ(worker.Start(first, false), 0);
        ASSERT_TRUE(first.timed_wait(Guard()));
        EXPECT_EQ(worker.jobs, job);
        EXPECT_EQ(worker.stateDuringJob, CDnEventThread::kBusy);
        ASSERT_TRUE(WaitUntil([&] { return worker.work_state == CDnEventThread::kIdle; }));
    }
}

// Start on a busy thread without force must refuse and change nothing; with force it takes
// over: the job in hand reports to the new event and the thread runs once more.
TEST_F(DnEventThreadTest, StartOnABusyThread) {
    StartHeldJob();
    EXPECT_EQ(worker.Start(second, false), 1);
    EXPECT_EQ(worker.work_state, CDnEventThread::kBusy);
    EXPECT_EQ(worker.done_event, &first);
    EXPECT_FALSE(worker.wake_event.is_signal_all());

    EXPECT_EQ(worker.Start(second, true), 0);
    EXPECT_EQ(worker.done_event, &second);
    worker.release.notify();
    ASSERT_TRUE(second.timed_wait(Guard()));
    ASSERT_TRUE(
        WaitUntil([&] { return worker.jobs == 2 && worker.work_state == CDnEventThread::kIdle; }));
    EXPECT_FALSE(first.is_signal_one());
}

// Kill + Wait must end an idle event thread through its exit event, and during a job let
// the job finish and report first.
TEST_F(DnEventThreadTest, KillAndWaitEndTheThread) {
    StartHeldJob();
    worker.Kill();
    worker.release.notify();
    EXPECT_EQ(worker.Wait(kGuardMs), 0);
    EXPECT_TRUE(first.is_signal_one());
    EXPECT_EQ(worker.work_state, CDnEventThread::kIdle);

    EventWorker idle;
    idle.StartThread();
    ASSERT_TRUE(WaitUntil([&] { return idle.exit_event.subscriber_count() == 1; }));
    EXPECT_TRUE(idle.Kill());
    EXPECT_EQ(idle.Wait(kGuardMs), 0);
    EXPECT_EQ(idle.work_state, CDnEventThread::kEnded);
    EXPECT_FALSE(idle.m_isRunning);
}

// With a job and the exit event both waiting, the exit event (index 0) wins: the job is not
// run and the thread ends.
TEST_F(DnEventThreadTest, ExitEventWinsOverAPendingJob) {
    StartHeldJob();
    ASSERT_EQ(worker.Start(second, true), 0);  // a second job waits behind the first
    worker.exit_event.notify();                // without Kill, so the loop goes round
    worker.release.notify();
    EXPECT_EQ(worker.Wait(kGuardMs), 0);
    EXPECT_EQ(worker.jobs, 1);
    EXPECT_EQ(worker.work_state, CDnEventThread::kEnded);
}

}  // namespace
