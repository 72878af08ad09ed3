// SPDX-License-Identifier: Apache-2.0
// Opening, feeding, stopping and closing the redirector, and the stop-reason mask.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "RedirectAgentFixture.h"
#include "foundation/GlobalConst.h"

namespace swg_test {
namespace {

using Calls = std::vector<std::string>;
const Calls kFullStart = {"Create", "OpenPlugin", "Stop", "Clear(1)", "SetRedirects", "Start"};
const Calls kFullClose = {"Clear(1)", "Stop", "ClosePlugin", "Release"};

class RedirectorInterfaceTest : public RedirectAgentTest {};

// Guards the start order and that the agent registers itself for disruption notices.
TEST_F(RedirectorInterfaceTest, StartCreatesOpensClearsInstallsAndStarts) {
    EXPECT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
    EXPECT_EQ(m_script->Calls(), kFullStart);
    EXPECT_EQ(m_agent.KdfState(), Running);
    EXPECT_EQ(m_script->callback, static_cast<IKdfApiCB*>(&m_agent));
    ASSERT_EQ(m_script->Given().size(), 1u);
    EXPECT_EQ(m_script->Given()[0].size(), 6u);  // two ports, two families, two self rules
    EXPECT_EQ(m_trace.Count(THREAD, "Redirector OpenPlugin success"), 1u);
    EXPECT_EQ(m_trace.Count(THREAD, "SocketRedirectorApi->Start success"), 1u);
    EXPECT_EQ(m_trace.Count(THREAD, "InitialiseRedirectorInterface"), 1u);
    EXPECT_EQ(m_trace.Count(TRACE, "SetRedirects returned 0."), 1u);
    EXPECT_EQ(
        m_trace.Count(TRACE, "redirectInfoList iteration: op=2 peerport=443 redirectport=5002"),
        2u);
    EXPECT_EQ(m_trace.Count(TRACE, "redirectInfoList iteration: op=1 peerport=0 redirectport=0"),
              2u);
}

// Guards the unbounded retry of OpenPlugin and its pauses: 2 s times the attempt up to
// the sixth, then 15 s, with the lock held and no limit.
TEST_F(RedirectorInterfaceTest, OpenPluginIsRetriedOnTheGrowingSchedule) {
    m_script->openResults = std::deque<int>(9, 5);
    EXPECT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
    const std::vector<unsigned int> expected = {2000,  4000,  6000,  8000, 10000,
                                                12000, 15000, 15000, 15000};
    EXPECT_EQ(m_script->Sleeps(), expected);
    EXPECT_EQ(m_script->Count("OpenPlugin"), 10u);
    EXPECT_EQ(m_script->Count("Create"), 1u);
    for (unsigned int attempt = 1; attempt <= 9; ++attempt) {
        EXPECT_EQ(m_trace.Count(
                      ERR, "OpenPlugin returned kdf error: 5, Attempt #" + std::to_string(attempt)),
                  1u);
    }
    EXPECT_EQ(m_script->Calls().back(), "Start");
}

// Guards the loop back to the open after a refused rule list or start, with no pause and
// the attempt count reset.
TEST_F(RedirectorInterfaceTest, RefusedRulesOrStartOpenAgainWithoutPause) {
    m_script->setRedirectsResults = {7};
    m_script->startResults = {8};
    m_script->openResults = {0, 0, 3};  // the third open needs one retry
    EXPECT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
    const Calls expected = {"Create",       "OpenPlugin", "Stop",         "Clear(1)",
                            "SetRedirects", "OpenPlugin", "Stop",         "Clear(1)",
                            "SetRedirects", "Start",      "OpenPlugin",   "OpenPlugin",
                            "Stop",         "Clear(1)",   "SetRedirects", "Start"};
    EXPECT_EQ(m_script->Calls(), expected);
    EXPECT_EQ(m_script->Sleeps(), std::vector<unsigned int>{2000});
    EXPECT_EQ(m_trace.Count(ERR, "SetRedirects ERROR returned 7."), 1u);
    EXPECT_EQ(m_trace.Count(TRACE, "SetRedirects returned 7."), 1u);
    EXPECT_EQ(m_trace.Count(ERR, "SocketRedirectorApi->Start ERROR returned 8."), 1u);
    EXPECT_EQ(m_trace.Count(ERR, "OpenPlugin returned kdf error: 3, Attempt #1"), 1u);
}

// Guards that Stop and Clear failures before the rules are set are reported only.
TEST_F(RedirectorInterfaceTest, StopAndClearFailuresBeforeTheRulesAreOnlyReported) {
    m_script->stopResults = {3};
    m_script->clearResults = {4};
    EXPECT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
    EXPECT_EQ(m_script->Calls(), kFullStart);
    EXPECT_EQ(m_trace.Count(ERR, "SocketRedirectorApi->Stop ERROR returned 3"), 1u);
    EXPECT_EQ(m_trace.Count(ERR, "SocketRedirectorApi->Clear ERROR returned 4"), 1u);
}

// Guards the start without a redirector: the service runs undiverted in Running, and a
// later configuration change tries again.
TEST_F(RedirectorInterfaceTest, CreateFailureLeavesRunningWithoutHandleUntilNextRestart) {
    m_script->createResults = {12};
    EXPECT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
    EXPECT_EQ(m_agent.KdfState(), Running);
    EXPECT_EQ(m_agent.m_pRedirector, nullptr);
    EXPECT_EQ(m_trace.Count(ERR, "CreateLmsockSwgApi failed with error 12"), 1u);
    EXPECT_EQ(m_script->Calls(), Calls{"Create"});

    EXPECT_TRUE(m_agent.RestartKDF(reason_rules_refresh));
    EXPECT_NE(m_agent.m_pRedirector, nullptr);
    EXPECT_EQ(m_script->Count("Start"), 1u);
}

// Guards the refusal of a second start while Running.
TEST_F(RedirectorInterfaceTest, StartWhileRunningIsRefused) {
    StartNormally();
    EXPECT_EQ(m_agent.StartKDF(reason_rules_refresh), static_cast<long>(SWG_E_FAIL));
    EXPECT_EQ(m_agent.StartKDF(reason_disruption), static_cast<long>(SWG_E_FAIL));
    EXPECT_EQ(m_trace.Count(TRACE, "CSWGAgent::StartKDF - Not in stopped state - ignore"), 2u);
    EXPECT_TRUE(m_script->Calls().empty());
}

// Guards that Stop answering NGC_ERROR_DISCONNECTED (49) is a clean stop.
TEST_F(RedirectorInterfaceTest, StopReturningDisconnectedCountsAsClean) {
    StartNormally();
    m_script->stopResults = {NGC_ERROR_DISCONNECTED};
    EXPECT_TRUE(m_agent.CloseRedirectorInterface(reason_rules_refresh));
    EXPECT_EQ(m_script->Calls(), kFullClose);
    EXPECT_EQ(m_agent.KdfState(), Stopped);
    EXPECT_EQ(m_agent.m_pRedirector, nullptr);
    EXPECT_EQ(m_script->Live(), 0);
    EXPECT_EQ(m_trace.Count(TRACE, "StopKDF: SocketRedirectorApi->Stop NGC_ERROR_DISCONNECTED"),
              1u);
    EXPECT_EQ(m_trace.Count(TRACE, "CloseRedirectorInterface has closed the interface"), 1u);
    EXPECT_FALSE(m_agent.CloseRedirectorInterface(reason_rules_refresh));
}

// Guards the Stop error: the handle stays open and the state Stopping, after which stops
// are ignored and starts refused; only a disruption closes through the error.
TEST_F(RedirectorInterfaceTest, StopErrorKeepsTheHandleUnlessTheReasonIsDisruption) {
    StartNormally();
    m_script->stopResults = {9, 9};
    EXPECT_FALSE(m_agent.CloseRedirectorInterface(reason_rules_refresh));
    EXPECT_EQ(m_script->Calls(), (Calls{"Clear(1)", "Stop"}));
    EXPECT_EQ(m_agent.KdfState(), Stopping);
    EXPECT_NE(m_agent.m_pRedirector, nullptr);
    EXPECT_EQ(m_trace.Count(ERR, "StopKDF: SocketRedirectorApi->Stop ERROR returned 9"), 1u);

    EXPECT_TRUE(m_agent.StopKDF(reason_rules_refresh));
    EXPECT_EQ(m_trace.Count(TRACE,
                            "CSWGAgent::StopKDF - In the process of stopping or in "
                            "stopped state already - ignore"),
              1u);
    EXPECT_EQ(m_agent.StartKDF(reason_rules_refresh), static_cast<long>(SWG_E_FAIL));
    EXPECT_EQ(m_script->Calls().size(), 2u);

    EXPECT_TRUE(m_agent.CloseRedirectorInterface(reason_disruption));
    EXPECT_EQ(m_agent.KdfState(), Stopped);
    EXPECT_EQ(m_agent.m_pRedirector, nullptr);
}

// Guards the backoff path: rules cleared and reinstalled on the open handle, no close, no
// lock-holding restart, state untouched.
TEST_F(RedirectorInterfaceTest, BackoffClearsAndReinstallsRulesOnTheOpenHandle) {
    StartNormally();
    ISocketRedirectorApi* handle = m_agent.m_pRedirector;
    EXPECT_TRUE(m_agent.StopKDF(reason_backoff));
    EXPECT_EQ(m_script->Calls(), Calls{"Clear(1)"});
    EXPECT_EQ(m_agent.KdfState(), Running);
    EXPECT_EQ(m_agent.m_kdfStopReasons, reason_backoff);

    EXPECT_EQ(m_agent.StartKDF(reason_backoff), 0);
    EXPECT_EQ(m_script->Calls(), (Calls{"Clear(1)", "SetRedirects"}));
    EXPECT_EQ(m_agent.m_pRedirector, handle);
    EXPECT_EQ(m_agent.m_kdfStopReasons, 0);
    ASSERT_EQ(m_script->Given().size(), 1u);
    EXPECT_EQ(m_script->Given()[0].size(), 6u);
}

// Guards the backoff path without a handle (a start whose create failed) and with a
// refused reinstall.
TEST_F(RedirectorInterfaceTest, BackoffWithoutHandleOrWithRefusedRulesFails) {
    m_script->createResults = {12};
    ASSERT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
    EXPECT_FALSE(m_agent.StopKDF(reason_backoff));
    EXPECT_EQ(m_agent.m_kdfStopReasons, reason_backoff);
    EXPECT_FALSE(m_agent.RestartKDF(reason_backoff));
    EXPECT_EQ(m_trace.Count(ERR, "SocketRedirectorApi is null, could not set redirects"), 1u);

    ASSERT_TRUE(m_agent.RestartKDF(reason_rules_refresh));
    ASSERT_NE(m_agent.m_pRedirector, nullptr);
    EXPECT_TRUE(m_agent.StopKDF(reason_backoff));
    m_script->setRedirectsResults = {6};
    EXPECT_FALSE(m_agent.RestartKDF(reason_backoff));
    EXPECT_EQ(m_trace.Count(ERR, "Failed to set redirects 6"), 1u);
}

// Guards the mask: a redirector held down by backoff is closed by a disruption, the
// disruption's restart does nothing, and the end of the backoff finds no handle.
TEST_F(RedirectorInterfaceTest, BackoffThenDisruptionLeavesTheRedirectorDown) {
    StartNormally();
    EXPECT_TRUE(m_agent.StopKDF(reason_backoff));
    EXPECT_TRUE(m_agent.StopKDF(reason_disruption));
    EXPECT_EQ(m_agent.m_kdfStopReasons, 6);
    EXPECT_EQ(m_agent.KdfState(), Stopped);
    EXPECT_EQ(m_agent.m_pRedirector, nullptr);

    EXPECT_TRUE(m_agent.RestartKDF(reason_disruption));
    EXPECT_EQ(m_trace.Count(WARN, "RestartKDF dont restart kdf since another call stopped it (2)"),
              1u);
    EXPECT_EQ(m_script->Count("Create"), 0u);
    EXPECT_EQ(m_agent.m_kdfStopReasons, reason_backoff);

    EXPECT_FALSE(m_agent.RestartKDF(reason_backoff));
    EXPECT_EQ(m_trace.Count(ERR, "SocketRedirectorApi is null, could not set redirects"), 1u);
    EXPECT_EQ(m_agent.m_kdfStopReasons, 0);
    EXPECT_EQ(m_script->Count("Create"), 0u);
}

// Guards the other order: a disruption mask bit holds a backoff's restart.
TEST_F(RedirectorInterfaceTest, DisruptionBitHoldsTheEndOfABackoff) {
    StartNormally();
    m_agent.m_kdfStopReasons = reason_disruption;
    EXPECT_TRUE(m_agent.RestartKDF(reason_backoff));
    EXPECT_EQ(m_trace.Count(WARN, "RestartKDF dont restart kdf since another call stopped it (4)"),
              1u);
    EXPECT_TRUE(m_script->Calls().empty());
}

// Guards the refusal of a configuration without ports, and the inhibit flag.
TEST_F(RedirectorInterfaceTest, RestartRefusesAConfigurationWithoutPorts) {
    CSWGAgent::ORGINFO info = m_agent.GetOrgInfo();
    info.strWebTrafficMonitorPortList.clear();
    m_agent.SetOrgInfo(info);
    EXPECT_FALSE(m_agent.RestartKDF(reason_rules_refresh));
    EXPECT_EQ(m_agent.StartKDF(reason_disruption), static_cast<long>(SWG_E_FAIL));
    EXPECT_EQ(m_trace.Count(ERR, "Configuration is incorrect"), 2u);
    EXPECT_TRUE(m_script->Calls().empty());

    m_agent.m_bRestartInhibit = true;
    EXPECT_TRUE(m_agent.RestartKDF(reason_rules_refresh));
    EXPECT_EQ(m_trace.Count(ERR, "Configuration is incorrect"), 2u);
}

// Guards the configured exception list: appended after the built-in entries.
TEST_F(RedirectorInterfaceTest, ConfiguredExceptionsFollowTheBuiltInOnes) {
    CSWGAgent::ORGINFO info = m_agent.GetOrgInfo();
    info.strExceptionList = "198.18.5.0/24;intranet.example";
    info.strInclusionList = "198.18.0.0/15";
    m_agent.SetOrgInfo(info);
    ASSERT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
    const redirect_info first = m_script->Given().at(0).front();
    ASSERT_EQ(first.exclude_addrs.size(), 8u);
    const unsigned char expected[4] = {198, 18, 5, 0};
    EXPECT_EQ(std::memcmp(first.exclude_addrs.back().cidr_addr, expected, 4), 0);
    EXPECT_EQ(first.exclude_hosts, std::list<std::string>{"intranet.example"});
    ASSERT_EQ(first.include_addrs.size(), 1u);
    EXPECT_EQ(first.include_addrs.front().cidr_prefix_bits, 15u);
}

// Guards the one-rule operation of the connection threads.
TEST_F(RedirectorInterfaceTest, SetKdfRedirectRuleHandsOverExactlyThatRule) {
    redirect_info rule{};
    rule.rule_op = 1;
    rule.rule_pid = 321;
    rule.peer_port = htons(443);
    rule.rule_flags = 1;
    ngc_cidr_addr destination{};
    destination.cidr_family = AF_INET;
    destination.cidr_prefix_bits = 32;
    rule.include_addrs.push_back(destination);

    EXPECT_FALSE(m_agent.SetKdfRedirectRule(rule));
    EXPECT_TRUE(m_script->Calls().empty());

    StartNormally();
    EXPECT_TRUE(m_agent.SetKdfRedirectRule(rule));
    ASSERT_EQ(m_script->Given().size(), 1u);
    ASSERT_EQ(m_script->Given()[0].size(), 1u);
    const redirect_info given = m_script->Given()[0].front();
    EXPECT_EQ(given.rule_pid, 321);
    EXPECT_EQ(given.peer_port, htons(443));
    EXPECT_EQ(given.rule_flags, 1);
    EXPECT_EQ(given.include_addrs.size(), 1u);

    m_script->setRedirectsResults = {22};
    EXPECT_FALSE(m_agent.SetKdfRedirectRule(rule));
    EXPECT_EQ(m_trace.Count(ERR, "SetRedirects returned failed with error 22"), 1u);
}

// Guards the name-cache call used by the resolver.
TEST_F(RedirectorInterfaceTest, ClearDnsCacheNeedsAHandle) {
    EXPECT_FALSE(m_agent.ClearRedirectorDnsCache());
    StartNormally();
    EXPECT_TRUE(m_agent.ClearRedirectorDnsCache());
    EXPECT_EQ(m_script->Calls(), Calls{"ClearDnsCache"});
}

// Guards the release: an error is logged and the handle is gone all the same.
TEST_F(RedirectorInterfaceTest, ReleaseErrorIsLoggedAndTheHandleNulled) {
    StartNormally();
    m_script->releaseResults = {13};
    EXPECT_TRUE(m_agent.CloseRedirectorInterface(reason_rules_refresh));
    EXPECT_EQ(m_agent.m_pRedirector, nullptr);
    EXPECT_EQ(m_trace.Count(ERR, "ReleaseLmsockSwgApi failed with error 13"), 1u);
}

}  // namespace
}  // namespace swg_test
