// SPDX-License-Identifier: Apache-2.0
// Captive portal detection: each kind of answer of the echo service and the fallback, and the
// mode, domain, log line and fetches that follow. The web client's own bounds on silent and
// endless peers are in WebClientTest.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/TraceRecorder.h"
#include "unit/proxy/GatewayTestSupport.h"

namespace {

const std::string kEcho = "http://echo.swg.test/echo";
const std::string kFallback = g_szCaptivePortalFallbackURL;

struct Answer {
    long result;
    std::string headers, body;
};
const Answer kFails{-1, "", ""}, kSuccess{0, "HTTP/1.1 200 OK\r\n\r\n", "Success"};
const Answer kFallbackOk{0, "HTTP/1.1 200 OK\r\n\r\n", "Microsoft Connect Test"};

struct Case {
    const char* name;
    std::string echoUrl, vpnWord;
    Answer echo, fallback;
    bool portal;
    std::string line, domain;
    size_t fetches;
};

class CaptivePortalTest : public ::testing::TestWithParam<Case> {
protected:
    swg_test::ScopedAgentState m_state;
    swg_test::TraceRecorder m_trace;
    std::vector<std::string> m_urls;
};

// The answer decides the mode; the log line, the domain and the fetches made say why.
TEST_P(CaptivePortalTest, ClassifiesTheAnswer) {
    const Case& c = GetParam();
    swg_test::ScopedAgentState::Edit([&](CSWGAgent::ORGINFO& info) {
        info.strSWGEchoService = c.echoUrl;
        info.strVpnNes = c.vpnWord;
    });
    g_pSWGAgent->SetCaptivePortalMode(!c.portal);  // the probe must change it, or keep it
    g_pSWGAgent->SetCaptivePortalDownloader(
        [&](const std::string& url, std::string& headers, std::string& body, long, uint16_t) {
            m_urls.push_back(url);
            const Answer& a = url == kFallback ? c.fallback : c.echo;
            headers = a.headers;
            body = a.body;
            return a.result;
        });
    g_pSWGAgent->DetectCaptivePortalPresence(2);
    EXPECT_EQ(g_pSWGAgent->IsCaptivePortalMode(), c.echoUrl.empty() ? !c.portal : c.portal);
    EXPECT_EQ(m_trace.With(c.line).size(), 1u) << c.line;
    EXPECT_EQ(m_urls.size(), c.fetches);
    EXPECT_EQ(g_pSWGAgent->m_strCaptivePortalDomain, c.domain);
}

const char kHtml[] = "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\n\r\n";
INSTANTIATE_TEST_SUITE_P(
    Answers, CaptivePortalTest,
    ::testing::Values(
        Case{"Exact", kEcho, "", kSuccess, kFails, false,
             "Able to reach " + kEcho + ", with text response Success, no Captive Portal.", "", 1},
        Case{"Redirect",
             kEcho,
             "",
             {0, "HTTP/1.1 302 Found\r\nLocation: http://WWW.Hotel.Example:8080/login?r=1\r\n\r\n",
              ""},
             kFails,
             true,
             "Captive Portal Detected via hotel.example with redirect code 302 ",
             "hotel.example",
             1},
        Case{"Html",
             kEcho,
             "",
             {0, kHtml, "<html>sign in</html>"},
             kFails,
             true,
             "via client-side redirection with redirect code 200 ",
             "",
             1},
        Case{"TrailingNewline",
             kEcho,
             "",
             {0, "HTTP/1.1 200 OK\r\n\r\n", "Success\n"},
             kFails,
             true,
             "via client-side redirection with redirect code 200 ",
             "",
             1},
        Case{"ServerError",
             kEcho,
             "",
             {0, "HTTP/1.1 503 Unavailable\r\n\r\n", ""},
             kFallbackOk,
             true,
             "with redirect code 503 ",
             "",
             1},
        Case{"EchoFailsFallbackAnswers", kEcho, "", kFails, kFallbackOk, false,
             "CP detection failed with " + kEcho +
                 " [Reason: TCP handshake failed], retrying with MSFT url",
             "", 2},
        Case{"BothFail", kEcho, "", kFails, kFails, true,
             "Unable to download " + kFallback + ". Possibly behind a Captive Portal.", "", 2},
        Case{"EchoIsTheFallback", kFallback, "", kFails, kFails, true, "Unable to download", "", 1},
        Case{"VpnSaw", kEcho, "Captive_Portal_Detected", kSuccess, kFails, true,
             "Captive portal has been detected based on VPN's network env state", "", 0},
        Case{"NotConfigured", "", "", kSuccess, kFails, true, "CP is not configured.", "", 0}),
    [](const ::testing::TestParamInfo<Case>& p) { return std::string(p.param.name); });

}  // namespace
