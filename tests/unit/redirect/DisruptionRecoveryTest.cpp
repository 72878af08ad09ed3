// SPDX-License-Identifier: Apache-2.0
// Recovery after the redirector's kernel side went away, announced or not.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "RedirectAgentFixture.h"
#include "foundation/GlobalConst.h"

namespace swg_test {
namespace {

using Calls = std::vector<std::string>;
const Calls kRebuild = {"Clear(1)",   "Stop", "ClosePlugin", "Release",      "Create",
                        "OpenPlugin", "Stop", "Clear(1)",    "SetRedirects", "Start"};

class DisruptionRecoveryTest : public RedirectAgentTest {
protected:
    bool HandlerIdle() {
        return WaitUntil([this] {
            return !m_agent.m_kdfDisruptionHandlerBusy && m_agent.m_kdfThreadsRunning == 0;
        });
    }
};

// The old plug-in must be closed and released (a Stop error notwithstanding) and a new one
// built, whether the notice is a disruption or a completion without a start.
TEST_F(DisruptionRecoveryTest, DisruptionClosesAndRebuildsTheRedirector) {
    StartNormally();
    m_script->stopResults = {11};
    m_agent.OnKdfDisruption();
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(m_script->Calls(), kRebuild);
    EXPECT_EQ(m_agent.KdfState(), Running);
    EXPECT_EQ(m_agent.m_kdfStopReasons, 0);
    EXPECT_EQ(m_script->Live(), 1);

    ForgetCalls();
    m_agent.OnPlannedKdfDisruptionComplete(kext_failover_reversal);
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(m_script->Calls(), kRebuild);
}

// A second notice during a recovery must be dropped, not start a second recovery thread.
TEST_F(DisruptionRecoveryTest, TwoNoticesStartOneRecovery) {
    StartNormally();
    std::mutex lock;
    std::condition_variable changed;
    bool entered = false;
    bool open = false;
    {
        std::lock_guard<std::mutex> hold(m_script->lock);
        m_script->onStop = [&] {  // holds the recovery inside Stop until released
            std::unique_lock<std::mutex> wait(lock);
            entered = true;
            changed.notify_all();
            changed.wait(wait, [&] { return open; });
        };
    }
    m_agent.OnKdfDisruption();
    {
        std::unique_lock<std::mutex> wait(lock);
        ASSERT_TRUE(changed.wait_for(wait, std::chrono::seconds(2), [&] { return entered; }));
    }
    m_agent.OnKdfDisruption();
    {
        std::lock_guard<std::mutex> hold(lock);
        open = true;
        changed.notify_all();
    }
    ASSERT_TRUE(HandlerIdle());
    {
        std::lock_guard<std::mutex> hold(m_script->lock);
        m_script->onStop = nullptr;
    }
    EXPECT_EQ(m_script->Count("Create"), 1u);
    EXPECT_EQ(m_trace.Count(WARN,
                            "KDF Disruption handler thread already running. Disruption "
                            "not handled."),
              1u);
}

// A backoff keeps the redirector down across a recovery: no silent reopen.
TEST_F(DisruptionRecoveryTest, BackoffSurvivesARecoveryWithoutSilentReopen) {
    StartNormally();
    ASSERT_TRUE(m_agent.StopKDF(reason_backoff));
    m_agent.OnKdfDisruption();
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(m_agent.m_pRedirector, nullptr);
    EXPECT_EQ(m_script->Count("Create"), 0u);
    EXPECT_FALSE(m_agent.RestartKDF(reason_backoff));
}

// Three failed attempts must leave the handler ready for the next notice.
TEST_F(DisruptionRecoveryTest, ThreeFailedAttemptsLeaveTheHandlerReady) {
    StartNormally();
    CSWGAgent::ORGINFO info = m_agent.GetOrgInfo();
    const std::string ports = info.strWebTrafficMonitorPortList;
    info.strWebTrafficMonitorPortList.clear();
    m_agent.SetOrgInfo(info);
    m_agent.OnKdfDisruption();
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(m_trace.With("Start KDF Plugin after KDF disruption failed. Attempt: ").size(), 3u);
    EXPECT_EQ(m_agent.KdfState(), Stopped);

    info.strWebTrafficMonitorPortList = ports;
    m_agent.SetOrgInfo(info);
    m_agent.OnKdfDisruption();
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(m_agent.KdfState(), Running);
}

// The planned start must try every step, failures included, and keep the handle and state.
TEST_F(DisruptionRecoveryTest, PlannedStartClosesThePluginButKeepsHandleAndState) {
    StartNormally();
    ISocketRedirectorApi* handle = m_agent.m_pRedirector;
    m_script->clearResults = {3};
    m_script->stopResults = {NGC_ERROR_DISCONNECTED};
    m_script->closeResults = {5};
    m_agent.OnPlannedKdfDisruptionStart(kext_failover);
    WaitForRedirectorThreads();
    EXPECT_EQ(m_script->Calls(), (Calls{"Clear(1)", "Stop", "ClosePlugin"}));
    EXPECT_EQ(m_agent.m_pRedirector, handle);
    EXPECT_EQ(m_agent.KdfState(), Running);
}

}  // namespace
}  // namespace swg_test
