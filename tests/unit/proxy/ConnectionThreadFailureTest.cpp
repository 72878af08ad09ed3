// SPDX-License-Identifier: Apache-2.0
// The failure policy: bypass retry, refusal page or close, by policy, reason and captive portal.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <chrono>
#include <string>
#include <tuple>
#include <vector>

#include "GatewayTestSupport.h"
#include "foundation/MsgCatalog.h"
#include "proxy/ConnectionThread.h"
#include "support/MoFile.h"
#include "support/SocketPeers.h"
#include "support/TestServers.h"
#include "support/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;
using swg_test::ScopedAgentState;
using Reason = CDnConnectionThread::CONN_FAILURE_REASON;

// Keeps the locale variables and the data path as the test found them, and the catalogue
// forgotten on both sides of the test.
class ScopedLocale {
public:
    ScopedLocale() { MsgCatalog::Uninitialize(); }
    ~ScopedLocale() { MsgCatalog::Uninitialize(); }

private:
    swg_test::ScopedLocaleEnvironment m_environment;
};

// A connection thread (never started) whose local side is the test's client over a
// socketpair, and whose original destination is an echo server on loopback.
class FailurePolicyFixture {
protected:
    FailurePolicyFixture() : m_origin(swg_test::Endpoint("127.0.0.1", 0), swg_test::EchoHandler) {
        swg_test::SocketPairPeer local = swg_test::MakeSocketPairPeer();
        m_thread.m_pKdfSocket = local.agentSide.release();
        m_client = std::move(local.peer);
        m_thread.m_origDstV4 = ::inet_addr("127.0.0.1");
        m_thread.m_origDstPort = htons(swg_test::EndpointPort(m_origin.Address()));
        m_thread.CMode = 1;
        m_thread.TMode = 1;
    }

    // The policy in force, and the captive portal test's answer; the test's calls are counted
    // with their timeouts.
    void Set(bool failOpen, bool portal) {
        ScopedAgentState::Edit([&](CSWGAgent::ORGINFO& info) { info.bFailOpen = failOpen; });
        ScopedAgentState::AnswerPortalProbes(portal, &m_probeTimeouts);
    }
    // What reached the client, once the agent has closed its local side.
    std::string ClientReceived() {
        m_thread.CloseConnection();
        return swg_test::ReadToEnd(m_client.Get(), 500ms);
    }

    ScopedLocale m_locale;
    ScopedAgentState m_state;
    swg_test::RecordingTrace m_trace;
    swg_test::TestServer m_origin;
    CDnConnectionThread m_thread;
    swg_test::UniqueFd m_client;
    std::vector<long> m_probeTimeouts;
};

enum class Outcome { BypassRetry, RefusalPage, GiveUp, GoOn };

// The policy table: what a failed gateway connection leads to.
Outcome Expected(bool failOpen, int reason, bool portal) {
    if (reason == 6 || reason == 7) return Outcome::RefusalPage;
    if (!failOpen) return portal ? Outcome::BypassRetry : Outcome::RefusalPage;
    if (reason == 4 || reason == 5) return Outcome::GiveUp;
    if (reason == 0) return Outcome::GoOn;
    if (reason <= 3) return Outcome::BypassRetry;
    return portal ? Outcome::BypassRetry : Outcome::RefusalPage;
}

class FailureTableTest : public FailurePolicyFixture,
                         public ::testing::TestWithParam<std::tuple<int, bool, bool>> {};

// Every reason under fail open and fail close, with and without a portal: the outcome, the
// state word's flag, the portal test, and what the client and the destination see.
TEST_P(FailureTableTest, DecidesByPolicyReasonAndPortal) {
    const int reason = std::get<0>(GetParam());
    const bool failOpen = std::get<1>(GetParam());
    const bool portal = std::get<2>(GetParam());
    ASSERT_TRUE(m_origin.Ok());
    Set(failOpen, portal);

    const bool goesOn = m_thread.OnConnectionFailure(static_cast<Reason>(reason));
    const bool credentials = reason == 6 || reason == 7;
    EXPECT_EQ(m_thread.m_bFailureReported, !credentials);
    EXPECT_EQ(m_probeTimeouts, credentials ? std::vector<long>{} : std::vector<long>{2});
    switch (Expected(failOpen, reason, portal)) {
        case Outcome::BypassRetry:
            EXPECT_TRUE(goesOn);
            EXPECT_EQ(m_thread.TMode, 0);
            EXPECT_NE(m_thread.m_pExternalSocket, nullptr);
            EXPECT_TRUE(m_origin.WaitForAccepted(1, 5s));
            EXPECT_EQ(ClientReceived(), "");
            break;
        case Outcome::RefusalPage:
            EXPECT_FALSE(goesOn);
            EXPECT_EQ(ClientReceived().rfind("HTTP/1.1 499 Fail close\r\nContent-Length: ", 0), 0u);
            EXPECT_EQ(m_origin.Accepted(), 0);
            break;
        case Outcome::GiveUp:
        case Outcome::GoOn:
            EXPECT_EQ(goesOn, reason == 0);
            EXPECT_EQ(m_thread.m_pExternalSocket, nullptr);
            EXPECT_EQ(ClientReceived(), "");
            EXPECT_EQ(m_origin.Accepted(), 0);
            break;
    }
}

INSTANTIATE_TEST_SUITE_P(Table, FailureTableTest,
                         ::testing::Combine(::testing::Range(0, 9), ::testing::Bool(),
                                            ::testing::Bool()),
                         [](const ::testing::TestParamInfo<std::tuple<int, bool, bool>>& param) {
                             return "Reason" + std::to_string(std::get<0>(param.param)) +
                                    (std::get<1>(param.param) ? "_FailOpen" : "_FailClose") +
                                    (std::get<2>(param.param) ? "_Portal" : "_NoPortal");
                         });

class FailurePolicyTest : public FailurePolicyFixture, public ::testing::Test {};

// A direct connection that failed has nowhere else to go: no page, no word, no portal test.
// With the portal mode already on, the portal is not probed again and the connection bypasses.
TEST_F(FailurePolicyTest, BypassedConnectionClosesAndPortalModeBypasses) {
    Set(false, false);
    m_thread.TMode = 0;
    EXPECT_FALSE(m_thread.OnConnectionFailure(CDnConnectionThread::FAILURE_CONNECT));
    EXPECT_FALSE(m_thread.m_bFailureReported);

    m_thread.TMode = 1;
    g_pSWGAgent->SetCaptivePortalMode(true);
    EXPECT_TRUE(m_thread.OnConnectionFailure(CDnConnectionThread::FAILURE_CONNECT));
    EXPECT_TRUE(m_probeTimeouts.empty());
    EXPECT_TRUE(m_origin.WaitForAccepted(1, 5s));
    EXPECT_TRUE(g_pSWGAgent->IsCaptivePortalMode());  // a bypass leaves the mode as it is
}

// ---- the refusal page --------------------------------------------------------------------------

std::string Page(const std::string& length, const std::string& language, const std::string& heading,
                 const std::string& reason) {
    return "HTTP/1.1 499 Fail close\r\nContent-Length: " + length +
           "\r\nConnection: Keep-Alive\r\nContent-Type: text/html\r\n\r\n<html lang=\"" + language +
           "\"><head><meta http-equiv=\"Content-Type\" content=\"text/html; "
           "charset=UTF-8\"/></head><body><h3>Trevo Linkmantle</h3><hr /><h1>" +
           heading +
           "</h1><p><p>The requested connection cannot be established.</p></p><p><b>Reason: "
           "</b>" +
           reason + "</p></body></html>";
}

// The English page, byte for byte, with no catalogue in reach; without a socket, no page.
TEST_F(FailurePolicyTest, RefusalPageInEnglishIsExact) {
    swg_test::TempFolder empty;
    ::setenv("SWG_DATA_ROOT", empty.Path().c_str(), 1);
    ::setenv("LANG", "C", 1);
    Set(false, false);
    EXPECT_FALSE(m_thread.SendFailCloseMessageToBrowser(
        nullptr, CDnConnectionThread::FAILURE_CONNECT, false));
    ASSERT_TRUE(m_thread.SendFailCloseMessageToBrowser(
        m_thread.m_pKdfSocket, CDnConnectionThread::FAILURE_CONNECT, false));
    EXPECT_EQ(ClientReceived(), Page("317", "en-us", "Connection Failure",
                                     "Could not establish a connection. Fail close policy set."));
}

// The German page from the shipped catalogue: translated heading and reason, untranslated
// fixed words, and a length that counts UTF-8 bytes (412 characters, 416 bytes).
TEST_F(FailurePolicyTest, RefusalPageInGermanCountsBytes) {
    ::setenv("SWG_DATA_ROOT", SWG_BUILD_DATA_ROOT, 1);
    ::setenv("LANG", "de_DE.UTF-8", 1);
    Set(false, false);
    ASSERT_TRUE(m_thread.SendFailCloseMessageToBrowser(
        m_thread.m_pKdfSocket, CDnConnectionThread::FAILURE_CONNECT, false));
    EXPECT_EQ(ClientReceived(),
              Page("416", "de-de", "Verbindungsfehler",
                   "Es konnte keine Verbindung hergestellt werden. Richtlinie \xE2\x80\x9E"
                   "Fail close\xE2\x80\x9C aktiv: Ist der Sicherheitsdienst nicht erreichbar, "
                   "werden Verbindungen blockiert."));
}

}  // namespace
