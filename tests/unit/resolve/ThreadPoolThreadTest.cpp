// SPDX-License-Identifier: Apache-2.0
// Tests of the lookup worker pool: hand-out, reuse, limits, trimming and failures.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "FakeAddressResolver.h"
#include "foundation/GlobalConst.h"
#include "resolve/LookupThread.h"
#include "resolve/ThreadPoolThread.h"
#include "unit/foundation/ThreadTestSupport.h"

namespace {

using boost_ext::condition_event;
using boost_ext::condition_event_group;
using swg_test::FakeAddressResolver;
using swg_test::RecordingTrace;
using swg_test::WaitUntil;
using Pool = CDnThreadPoolThread<CDnLookupThread>;

constexpr unsigned long kGuardMs = 10000;

// A worker whose base initialisation fails.
class UninitialisableWorker : public CDnLookupThread {
public:
    using CDnLookupThread::CDnLookupThread;
    bool Initialize() override { return false; }
};

// A worker whose thread cannot be started: by code, or by the boost error of thread creation.
class UnstartableWorker : public CDnLookupThread {
public:
    UnstartableWorker(IAddressResolver& resolver, bool raise)
        : CDnLookupThread(resolver), m_raise(raise) {}
    long StartThread() override {
        if (m_raise) throw boost::thread_resource_error(EAGAIN, "no thread");
        return ENOMEM;
    }

private:
    bool m_raise;
};

class ThreadPoolThreadTest : public ::testing::Test {
protected:
    // A pool of lookup workers on the fake resolver; the timer is not started unless asked.
    std::unique_ptr<Pool> MakePool(int minimum, int maximum, unsigned int periodMs = 60000) {
        auto pool = std::make_unique<Pool>(periodMs, minimum, maximum, [this] {
            return new (std::nothrow) CDnLookupThread(resolver);
        });
        EXPECT_TRUE(pool->Initialize());
        return pool;
    }
    // One finished job on `worker`, handed back as its caller would; the worker is not touched
    // after SetIdle (a running timer may trim it from then on).
    void HandBack(Pool& pool, CDnLookupThread* worker) {
        ASSERT_NE(worker, nullptr);
        ASSERT_EQ(worker->Start(pool.PoolEvent(), std::string("gw.swg.test"), true), 0);
        condition_event* result[1] = {&worker->ResultEvent()};
        ASSERT_EQ(condition_event_group::WaitForMultipleObjects(1, result, false, kGuardMs), 0);
        worker->SetIdle();
    }
    // As HandBack, then waits until the worker has turned idle. Only without a running timer.
    void RunJob(Pool& pool, CDnLookupThread* worker) {
        HandBack(pool, worker);
        ASSERT_TRUE(WaitUntil([&] { return worker->work_state == CDnEventThread::kIdle; }));
    }
    static std::size_t Total(Pool& pool) { return pool.IdleCount() + pool.ActiveCount(); }

    void TearDown() override { resolver.OpenGate(); }

    // Declared first: installed before any pool thread logs, removed after all are joined.
    RecordingTrace trace;
    FakeAddressResolver resolver;
};

// Guards the upper bound: the pool must refuse at the maximum at once, leaving the error alone,
// rather than create more workers or block.
TEST_F(ThreadPoolThreadTest, GrowsToMaximumThenRefusesWithErrorUntouched) {
    auto pool = MakePool(1, 2);
    long error = 12345;
    CDnLookupThread* first = pool->GetThread(false, &error);
    CDnLookupThread* second = pool->GetThread(false, &error);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(first->work_state, CDnEventThread::kBusy);

    EXPECT_EQ(pool->GetThread(false, &error), nullptr);
    EXPECT_EQ(error, 12345);
    EXPECT_EQ(pool->ActiveCount(), 2u);
    EXPECT_EQ(trace.Count(THREAD, "CDnThreadPoolThread : GetThread - idles 0 actives 2"), 1);
}

// Guards reuse: a worker whose job is over is handed out again (found in the active list),
// never a new thread beside it.
TEST_F(ThreadPoolThreadTest, FinishedWorkerIsReusedInsteadOfCreatingAnother) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    auto pool = MakePool(1, 1);
    CDnLookupThread* worker = pool->GetThread(false, nullptr);
    RunJob(*pool, worker);

    EXPECT_EQ(pool->GetThread(false, nullptr), worker);
    EXPECT_EQ(trace.Count(THREAD, "Pooler : Found Idle Thread in Active List"), 1);
    EXPECT_EQ(Total(*pool), 1u);
}

// Guards the safety of abandoning a lookup: the worker is not given to anyone else while its
// resolver call still runs, and comes back once it returns.
TEST_F(ThreadPoolThreadTest, AbandonedWorkerReturnsOnlyAfterItsLookupEnds) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    auto pool = MakePool(1, 1);
    CDnLookupThread* worker = pool->GetThread(false, nullptr);
    ASSERT_NE(worker, nullptr);
    resolver.CloseGate();
    ASSERT_EQ(worker->Start(pool->PoolEvent(), std::string("gw.swg.test"), true), 0);
    ASSERT_TRUE(resolver.WaitHeld(1));
    worker->SetIdle();

    EXPECT_EQ(pool->PurgeIdleThreads(), 0);
    EXPECT_EQ(pool->GetThread(false, nullptr), nullptr);

    resolver.OpenGate();
    CDnLookupThread* again = nullptr;
    ASSERT_TRUE(WaitUntil([&] { return (again = pool->GetThread(false, nullptr)) != nullptr; }));
    EXPECT_EQ(again, worker);
}

// Guards the trim: one tick after a burst leaves exactly the minimum, and busy workers are
// never trimmed.
TEST_F(ThreadPoolThreadTest, TickTrimsIdleWorkersDownToTheMinimum) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    auto pool = MakePool(1, 5);
    std::vector<CDnLookupThread*> workers;
    for (int i = 0; i < 4; ++i) workers.push_back(pool->GetThread(false, nullptr));
    for (CDnLookupThread* worker : workers) RunJob(*pool, worker);
    CDnLookupThread* busy = pool->GetThread(false, nullptr);  // the fifth, kept busy
    ASSERT_NE(busy, nullptr);

    EXPECT_TRUE(pool->ProcessTick());
    EXPECT_EQ(pool->ActiveCount(), 1u);
    EXPECT_EQ(pool->IdleCount(), 0u) << "trimmed below the minimum or not at all";

    RunJob(*pool, busy);
    EXPECT_TRUE(pool->ProcessTick());
    EXPECT_EQ(Total(*pool), 1u);
}

// Guards the timer itself: a started pool trims on its own after a burst.
TEST_F(ThreadPoolThreadTest, RunningTimerShrinksThePoolAfterABurst) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    auto pool = MakePool(1, 4, 10);
    ASSERT_EQ(pool->StartThread(), 0);
    std::vector<CDnLookupThread*> workers;
    for (int i = 0; i < 4; ++i) workers.push_back(pool->GetThread(false, nullptr));
    for (CDnLookupThread* worker : workers) HandBack(*pool, worker);
    EXPECT_TRUE(WaitUntil([&] { return Total(*pool) == 1; }));
    pool->Kill();
    pool->Wait();
}

// Guards against handing out a worker whose loop has ended: it would take a job and never run
// it. The tick discards it and the pool makes a fresh one.
TEST_F(ThreadPoolThreadTest, EndedWorkerIsDiscarded) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    auto pool = MakePool(2, 2);
    CDnLookupThread* first = pool->GetThread(false, nullptr);
    CDnLookupThread* second = pool->GetThread(false, nullptr);
    RunJob(*pool, first);
    RunJob(*pool, second);
    ASSERT_EQ(pool->PurgeIdleThreads(), 2);
    second->Kill();
    ASSERT_TRUE(WaitUntil([&] { return second->work_state == CDnEventThread::kEnded; }));

    EXPECT_TRUE(pool->ProcessTick());
    EXPECT_EQ(Total(*pool), 1u);
    CDnLookupThread* fresh = pool->GetThread(false, nullptr);
    CDnLookupThread* another = pool->GetThread(false, nullptr);
    ASSERT_NE(fresh, nullptr);
    ASSERT_NE(another, nullptr);
    RunJob(*pool, fresh);
    RunJob(*pool, another);
}

// Guards the failure paths of making a worker: initialisation raises the general failure,
// a start failure gives null with its code, an allocation failure gives out of memory; none of
// them leaves a worker listed.
TEST_F(ThreadPoolThreadTest, WorkerCreationFailuresAreReported) {
    Pool uninitialisable(60000, 1, 2,
                         [this] { return new (std::nothrow) UninitialisableWorker(resolver); });
    ASSERT_TRUE(uninitialisable.Initialize());
    try {
        uninitialisable.GetThread(false, nullptr);
        ADD_FAILURE() << "no exception";
    } catch (long code) {
        EXPECT_EQ(code, SWG_E_FAIL);
    }
    EXPECT_EQ(trace.Count(ERR, "Pooler : Failed to initalize thread class"), 1);
    EXPECT_EQ(uninitialisable.ActiveCount(), 0u);

    for (const bool raise : {false, true}) {
        Pool unstartable(60000, 1, 2, [this, raise] {
            return new (std::nothrow) UnstartableWorker(resolver, raise);
        });
        long error = 0;
        EXPECT_EQ(unstartable.GetThread(false, &error), nullptr);
        EXPECT_EQ(error, raise ? EAGAIN : ENOMEM);
        EXPECT_EQ(unstartable.ActiveCount(), 0u);
    }
    EXPECT_EQ(trace.CountPrefix(ERR, "Pooler : Failed to start thread. Exception code : "), 2);

    Pool outOfMemory(60000, 1, 2, [] { return static_cast<CDnLookupThread*>(nullptr); });
    long error = 0;
    EXPECT_EQ(outOfMemory.GetThread(false, &error), nullptr);
    EXPECT_EQ(error, SWG_E_OUTOFMEMORY);
}

// Guards the blocking form: a waiting GetThread gets the worker once its job ends, and a pool
// that is killed releases its waiter with null instead of leaving it hung on the lock.
TEST_F(ThreadPoolThreadTest, WaitingGetThreadEndsOnFreeWorkerOrKill) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    auto pool = MakePool(1, 1);
    CDnLookupThread* worker = pool->GetThread(false, nullptr);
    ASSERT_NE(worker, nullptr);
    resolver.CloseGate();
    ASSERT_EQ(worker->Start(pool->PoolEvent(), std::string("gw.swg.test"), true), 0);
    ASSERT_TRUE(resolver.WaitHeld(1));
    worker->SetIdle();

    std::atomic<CDnLookupThread*> got{nullptr};
    std::thread waiter([&] { got = pool->GetThread(true, nullptr); });
    resolver.OpenGate();
    waiter.join();
    EXPECT_EQ(got.load(), worker);

    std::atomic<bool> returned{false};
    std::thread blocked([&] {
        got = pool->GetThread(true, nullptr);
        returned = true;
    });
    ASSERT_TRUE(WaitUntil([&] {
        return trace.Count(THREAD, "CDnThreadPoolThread : GetThread - idles 0 actives 1") >= 2;
    }));
    pool->Kill();
    blocked.join();
    EXPECT_TRUE(returned);
    EXPECT_EQ(got.load(), nullptr);
    pool->Wait();
}

// Guards the values a reused pool starts from and that Deinitialize destroys every worker.
TEST_F(ThreadPoolThreadTest, DeinitializeDestroysWorkersAndSetsReuseValues) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    auto pool = MakePool(3, 7, 5000);
    ASSERT_EQ(pool->StartThread(), 0);
    HandBack(*pool, pool->GetThread(false, nullptr));
    ASSERT_NE(pool->GetThread(false, nullptr), nullptr);
    pool->Kill();
    pool->Wait();
    EXPECT_TRUE(pool->Deinitialize());

    EXPECT_EQ(Total(*pool), 0u);
    EXPECT_EQ(pool->period_ms.load(), 500u);
    EXPECT_EQ(pool->Minimum(), 1);
    EXPECT_EQ(pool->Maximum(), 2);

    ASSERT_TRUE(pool->Initialize());
    ASSERT_EQ(pool->StartThread(), 0);
    HandBack(*pool, pool->GetThread(false, nullptr));
}

}  // namespace
