// SPDX-License-Identifier: Apache-2.0
// The failure policy: bypass retry, refusal page or close, by policy, reason and captive portal.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "GatewayTestSupport.h"
#include "foundation/MsgCatalog.h"
#include "support/MoFile.h"
#include "support/TestServers.h"
#include "unit/foundation/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;
using swg_test::ScopedAgentState;
using Reason = CDnConnectionThread::CONN_FAILURE_REASON;

const char* const kLocaleVariables[] = {"LC_ALL", "LC_MESSAGES", "LANG", "SWG_DATA_ROOT"};

// Keeps the locale variables and the data path as the test found them, and the catalogue
// forgotten on both sides of the test.
class ScopedLocale {
public:
    ScopedLocale() {
        for (const char* name : kLocaleVariables) {
            if (const char* value = ::getenv(name)) m_saved[name] = value;
            ::unsetenv(name);
        }
        MsgCatalog::Uninitialize();
    }
    ~ScopedLocale() {
        for (const char* name : kLocaleVariables) ::unsetenv(name);
        for (const auto& entry : m_saved) ::setenv(entry.first.c_str(), entry.second.c_str(), 1);
        MsgCatalog::Uninitialize();
    }

private:
    std::map<std::string, std::string> m_saved;
};

// A connection thread (never started) whose local side is the test's client over a
// socketpair, and whose original destination is an echo server on loopback.
class FailurePolicyFixture {
protected:
    FailurePolicyFixture() : m_origin(swg_test::Endpoint("127.0.0.1", 0), swg_test::EchoHandler) {
        swg_test::SocketPairPeer local = swg_test::MakeSocketPairPeer();
        m_thread.m_pKdfSocket = local.agentSide;
        m_client = std::move(local.peer);
        m_thread.m_origDstV4 = ::inet_addr("127.0.0.1");
        m_thread.m_origDstPort = htons(swg_test::EndpointPort(m_origin.Address()));
        m_thread.CMode = 1;
        m_thread.TMode = 1;
    }

    void SetPolicy(bool failOpen) {
        ScopedAgentState::Edit([&](CSWGAgent::ORGINFO& info) { info.bFailOpen = failOpen; });
    }
    // The captive portal test answers `portal`, and counts its calls with their timeouts.
    void SetPortal(bool portal) {
        g_pSWGAgent->SetCaptivePortalProbe([this, portal](long timeout) {
            m_probeTimeouts.push_back(timeout);
            return portal;
        });
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
    SetPolicy(failOpen);
    SetPortal(portal);

    const bool goesOn = m_thread.OnConnectionFailure(static_cast<Reason>(reason));
    const Outcome expected = Expected(failOpen, reason, portal);
    const bool credentials = reason == 6 || reason == 7;

    EXPECT_EQ(m_thread.m_bFailureReported, !credentials);
    EXPECT_EQ(m_probeTimeouts, credentials ? std::vector<long>{} : std::vector<long>{2});
    switch (expected) {
        case Outcome::BypassRetry:
            EXPECT_TRUE(goesOn);
            EXPECT_EQ(m_thread.TMode, 0);
            EXPECT_NE(m_thread.m_pExternalSocket, nullptr);
            EXPECT_TRUE(m_origin.WaitForAccepted(1, 5s));
            EXPECT_EQ(
                m_trace.Count(TRACE, "Connection : Retrying in bypass mode. CMode : 1 TMode : 0"),
                1);
            EXPECT_EQ(ClientReceived(), "");
            break;
        case Outcome::RefusalPage:
            EXPECT_FALSE(goesOn);
            EXPECT_EQ(ClientReceived().rfind("HTTP/1.1 499 Fail close\r\nContent-Length: ", 0), 0u);
            EXPECT_EQ(m_origin.Accepted(), 0);
            break;
        case Outcome::GiveUp:
            EXPECT_FALSE(goesOn);
            EXPECT_EQ(ClientReceived(), "");
            EXPECT_EQ(m_origin.Accepted(), 0);
            break;
        case Outcome::GoOn:
            EXPECT_TRUE(goesOn);
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
TEST_F(FailurePolicyTest, BypassedConnectionJustCloses) {
    SetPolicy(false);
    SetPortal(false);
    m_thread.TMode = 0;
    EXPECT_FALSE(m_thread.OnConnectionFailure(CDnConnectionThread::FAILURE_CONNECT));
    EXPECT_FALSE(m_thread.m_bFailureReported);
    EXPECT_TRUE(m_probeTimeouts.empty());
    EXPECT_EQ(ClientReceived(), "");
}

// With the mode already on, the portal is not probed again and the connection bypasses.
TEST_F(FailurePolicyTest, PortalModeAlreadyOnBypassesWithoutAProbe) {
    SetPolicy(false);
    SetPortal(false);
    g_pSWGAgent->SetCaptivePortalMode(true);
    EXPECT_TRUE(m_thread.OnConnectionFailure(CDnConnectionThread::FAILURE_CONNECT));
    EXPECT_TRUE(m_probeTimeouts.empty());
    EXPECT_TRUE(m_origin.WaitForAccepted(1, 5s));
    EXPECT_TRUE(g_pSWGAgent->IsCaptivePortalMode());  // a bypass leaves the mode as it is
}

// Fail close without a portal changes nothing: the gateway socket stays, TMode stays.
TEST_F(FailurePolicyTest, PortalTestWithoutPortalUnderFailCloseChangesNothing) {
    SetPolicy(false);
    SetPortal(false);
    swg_test::SocketPairPeer gateway = swg_test::MakeSocketPairPeer();
    m_thread.m_pExternalSocket = gateway.agentSide;
    m_thread.handleCaptivePortal("stage-x", false);
    EXPECT_EQ(m_thread.TMode, 1);
    EXPECT_EQ(m_thread.m_pExternalSocket, gateway.agentSide);
    EXPECT_EQ(m_probeTimeouts, std::vector<long>{2});
    EXPECT_EQ(m_trace.CountPrefix(WARN, "Since"), 0);
}

// Fail open turns a failed gateway step to bypass and drops the gateway socket.
TEST_F(FailurePolicyTest, FailOpenTurnsToBypassAndDropsTheGatewaySocket) {
    SetPolicy(true);
    SetPortal(false);
    swg_test::SocketPairPeer gateway = swg_test::MakeSocketPairPeer();
    m_thread.m_pExternalSocket = gateway.agentSide;
    m_thread.handleCaptivePortal("stage-x", false);
    EXPECT_EQ(m_thread.TMode, 0);
    EXPECT_EQ(m_thread.m_pExternalSocket, nullptr);
    EXPECT_EQ(swg_test::ReadToEnd(gateway.peer.Get(), 1s), "");  // closed, end of stream
    EXPECT_EQ(m_trace.Count(WARN,
                            "Since fail open policy set. stage-x, try connection in bypass mode "
                            "[FailOpen : 1, CMode : 1 TMode : 0]."),
              1);
}

// A portal found by the probe outranks fail close; asked to, the socket is kept.
TEST_F(FailurePolicyTest, DetectedPortalTurnsToBypassAndCanKeepTheSocket) {
    SetPolicy(false);
    SetPortal(true);
    swg_test::SocketPairPeer gateway = swg_test::MakeSocketPairPeer();
    m_thread.m_pExternalSocket = gateway.agentSide;
    m_thread.handleCaptivePortal("stage-y", true);
    EXPECT_EQ(m_thread.TMode, 0);
    EXPECT_EQ(m_thread.m_pExternalSocket, gateway.agentSide);
    EXPECT_TRUE(g_pSWGAgent->IsCaptivePortalMode());
    EXPECT_EQ(m_trace.Count(WARN,
                            "Since CP detected . stage-y, try connection in bypass mode "
                            "[FailOpen : 0, CMode : 1 TMode : 0]."),
              1);
}

// The reason text is followed by the policy sentence; reasons without a text are "Unknown".
TEST_F(FailurePolicyTest, FailureMessageNamesReasonAndPolicy) {
    SetPolicy(true);
    EXPECT_EQ(m_thread.GetConnectionFailureMsg(CDnConnectionThread::FAILURE_PROXY_RESPONSE),
              "Invalid response received from the proxy server. Fail open policy set.");
    SetPolicy(false);
    EXPECT_EQ(m_thread.GetConnectionFailureMsg(static_cast<Reason>(12)),
              "Unknown Fail close policy set.");
    EXPECT_EQ(
        m_thread.GetConnectionFailureMsg(CDnConnectionThread::FAILURE_PROXY_CREDENTIALS),
        m_thread.GetConnectionFailureMsg(CDnConnectionThread::FAILURE_PROXY_CREDENTIALS_REQUIRED));
}

// ---- the refusal page --------------------------------------------------------------------------

std::string PageBody(const std::string& language, const std::string& heading,
                     const std::string& reason) {
    return "<html lang=\"" + language +
           "\"><head><meta http-equiv=\"Content-Type\" content=\"text/html; "
           "charset=UTF-8\"/></head><body><h3>Trevo Linkmantle</h3><hr /><h1>" +
           heading +
           "</h1><p><p>The requested connection cannot be established.</p></p><p><b>Reason: "
           "</b>" +
           reason + "</p></body></html>";
}

std::string PageHead(const std::string& length) {
    return "HTTP/1.1 499 Fail close\r\nContent-Length: " + length +
           "\r\nConnection: Keep-Alive\r\nContent-Type: text/html\r\n\r\n";
}

// The English page, byte for byte, with no catalogue in reach.
TEST_F(FailurePolicyTest, RefusalPageInEnglishIsExact) {
    swg_test::TempFolder empty;
    ::setenv("SWG_DATA_ROOT", empty.Path().c_str(), 1);
    ::setenv("LANG", "C", 1);
    SetPolicy(false);
    ASSERT_TRUE(m_thread.SendFailCloseMessageToBrowser(
        m_thread.m_pKdfSocket, CDnConnectionThread::FAILURE_CONNECT, false));
    EXPECT_EQ(
        ClientReceived(),
        PageHead("317") + PageBody("en-us", "Connection Failure",
                                   "Could not establish a connection. Fail close policy set."));
}

// The German page from the shipped catalogue: translated heading and reason, untranslated
// fixed words, and a length that counts UTF-8 bytes (412 characters, 416 bytes).
TEST_F(FailurePolicyTest, RefusalPageInGermanCountsBytes) {
    ::setenv("SWG_DATA_ROOT", SWG_BUILD_DATA_ROOT, 1);
    ::setenv("LANG", "de_DE.UTF-8", 1);
    SetPolicy(false);
    ASSERT_TRUE(m_thread.SendFailCloseMessageToBrowser(
        m_thread.m_pKdfSocket, CDnConnectionThread::FAILURE_CONNECT, false));
    const std::string body =
        PageBody("de-de", "Verbindungsfehler",
                 "Es konnte keine Verbindung hergestellt werden. Richtlinie \xE2\x80\x9E"
                 "Fail close\xE2\x80\x9C aktiv: Ist der Sicherheitsdienst nicht erreichbar, werden "
                 "Verbindungen blockiert.");
    EXPECT_EQ(ClientReceived(), PageHead("416") + body);
}

// Without a socket nothing can be written: false and the log line.
TEST_F(FailurePolicyTest, RefusalPageWithoutSocketFails) {
    EXPECT_FALSE(m_thread.SendFailCloseMessageToBrowser(
        nullptr, CDnConnectionThread::FAILURE_CONNECT, false));
    EXPECT_EQ(m_trace.Count(ERR, "Connection : Failed to write HTTP headers: 2147942487"), 1);
}

// A client that has gone: the header block fails and the body is not sent.
TEST_F(FailurePolicyTest, RefusalPageToAGoneClientFails) {
    m_client.Reset();
    EXPECT_FALSE(m_thread.SendFailCloseMessageToBrowser(
        m_thread.m_pKdfSocket, CDnConnectionThread::FAILURE_CONNECT, false));
    EXPECT_EQ(m_trace.Count(ERR, "Connection : Failed to write HTTP headers: -1"), 1);
}

// Missing credentials get the page whatever the policy, and no state word.
TEST_F(FailurePolicyTest, MissingCredentialsGetThePageEvenUnderFailOpen) {
    SetPolicy(true);
    SetPortal(true);
    EXPECT_FALSE(m_thread.OnConnectionFailure(CDnConnectionThread::FAILURE_PROXY_CREDENTIALS));
    const std::string page = ClientReceived();
    EXPECT_NE(page.find("Please provide the proxy credentials in Linkmantle Web Security. Fail "
                        "open policy set."),
              std::string::npos);
    EXPECT_FALSE(m_thread.m_bFailureReported);
}

}  // namespace
