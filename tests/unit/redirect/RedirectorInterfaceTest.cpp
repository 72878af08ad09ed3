// SPDX-License-Identifier: Apache-2.0
// Opening, feeding, stopping and closing the redirector, the stop-reason mask, and recovery
// after the redirector's kernel side went away, announced or not; checked on the state the
// agent leaves the redirector in.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "RedirectAgentFixture.h"
#include "foundation/GlobalConst.h"

namespace swg_test {
namespace {

using namespace std::chrono_literals;

constexpr long kFail = static_cast<long>(SWG_E_FAIL);

class RedirectorInterfaceTest : public RedirectAgentTest {
protected:
    int Created() { return m_script->Get(m_script->created); }
    int OpenAttempts() { return m_script->Get(m_script->openAttempts); }
};

// A start that leaves anything undone (no rules, not started, rules cleared after they were
// set) or registers no callback; a second start while Running that changes anything; a
// configuration change that adds the rules to those in force instead of replacing them.
TEST_F(RedirectorInterfaceTest, StartLeavesTheRedirectorDiverting) {
    EXPECT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
    EXPECT_TRUE(Diverting());
    EXPECT_EQ(m_agent.KdfState(), Running);
    EXPECT_EQ(m_script->Get(m_script->callback), static_cast<IKdfApiCB*>(&m_agent));
    EXPECT_EQ(m_agent.StartKDF(reason_rules_refresh), kFail);
    EXPECT_TRUE(Diverting());
    EXPECT_TRUE(m_agent.RestartKDF(reason_rules_refresh));
    EXPECT_TRUE(Diverting());
    EXPECT_EQ(OpenAttempts(), 1);
}

// OpenPlugin is retried without limit, pausing 2 s times the attempt up to the sixth, then 15 s.
TEST_F(RedirectorInterfaceTest, OpenPluginIsRetriedOnTheGrowingSchedule) {
    m_script->openResults = std::deque<int>(9, 5);
    EXPECT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
    EXPECT_EQ(
        m_script->Get(m_script->sleeps),
        (std::vector<unsigned int>{2000, 4000, 6000, 8000, 10000, 12000, 15000, 15000, 15000}));
    EXPECT_EQ(OpenAttempts(), 10);
    EXPECT_EQ(Created(), 1);
    EXPECT_TRUE(Diverting());
}

// A refused rule list or start opens again at once with the count reset; Stop and Clear
// failures before the rules are only reported, not a reason to open again.
TEST_F(RedirectorInterfaceTest, RefusedRulesOrStartOpenAgainWithoutPause) {
    m_script->stopResults = {3};
    m_script->clearResults = {4};
    m_script->setRedirectsResults = {7};
    m_script->startResults = {8};
    m_script->openResults = {0, 0, 3};  // the third open needs one retry
    EXPECT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
    EXPECT_TRUE(Diverting());
    EXPECT_EQ(OpenAttempts(), 4);
    EXPECT_EQ(m_script->Get(m_script->sleeps), std::vector<unsigned int>{2000});
}

// A stop while the plug-in refuses (to open, or its rules) must end the attempts and their
// real pauses at once: the close waits behind m_redirectorLock, for as long as they last.
class RedirectorStopTest : public RedirectAgentTest, public ::testing::WithParamInterface<bool> {};

TEST_P(RedirectorStopTest, StopEndsTheRetriesAndTheirPauses) {
    const bool rulesRefused = GetParam();
    m_agent.m_redirectorSeams.sleep = nullptr;
    std::deque<int>& refusals =
        rulesRefused ? m_script->setRedirectsResults : m_script->openResults;
    refusals = std::deque<int>(100000, 5);
    auto start =
        std::async(std::launch::async, [this] { return m_agent.StartKDF(reason_rules_refresh); });
    ASSERT_TRUE(WaitUntil([&] {  // the first refusal was given
        std::lock_guard<std::mutex> hold(m_script->lock);
        return refusals.size() < 100000;
    }));
    auto close = std::async(std::launch::async, [this] {
        m_agent.StopRedirectorRetries();
        return m_agent.CloseRedirectorInterface(reason_rules_refresh);
    });
    ASSERT_EQ(close.wait_for(kHangGuard), std::future_status::ready);
    EXPECT_TRUE(close.get());
    EXPECT_EQ(start.get(), 0);
    EXPECT_EQ(m_agent.m_pRedirector, nullptr);
    std::lock_guard<std::mutex> hold(m_script->lock);
    EXPECT_FALSE(refusals.empty()) << "the attempts went on until the refusals ran out";
}

INSTANTIATE_TEST_SUITE_P(Refusals, RedirectorStopTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& param) {
                             return param.param ? "RulesRefused" : "OpenRefused";
                         });

// A start without a redirector runs undiverted in Running; operations that need the handle
// fail without one, and a configuration change tries again.
TEST_F(RedirectorInterfaceTest, CreateFailureLeavesRunningWithoutHandle) {
    m_script->createResults = {12};
    EXPECT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
    EXPECT_EQ(m_agent.KdfState(), Running);
    EXPECT_EQ(m_agent.m_pRedirector, nullptr);
    redirect_info rule{};
    rule.rule_op = 1;
    EXPECT_FALSE(m_agent.SetKdfRedirectRule(rule));
    EXPECT_FALSE(m_agent.ClearRedirectorDnsCache());

    EXPECT_TRUE(m_agent.RestartKDF(reason_rules_refresh));
    EXPECT_TRUE(Diverting());
}

// Stop answering NGC_ERROR_DISCONNECTED (49) is a clean stop: the plug-in is closed and a
// release error still drops the handle.
TEST_F(RedirectorInterfaceTest, StopReturningDisconnectedCountsAsClean) {
    StartNormally();
    m_script->stopResults = {NGC_ERROR_DISCONNECTED};
    m_script->releaseResults = {13};
    EXPECT_TRUE(m_agent.CloseRedirectorInterface(reason_rules_refresh));
    EXPECT_EQ(m_agent.KdfState(), Stopped);
    EXPECT_EQ(m_agent.m_pRedirector, nullptr);
    EXPECT_FALSE(m_script->Get(m_script->open));
    EXPECT_EQ(m_script->Get(m_script->live), 0);
    EXPECT_FALSE(m_agent.CloseRedirectorInterface(reason_rules_refresh));
}

// Any other Stop error keeps the handle and Stopping, in which stops are ignored and starts
// refused; only a disruption closes through the error.
TEST_F(RedirectorInterfaceTest, StopErrorKeepsTheHandleUnlessTheReasonIsDisruption) {
    StartNormally();
    m_script->stopResults = {9, 9};
    EXPECT_FALSE(m_agent.CloseRedirectorInterface(reason_rules_refresh));
    EXPECT_EQ(m_agent.KdfState(), Stopping);
    EXPECT_NE(m_agent.m_pRedirector, nullptr);
    EXPECT_TRUE(m_script->Get(m_script->open));
    EXPECT_TRUE(m_script->Get(m_script->rules).empty());
    EXPECT_TRUE(m_agent.StopKDF(reason_rules_refresh));
    EXPECT_EQ(m_agent.StartKDF(reason_rules_refresh), kFail);
    EXPECT_EQ(OpenAttempts(), 1);
    EXPECT_TRUE(m_script->Get(m_script->rules).empty());

    EXPECT_TRUE(m_agent.CloseRedirectorInterface(reason_disruption));
    EXPECT_EQ(m_agent.KdfState(), Stopped);
    EXPECT_EQ(m_agent.m_pRedirector, nullptr);
    EXPECT_FALSE(m_script->Get(m_script->open));
}

// A backoff empties and refills the rules of the open handle: no close, state untouched.
TEST_F(RedirectorInterfaceTest, BackoffClearsAndReinstallsRulesOnTheOpenHandle) {
    StartNormally();
    ISocketRedirectorApi* handle = m_agent.m_pRedirector;
    EXPECT_TRUE(m_agent.StopKDF(reason_backoff));
    EXPECT_TRUE(Diverting(0));
    EXPECT_EQ(m_agent.KdfState(), Running);
    EXPECT_EQ(m_agent.m_kdfStopReasons, reason_backoff);

    EXPECT_EQ(m_agent.StartKDF(reason_backoff), 0);
    EXPECT_TRUE(Diverting());
    EXPECT_EQ(m_agent.m_pRedirector, handle);
    EXPECT_EQ(m_agent.m_kdfStopReasons, 0);
    EXPECT_EQ(OpenAttempts(), 1);
}

// The mask, StopKDF(2) then StopKDF(4): the disruption closes the redirector held down by the
// backoff, its restart does nothing, and the end of the backoff finds no handle.
TEST_F(RedirectorInterfaceTest, BackoffThenDisruptionLeavesTheRedirectorDown) {
    StartNormally();
    EXPECT_TRUE(m_agent.StopKDF(reason_backoff));
    EXPECT_TRUE(m_agent.StopKDF(reason_disruption));
    EXPECT_EQ(m_agent.m_kdfStopReasons, 6);
    EXPECT_EQ(m_agent.KdfState(), Stopped);
    EXPECT_EQ(m_agent.m_pRedirector, nullptr);

    EXPECT_TRUE(m_agent.RestartKDF(reason_disruption));
    EXPECT_EQ(m_agent.m_kdfStopReasons, reason_backoff);
    EXPECT_FALSE(m_agent.RestartKDF(reason_backoff));
    EXPECT_EQ(m_agent.m_kdfStopReasons, 0);
    EXPECT_EQ(Created(), 1);
}

// The other order: a disruption bit holds the end of a backoff (no second rule list).
TEST_F(RedirectorInterfaceTest, DisruptionBitHoldsTheEndOfABackoff) {
    StartNormally();
    m_agent.m_kdfStopReasons = reason_disruption;
    EXPECT_TRUE(m_agent.RestartKDF(reason_backoff));
    EXPECT_TRUE(Diverting());
}

// The connection threads' one-rule operation adds exactly that rule, and reports its refusal.
TEST_F(RedirectorInterfaceTest, SetKdfRedirectRuleAddsExactlyThatRule) {
    redirect_info rule{};
    rule.rule_op = 1;
    rule.rule_pid = 321;
    rule.peer_port = htons(443);
    rule.rule_flags = 1;
    rule.include_addrs.push_back(ngc_cidr_addr{});
    StartNormally();
    EXPECT_TRUE(m_agent.SetKdfRedirectRule(rule));
    ASSERT_TRUE(Diverting(7));
    const redirect_info added = m_script->Get(m_script->rules).back();
    EXPECT_EQ(added.rule_pid, 321);
    EXPECT_EQ(added.peer_port, htons(443));
    EXPECT_EQ(added.include_addrs.size(), 1u);
    m_script->setRedirectsResults = {22};
    EXPECT_FALSE(m_agent.SetKdfRedirectRule(rule));
    EXPECT_TRUE(Diverting(7));
    EXPECT_TRUE(m_agent.ClearRedirectorDnsCache());
    EXPECT_EQ(m_script->Get(m_script->dnsCacheClears), 1);
}

// ---- recovery -------------------------------------------------------------------------------

// The old plug-in must be released (a Stop error notwithstanding) and a new one built and
// diverting, whether the notice is a disruption or a completion without a start.
TEST_F(RedirectorInterfaceTest, DisruptionReplacesTheRedirector) {
    StartNormally();
    m_script->stopResults = {11};
    m_agent.OnKdfDisruption();
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(Created(), 2);
    EXPECT_TRUE(Diverting());
    EXPECT_EQ(m_agent.KdfState(), Running);
    EXPECT_EQ(m_agent.m_kdfStopReasons, 0);

    m_agent.OnPlannedKdfDisruptionComplete(kext_failover_reversal);
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(Created(), 3);
    EXPECT_TRUE(Diverting());
}

// A second notice during a recovery must be dropped, not start a second recovery thread.
TEST_F(RedirectorInterfaceTest, TwoNoticesStartOneRecovery) {
    StartNormally();
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> first{true};
    {
        std::lock_guard<std::mutex> hold(m_script->lock);
        m_script->onStop = [&entered, &first, released] {  // holds the recovery in its Stop
            if (first.exchange(false)) entered.set_value();
            released.wait();
        };
    }
    m_agent.OnKdfDisruption();
    const bool inStop = entered.get_future().wait_for(kHangGuard) == std::future_status::ready;
    m_agent.OnKdfDisruption();
    release.set_value();
    ASSERT_TRUE(HandlerIdle());
    {
        std::lock_guard<std::mutex> hold(m_script->lock);
        m_script->onStop = nullptr;  // it refers to this test's locals
    }
    ASSERT_TRUE(inStop);
    EXPECT_EQ(Created(), 2);
    EXPECT_EQ(m_trace.Count(WARN,
                            "KDF Disruption handler thread already running. Disruption "
                            "not handled."),
              1u);
}

// A backoff keeps the redirector down across a recovery: no silent reopen.
TEST_F(RedirectorInterfaceTest, BackoffSurvivesARecoveryWithoutSilentReopen) {
    StartNormally();
    ASSERT_TRUE(m_agent.StopKDF(reason_backoff));
    m_agent.OnKdfDisruption();
    ASSERT_TRUE(HandlerIdle());
    EXPECT_EQ(m_agent.m_pRedirector, nullptr);
    EXPECT_EQ(Created(), 1);
    EXPECT_FALSE(m_agent.RestartKDF(reason_backoff));
}

// Three failed attempts must leave the handler ready for the next notice.
TEST_F(RedirectorInterfaceTest, ThreeFailedAttemptsLeaveTheHandlerReady) {
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

// The planned start must go on past failures of Clear and Stop to close the plug-in, and
// keep the handle and the state.
TEST_F(RedirectorInterfaceTest, PlannedStartClosesThePluginButKeepsHandleAndState) {
    StartNormally();
    ISocketRedirectorApi* handle = m_agent.m_pRedirector;
    m_script->clearResults = {3};
    m_script->stopResults = {9};
    m_agent.OnPlannedKdfDisruptionStart(kext_failover);
    ASSERT_TRUE(HandlerIdle());
    EXPECT_FALSE(m_script->Get(m_script->open));
    EXPECT_EQ(m_agent.m_pRedirector, handle);
    EXPECT_EQ(m_agent.KdfState(), Running);
}

// A completion notice that comes while the planned start still works on the old handle: the
// recovery must not release that handle under it.
TEST_F(RedirectorInterfaceTest, CompletionWaitsForThePlannedStartStillOnTheOldHandle) {
    StartNormally();
    std::atomic<bool> held{false};
    int createdMeanwhile = -1;
    {
        std::lock_guard<std::mutex> hold(m_script->lock);
        m_script->onStop = [&] {  // the planned start's Stop lingers while the recovery runs
            if (held.exchange(true)) return;
            (void)WaitUntil([&] { return Created() == 2; }, std::chrono::milliseconds(300));
            createdMeanwhile = Created();
        };
    }
    m_agent.OnPlannedKdfDisruptionStart(kext_failover);
    ASSERT_TRUE(WaitUntil([&] { return held.load(); }));
    m_agent.OnPlannedKdfDisruptionComplete(kext_failover);
    ASSERT_TRUE(HandlerIdle());
    {
        std::lock_guard<std::mutex> hold(m_script->lock);
        m_script->onStop = nullptr;
    }
    EXPECT_EQ(createdMeanwhile, 1) << "the old handle was replaced while still in use";
    EXPECT_EQ(Created(), 2);
    EXPECT_TRUE(Diverting());
}

}  // namespace
}  // namespace swg_test
