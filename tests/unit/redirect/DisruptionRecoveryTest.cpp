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

// Holds the recovery inside Stop until released.
class Gate {
public:
    void Wait() {
        std::unique_lock<std::mutex> hold(m_lock);
        m_entered = true;
        m_changed.notify_all();
        m_changed.wait(hold, [this] { return m_open; });
    }
    bool WaitEntered() {
        std::unique_lock<std::mutex> hold(m_lock);
        return m_changed.wait_for(hold, std::chrono::seconds(2), [this] { return m_entered; });
    }
    void Open() {
        std::lock_guard<std::mutex> hold(m_lock);
        m_open = true;
        m_changed.notify_all();
    }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_entered = false;
    bool m_open = false;
};

class DisruptionRecoveryTest : public RedirectAgentTest {
protected:
    bool HandlerIdle() {
        return WaitUntil([this] {
            return !m_agent.m_kdfDisruptionHandlerBusy && m_agent.m_kdfThreadsRunning == 0;
        });
    }
};

// Guards the unplanned path: the old plug-in is closed and released, a new one built.
TEST_F(DisruptionRecoveryTest, DisruptionClosesAndRebuildsTheRedirector) {
    StartNormally();
    m_agent.OnKdfDisruption();
    ASSERT_TRUE(HandlerIdle());
    const Calls expected = {"Clear(1)",   "Stop", "ClosePlugin", "Release",      "Create",
                            "OpenPlugin", "Stop", "Clear(1)",    "SetRedirects", "Start"};
    EXPECT_EQ(m_script->Calls(), expected);
    EXPECT_EQ(m_agent.KdfState(), Running);
    EXPECT_EQ(m_agent.m_kdfStopReasons, 0);
    EXPECT_EQ(m_script->Live(), 1);
    EXPECT_EQ(m_trace.Count(WARN, "Notified of KDF disruption. Restarting KDF."), 1u);
    EXPECT_EQ(m_trace.Count(TRACE, "KDF Plugin reinitialized successfully."), 1u);
}

// Guards the single recovery thread: a notice during a recovery is dropped, not queued.
TEST_F(DisruptionRecoveryTest, TwoNoticesStartOneRecovery) {
    StartNormally();
    Gate gate;
    {
        std::lock_guard<std::mutex> hold(m_script->lock);
        m_script->onStop = [&gate] { gate.Wait(); };
    }
    m_agent.OnKdfDisruption();
    ASSERT_TRUE(gate.WaitEntered());
    m_agent.OnKdfDisruption();
    EXPECT_EQ(m_trace.Count(WARN,
                            "KDF Disruption handler thread already running. Disruption "
                            "not handled."),
              1u);
    gate.Open();
    ASSERT_TRUE(HandlerIdle());
    {
        std::lock_guard<std::mutex> hold(m_script->lock);
        m_script->onStop = nullptr;
    }
    EXPECT_EQ(m_script->Count("Create"), 1u);
    EXPECT_EQ(m_trace.Count(WARN, "Notified of KDF disruption. Restarting KDF."), 2u);
}

// Guards the mask across a disruption: a backoff keeps the redirector down, the recovery
// reports success anyway, and the end of the backoff finds no handle.
TEST_F(DisruptionRecoveryTest, BackoffSurvivesARecoveryWithoutSilentReopen) {
    StartNormally();
    ASSERT_TRUE(m_agent.StopKDF(reason_backoff));
    m_agent.OnKdfDisruption();
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(m_agent.m_pRedirector, nullptr);
    EXPECT_EQ(m_script->Count("Create"), 0u);
    EXPECT_EQ(m_trace.Count(WARN, "RestartKDF dont restart kdf since another call stopped it (2)"),
              1u);
    EXPECT_EQ(m_trace.Count(TRACE, "KDF Plugin reinitialized successfully."), 1u);
    EXPECT_FALSE(m_agent.RestartKDF(reason_backoff));
    EXPECT_EQ(m_trace.Count(ERR, "SocketRedirectorApi is null, could not set redirects"), 1u);
}

// Guards the three attempts and the busy flag after they all fail.
TEST_F(DisruptionRecoveryTest, ThreeFailedAttemptsLeaveTheHandlerReady) {
    StartNormally();
    CSWGAgent::ORGINFO info = m_agent.GetOrgInfo();
    const std::string ports = info.strWebTrafficMonitorPortList;
    info.strWebTrafficMonitorPortList.clear();
    m_agent.SetOrgInfo(info);

    m_agent.OnKdfDisruption();
    ASSERT_TRUE(HandlerIdle());
    for (int attempt = 1; attempt <= 3; ++attempt) {
        EXPECT_EQ(m_trace.Count(ERR, "Start KDF Plugin after KDF disruption failed. Attempt: " +
                                         std::to_string(attempt)),
                  1u);
    }
    EXPECT_EQ(m_trace.Count(WARN, "Stop KDF Plugin failed."), 0u);
    EXPECT_EQ(m_agent.KdfState(), Stopped);

    info.strWebTrafficMonitorPortList = ports;
    m_agent.SetOrgInfo(info);
    m_agent.OnKdfDisruption();
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(m_agent.KdfState(), Running);
    EXPECT_EQ(m_script->Count("Create"), 1u);
}

// Guards the rule for reason 4: a Stop error does not keep the old plug-in open.
TEST_F(DisruptionRecoveryTest, StopErrorDuringRecoveryIsTolerated) {
    StartNormally();
    m_script->stopResults = {11};
    m_agent.OnKdfDisruption();
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(m_trace.Count(ERR, "StopKDF: SocketRedirectorApi->Stop ERROR returned 11"), 1u);
    EXPECT_EQ(m_trace.Count(WARN, "Stop KDF Plugin failed."), 0u);
    EXPECT_EQ(m_script->Count("Release"), 1u);
    EXPECT_EQ(m_script->Count("Create"), 1u);
    EXPECT_EQ(m_agent.KdfState(), Running);
}

// Guards a failed stop (Running without a handle): reported, and the start still tried.
TEST_F(DisruptionRecoveryTest, FailedStopIsReportedAndTheStartStillTried) {
    m_script->createResults = {12};
    ASSERT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
    m_agent.OnKdfDisruption();
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(m_trace.Count(WARN, "Stop KDF Plugin failed."), 3u);
    EXPECT_EQ(m_trace.Count(TRACE, "CSWGAgent::StartKDF - Not in stopped state - ignore"), 3u);
    EXPECT_EQ(m_trace.With("Start KDF Plugin after KDF disruption failed. Attempt: ").size(), 3u);
    EXPECT_FALSE(m_agent.m_kdfDisruptionHandlerBusy);
}

// Guards the disruption of a redirector already stopped: only the bit is recorded by the
// stop, and the start rebuilds it (also during shutdown; nothing guards against that).
TEST_F(DisruptionRecoveryTest, DisruptionWhileStoppedRebuilds) {
    m_agent.OnKdfDisruption();
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(m_trace.Count(TRACE,
                            "CSWGAgent::StopKDF - In the process of stopping or in "
                            "stopped state already - ignore"),
              1u);
    EXPECT_EQ(m_script->Calls().front(), "Create");
    EXPECT_EQ(m_agent.KdfState(), Running);
}

// Guards the planned start: the plug-in is closed on the old handle, which is kept, and
// the state still reads Running.
TEST_F(DisruptionRecoveryTest, PlannedStartClosesThePluginButKeepsHandleAndState) {
    StartNormally();
    ISocketRedirectorApi* handle = m_agent.m_pRedirector;
    m_agent.OnPlannedKdfDisruptionStart(kext_failover);
    WaitForRedirectorThreads();
    EXPECT_EQ(
        m_trace.Count(TRACE, "Notified of KDF kext failover start, closing connection to KDF."),
        1u);
    EXPECT_EQ(m_script->Calls(), (Calls{"Clear(1)", "Stop", "ClosePlugin"}));
    EXPECT_EQ(m_trace.Count(TRACE, "Closing KDF Plugin was successful (pre disruption)."), 1u);
    EXPECT_EQ(m_agent.m_pRedirector, handle);
    EXPECT_EQ(m_agent.KdfState(), Running);
}

// Guards that every step of the planned start is tried and each failure logged.
TEST_F(DisruptionRecoveryTest, PlannedStartTriesEveryStepAndLogsFailures) {
    StartNormally();
    m_script->clearResults = {3};
    m_script->stopResults = {NGC_ERROR_DISCONNECTED};
    m_script->closeResults = {5};
    m_agent.OnPlannedKdfDisruptionStart(upgrade);
    WaitForRedirectorThreads();
    EXPECT_EQ(m_script->Calls(), (Calls{"Clear(1)", "Stop", "ClosePlugin"}));
    EXPECT_EQ(m_trace.Count(WARN, "ISocketRedirectorApi::Clear failed [3]"), 1u);
    EXPECT_EQ(m_trace.Count(WARN, "ISocketRedirectorApi::Stop failed [49]"), 1u);
    EXPECT_EQ(m_trace.Count(WARN, "ISocketRedirectorApi::ClosePlugin failed [5]"), 1u);
}

// Guards the words of the notices, and the empty word of an unknown value.
TEST_F(DisruptionRecoveryTest, NoticesNameTheirReason) {
    StartNormally();
    m_agent.OnPlannedKdfDisruptionStart(static_cast<PlannedDisruption>(7));
    m_agent.OnPlannedKdfDisruptionStart(debug_flag_update);
    WaitForRedirectorThreads();
    EXPECT_EQ(m_trace.Count(TRACE, "Notified of KDF  start, closing connection to KDF."), 1u);
    EXPECT_EQ(
        m_trace.Count(TRACE, "Notified of KDF debug flag update start, closing connection to KDF."),
        1u);
}

// Guards that a completion notice, even without a start before it, is a plain disruption.
TEST_F(DisruptionRecoveryTest, CompletionWithoutStartRecoversLikeADisruption) {
    StartNormally();
    m_agent.OnPlannedKdfDisruptionComplete(kext_failover_reversal);
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(m_trace.Count(TRACE, "Notified of KDF kext failover reversal completion."), 1u);
    EXPECT_EQ(m_trace.Count(WARN, "Notified of KDF disruption. Restarting KDF."), 1u);
    EXPECT_EQ(m_script->Count("Release"), 1u);
    EXPECT_EQ(m_script->Count("Create"), 1u);
    EXPECT_EQ(m_agent.KdfState(), Running);
}

}  // namespace
}  // namespace swg_test
