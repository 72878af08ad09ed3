// SPDX-License-Identifier: Apache-2.0
// Tests of the lookup worker pool: hand-out, reuse, limits, trimming and failures.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "FakeAddressResolver.h"
#include "foundation/GlobalConst.h"
#include "foundation/ThreadPoolThread.h"
#include "resolve/LookupThread.h"
#include "support/ThreadTestSupport.h"

namespace {

using boost_ext::condition_event;
using swg_test::WaitUntil;
using Pool = CDnThreadPoolThread<CDnLookupThread>;

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
    void SetUp() override { resolver.SetAddresses("gw.swg.test", {"198.18.0.10"}); }

    // A pool of lookup workers on the fake resolver; the timer is not started unless asked.
    std::unique_ptr<Pool> MakePool(int minimum, int maximum, unsigned int periodMs = 60000) {
        auto pool = std::make_unique<Pool>(periodMs, minimum, maximum, [this] {
            return new (std::nothrow) CDnLookupThread(resolver);
        });
        EXPECT_TRUE(pool->Initialize());
        return pool;
    }
    // One finished job on `worker`, handed back as its caller would; with `settle`, waits until
    // the worker has turned idle (only without a running timer, which may trim it).
    void RunJob(Pool& pool, CDnLookupThread* worker, bool settle = true) {
        ASSERT_NE(worker, nullptr);
        ASSERT_EQ(worker->Start(pool.PoolEvent(), std::string("gw.swg.test"), true), 0);
        condition_event* result[1] = {&worker->ResultEvent()};
        ASSERT_EQ(boost_ext::condition_event_group::WaitForMultipleObjects(1, result, false, 10000),
                  0);
        worker->SetIdle();
        if (settle) {
            ASSERT_TRUE(WaitUntil([&] { return worker->work_state == CDnEventThread::kIdle; }));
        }
    }
    static std::size_t Total(Pool& pool) { return pool.IdleCount() + pool.ActiveCount(); }

    // Declared first: installed before any pool thread logs, removed after all are joined.
    swg_test::RecordingTrace trace;
    swg_test::FakeAddressResolver resolver;
};

// Guards the maximum (refused at once, error untouched) and reuse of a finished worker.
TEST_F(ThreadPoolThreadTest, GrowsToMaximumThenReusesFinishedWorkers) {
    auto pool = MakePool(1, 2);
    long error = 12345;
    CDnLookupThread* first = pool->GetThread(false, &error);
    CDnLookupThread* second = pool->GetThread(false, &error);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(pool->GetThread(false, &error), nullptr);
    EXPECT_EQ(error, 12345);
    EXPECT_EQ(trace.Count(THREAD, "CDnThreadPoolThread : GetThread - idles 0 actives 2"), 1);

    RunJob(*pool, first);
    EXPECT_EQ(pool->GetThread(false, nullptr), first);
    EXPECT_EQ(trace.Count(THREAD, "Pooler : Found Idle Thread in Active List"), 1);
    EXPECT_EQ(Total(*pool), 2u);
}

// Guards the trim: down to the minimum, never a busy worker, and ended workers discarded.
TEST_F(ThreadPoolThreadTest, TickTrimsIdleWorkersDownToTheMinimum) {
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
    ASSERT_EQ(Total(*pool), 1u) << "trimmed below the minimum";
    CDnLookupThread* last = pool->GetThread(false, nullptr);
    RunJob(*pool, last);
    ASSERT_EQ(pool->PurgeIdleThreads(), 1);
    last->Kill();
    ASSERT_TRUE(WaitUntil([&] { return last->work_state == CDnEventThread::kEnded; }));
    EXPECT_TRUE(pool->ProcessTick());
    EXPECT_EQ(Total(*pool), 0u);
    CDnLookupThread* fresh = pool->GetThread(false, nullptr);
    RunJob(*pool, fresh);
}

// Guards the timer itself: a started pool trims on its own after a burst.
TEST_F(ThreadPoolThreadTest, RunningTimerShrinksThePoolAfterABurst) {
    auto pool = MakePool(1, 4, 10);
    ASSERT_EQ(pool->StartThread(), 0);
    std::vector<CDnLookupThread*> workers;
    for (int i = 0; i < 4; ++i) workers.push_back(pool->GetThread(false, nullptr));
    for (CDnLookupThread* worker : workers) RunJob(*pool, worker, false);
    EXPECT_TRUE(WaitUntil([&] { return Total(*pool) == 1; }));
    pool->Kill();
    pool->Wait();
}

// Guards failures to make a worker: null with the start's code or out of memory, none listed.
TEST_F(ThreadPoolThreadTest, WorkerCreationFailuresAreReported) {
    for (const bool raise : {false, true}) {
        Pool unstartable(60000, 1, 2, [this, raise] {
            return new (std::nothrow) UnstartableWorker(resolver, raise);
        });
        long error = 0;
        EXPECT_EQ(unstartable.GetThread(false, &error), nullptr);
        EXPECT_EQ(error, raise ? EAGAIN : ENOMEM);
        EXPECT_EQ(Total(unstartable), 0u);
    }
    EXPECT_EQ(trace.CountPrefix(ERR, "Pooler : Failed to start thread. Exception code : "), 2);

    Pool outOfMemory(60000, 1, 2, [] { return static_cast<CDnLookupThread*>(nullptr); });
    long error = 0;
    EXPECT_EQ(outOfMemory.GetThread(false, &error), nullptr);
    EXPECT_EQ(error, SWG_E_OUTOFMEMORY);
}

}  // namespace
