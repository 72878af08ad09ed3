// SPDX-License-Identifier: Apache-2.0
// The pool's hand-out, reuse, limit, wait and trimming, with real connection threads.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "proxy/ConnectionThread.h"
#include "proxy/ConnectionThreadPoolThread.h"
#include "proxy/DnSocket.h"
#include "support/SocketPeers.h"
#include "support/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;
using swg_test::UniqueFd;

class ConnectionThreadPoolTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (m_pool) {
            m_pool->Kill();
            m_pool->Wait();
            m_pool->Deinitialize();
        }
    }

    void MakePool(std::uint32_t maxThreads) {
        m_pool = std::make_unique<CDnConnectionThreadPoolThread>(maxThreads);
        ASSERT_TRUE(m_pool->Initialize(false));
    }

    // Gives `thread` a job that blocks reading its record until the returned client closes;
    // with `ended`, the client has gone already and the job ends at once (the thread turns idle).
    UniqueFd RunJob(CDnConnectionThread* thread, bool ended = false) {
        swg_test::TcpPair pair = swg_test::MakeTcpPair(AF_INET);
        if (ended) pair.a.Reset();
        EXPECT_EQ(thread->Start(m_pool->m_threadDone, new CDnSocket(pair.b.Release()), nullptr,
                                false, true),
                  0);
        if (ended) {
            EXPECT_TRUE(
                swg_test::WaitUntil([&] { return thread->work_state == CDnEventThread::kIdle; }));
        }
        return std::move(pair.a);
    }

    swg_test::RecordingTrace m_trace;
    std::unique_ptr<CDnConnectionThreadPoolThread> m_pool;
};

// Below the maximum each request gets a new started thread, marked busy; at the maximum a
// thread whose job has ended is found on the active list and reused, else there is none.
TEST_F(ConnectionThreadPoolTest, HandsOutBusyThreadsUpToTheMaximumAndReusesFinishedOnes) {
    MakePool(2);
    CDnConnectionThread* first = m_pool->GetConnectionThread(false);
    CDnConnectionThread* second = m_pool->GetConnectionThread(false);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(second->work_state, CDnEventThread::kBusy);
    EXPECT_EQ(m_pool->ActiveCount(), 2u);
    UniqueFd blocked = RunJob(first);
    UniqueFd blocked2 = RunJob(second);
    EXPECT_EQ(m_pool->GetConnectionThread(false), nullptr);

    blocked2.Reset();
    ASSERT_TRUE(swg_test::WaitUntil([&] { return second->work_state == CDnEventThread::kIdle; }));
    EXPECT_EQ(m_pool->GetConnectionThread(false), second);
}

// With every thread busy a waiting request gets the first thread to finish, and not before;
// Kill releases a waiting listener with no thread.
TEST_F(ConnectionThreadPoolTest, WaitingRequestGetsTheFirstThreadToFinish) {
    MakePool(2);
    CDnConnectionThread* threads[2] = {m_pool->GetConnectionThread(false),
                                       m_pool->GetConnectionThread(false)};
    UniqueFd client0 = RunJob(threads[0]);
    UniqueFd client1 = RunJob(threads[1]);
    auto waiting =
        std::async(std::launch::async, [&] { return m_pool->GetConnectionThread(true); });
    EXPECT_EQ(waiting.wait_for(300ms), std::future_status::timeout);
    client1.Reset();  // the second job ends
    ASSERT_EQ(waiting.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(waiting.get(), threads[1]);

    UniqueFd again = RunJob(threads[1]);
    waiting = std::async(std::launch::async, [&] { return m_pool->GetConnectionThread(true); });
    ASSERT_TRUE(swg_test::WaitUntil([&] {
        return m_trace.Count(THREAD,
                             "Connection Pool  : Failed to get a thread.  Waiting for an "
                             "available thread") == 2;
    }));
    m_pool->Kill();
    ASSERT_EQ(waiting.wait_for(2s), std::future_status::ready);
    EXPECT_EQ(waiting.get(), nullptr);
}

// A tick gives up idle threads while more than ten exist and keeps ten, which serve the next
// connections from the idle list.
TEST_F(ConnectionThreadPoolTest, TickTrimsIdleThreadsDownToTheMinimum) {
    MakePool(20);
    std::vector<CDnConnectionThread*> threads;
    for (int i = 0; i < 14; ++i) threads.push_back(m_pool->GetConnectionThread(false));
    UniqueFd busy = RunJob(threads[0]);
    for (int i = 1; i < 14; ++i) RunJob(threads[i], true);
    m_pool->ProcessTick();
    EXPECT_EQ(m_pool->ActiveCount(), 1u);
    EXPECT_EQ(m_pool->IdleCount(), 9u);
    m_pool->ProcessTick();
    EXPECT_EQ(m_pool->IdleCount(), 9u);
    CDnConnectionThread* again = m_pool->GetConnectionThread(false);
    EXPECT_NE(std::find(threads.begin(), threads.end(), again), threads.end());
    EXPECT_EQ(m_pool->IdleCount(), 8u);
}

// A thread killed during its job turns idle with its loop ended; handing it out would leave
// a connection without a worker.
TEST_F(ConnectionThreadPoolTest, AThreadKilledDuringAJobIsNotHandedOutAgain) {
    MakePool(1);
    CDnConnectionThread* only = m_pool->GetConnectionThread(false);
    UniqueFd client = RunJob(only);
    only->Kill();
    ASSERT_TRUE(swg_test::WaitUntil([&] { return !only->m_isRunning; }));
    EXPECT_EQ(m_pool->PurgeIdleConnections(), 0);
    EXPECT_EQ(m_pool->ActiveCount(), 0u);
    CDnConnectionThread* fresh = m_pool->GetConnectionThread(false);
    ASSERT_NE(fresh, nullptr);
    EXPECT_FALSE(fresh->exit_requested);
}

}  // namespace
