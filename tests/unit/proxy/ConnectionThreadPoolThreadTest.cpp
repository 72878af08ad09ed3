// SPDX-License-Identifier: Apache-2.0
// The pool's hand-out, reuse, limit, wait and trimming, with real connection threads.
#include "proxy/ConnectionThreadPoolThread.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "proxy/ConnectionThread.h"
#include "proxy/DnSocket.h"
#include "support/SocketPeers.h"
#include "unit/foundation/ThreadTestSupport.h"

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

    // Gives `thread` a job whose client has already gone: it ends at once.
    void RunShortJob(CDnConnectionThread* thread) {
        swg_test::TcpPair pair = swg_test::MakeTcpPair(AF_INET);
        pair.a.Reset();
        ASSERT_EQ(thread->Start(m_pool->m_threadDone, new CDnSocket(pair.b.Release()), nullptr,
                                false, true),
                  0);
    }

    // Gives `thread` a job that blocks reading its record until the returned client closes.
    UniqueFd RunBlockedJob(CDnConnectionThread* thread) {
        swg_test::TcpPair pair = swg_test::MakeTcpPair(AF_INET);
        EXPECT_EQ(thread->Start(m_pool->m_threadDone, new CDnSocket(pair.b.Release()), nullptr,
                                false, true),
                  0);
        return std::move(pair.a);
    }

    static bool Idle(CDnConnectionThread* thread) {
        return swg_test::WaitUntil([&] { return thread->work_state == CDnEventThread::kIdle; });
    }

    swg_test::RecordingTrace m_trace;
    std::unique_ptr<CDnConnectionThreadPoolThread> m_pool;
};

// Below the maximum each request gets a started thread, marked busy, on the active list.
TEST_F(ConnectionThreadPoolTest, HandsOutNewBusyThreadsBelowTheMaximum) {
    MakePool(3);
    std::vector<CDnConnectionThread*> threads;
    for (int i = 0; i < 3; ++i) threads.push_back(m_pool->GetConnectionThread(false));
    for (CDnConnectionThread* thread : threads) {
        ASSERT_NE(thread, nullptr);
        EXPECT_EQ(thread->work_state, CDnEventThread::kBusy);
    }
    EXPECT_NE(threads[0], threads[1]);
    EXPECT_EQ(m_pool->ActiveCount(), 3u);
    EXPECT_EQ(m_pool->GetConnectionThread(false), nullptr);
}

// At the maximum, a thread whose job has ended is found on the active list and reused.
TEST_F(ConnectionThreadPoolTest, ReusesAFinishedThreadAtTheMaximum) {
    MakePool(2);
    CDnConnectionThread* first = m_pool->GetConnectionThread(false);
    CDnConnectionThread* second = m_pool->GetConnectionThread(false);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    UniqueFd blocked = RunBlockedJob(first);
    RunShortJob(second);
    ASSERT_TRUE(Idle(second));

    EXPECT_EQ(m_pool->GetConnectionThread(false), second);
    EXPECT_EQ(m_trace.Count(THREAD, "Connection Pool : Found Idle Thread in Active List"), 1);
}

// With every thread busy, a waiting request gets the first thread to finish, and not before.
TEST_F(ConnectionThreadPoolTest, WaitingRequestGetsTheFirstThreadToFinish) {
    MakePool(2);
    std::vector<UniqueFd> clients;
    CDnConnectionThread* threads[2] = {m_pool->GetConnectionThread(false),
                                       m_pool->GetConnectionThread(false)};
    for (CDnConnectionThread* thread : threads) clients.push_back(RunBlockedJob(thread));

    auto waiting =
        std::async(std::launch::async, [&] { return m_pool->GetConnectionThread(true); });
    EXPECT_EQ(waiting.wait_for(300ms), std::future_status::timeout);
    clients[1].Reset();  // the second job ends
    ASSERT_EQ(waiting.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(waiting.get(), threads[1]);
    EXPECT_EQ(m_trace.Count(THREAD,
                            "Connection Pool  : Failed to get a thread.  Waiting for an "
                            "available thread"),
              1);
}

// Kill must release a listener that waits for a thread, with no thread.
TEST_F(ConnectionThreadPoolTest, KillEndsAWaitForAThread) {
    MakePool(1);
    CDnConnectionThread* only = m_pool->GetConnectionThread(false);
    UniqueFd client = RunBlockedJob(only);
    auto waiting =
        std::async(std::launch::async, [&] { return m_pool->GetConnectionThread(true); });
    std::this_thread::sleep_for(100ms);
    m_pool->Kill();
    ASSERT_EQ(waiting.wait_for(2s), std::future_status::ready);
    EXPECT_EQ(waiting.get(), nullptr);
}

// A tick gives up idle threads while more than ten exist, and keeps ten.
TEST_F(ConnectionThreadPoolTest, TickTrimsIdleThreadsDownToTheMinimum) {
    MakePool(20);
    std::vector<CDnConnectionThread*> threads;
    for (int i = 0; i < 14; ++i) threads.push_back(m_pool->GetConnectionThread(false));
    UniqueFd busy = RunBlockedJob(threads[0]);
    for (int i = 1; i < 14; ++i) RunShortJob(threads[i]);
    for (int i = 1; i < 14; ++i) ASSERT_TRUE(Idle(threads[i]));

    m_pool->ProcessTick();
    EXPECT_EQ(m_pool->ActiveCount(), 1u);
    EXPECT_EQ(m_pool->IdleCount(), 9u);
    EXPECT_EQ(m_trace.Count(THREAD, "---- IsIPv6:0 purged:13 Idle:9 Active:1 ----"), 1);
}

// With ten threads or fewer in all, idle threads stay for the next connections.
TEST_F(ConnectionThreadPoolTest, TickKeepsIdleThreadsAtOrBelowTheMinimum) {
    MakePool(20);
    std::vector<CDnConnectionThread*> threads;
    for (int i = 0; i < 10; ++i) threads.push_back(m_pool->GetConnectionThread(false));
    for (CDnConnectionThread* thread : threads) RunShortJob(thread);
    for (CDnConnectionThread* thread : threads) ASSERT_TRUE(Idle(thread));
    m_pool->ProcessTick();
    EXPECT_EQ(m_pool->IdleCount(), 10u);
    CDnConnectionThread* again = m_pool->GetConnectionThread(false);
    EXPECT_EQ(m_trace.Count(THREAD, "Connection Pool : Got Thread from Idle Pool"), 1);
    EXPECT_NE(std::find(threads.begin(), threads.end(), again), threads.end());
}

// A thread killed during its job turns idle with its loop ended; handing it out would leave
// a connection without a worker.
TEST_F(ConnectionThreadPoolTest, AThreadKilledDuringAJobIsNotHandedOutAgain) {
    MakePool(1);
    CDnConnectionThread* only = m_pool->GetConnectionThread(false);
    UniqueFd client = RunBlockedJob(only);
    only->Kill();
    // Depending on the moment its work_state ends up idle, ended, or still busy (killed between
    // wake-up and job); in every case its loop has ended.
    ASSERT_TRUE(swg_test::WaitUntil([&] { return !only->m_isRunning; }));
    EXPECT_EQ(m_pool->PurgeIdleConnections(), 0);
    EXPECT_EQ(m_pool->ActiveCount(), 0u);
    CDnConnectionThread* fresh = m_pool->GetConnectionThread(false);
    ASSERT_NE(fresh, nullptr);
    EXPECT_FALSE(fresh->exit_requested);
}

}  // namespace
