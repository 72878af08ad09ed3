// SPDX-License-Identifier: Apache-2.0
// The gateway leg of a connection: the answer to CONNECT, the request bytes, the address choice.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "GatewayTestSupport.h"
#include "foundation/GlobalConst.h"
#include "proxy/ConnectionThread.h"
#include "support/GatewayProcess.h"
#include "support/SocketPeers.h"
#include "support/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;
using swg_test::ScopedAgentState;

// A connection thread (never started) whose local side is the test's "client" and whose
// outgoing side is the test's scripted "gateway", both over socketpairs.
class GatewayExchangeTest : public ::testing::Test {
protected:
    void SetUp() override {
        swg_test::SocketPairPeer local = swg_test::MakeSocketPairPeer();
        swg_test::SocketPairPeer outgoing = swg_test::MakeSocketPairPeer();
        ASSERT_NE(local.agentSide, nullptr);
        ASSERT_NE(outgoing.agentSide, nullptr);
        m_thread.m_pKdfSocket = local.agentSide.release();
        m_thread.m_pExternalSocket = outgoing.agentSide.release();
        m_client = std::move(local.peer);
        m_gateway = std::move(outgoing.peer);
    }

    // What reached the client, once the agent has closed its local side.
    std::string ClientReceived() {
        m_thread.CloseConnection();
        return swg_test::ReadToEnd(m_client.Get());
    }

    // What is left on the outgoing side after the exchange: tunnel bytes of the gateway.
    std::string LeftOnGatewaySide(int count) {
        std::string rest(static_cast<std::size_t>(count), '\0');
        int got = 0;
        while (got < count) {
            const int n = m_thread.m_pExternalSocket->Receive(&rest[got], count - got, 0);
            if (n <= 0) break;
            got += n;
        }
        rest.resize(static_cast<std::size_t>(got));
        return rest;
    }

    ScopedAgentState m_state;
    swg_test::RecordingTrace m_trace;
    CDnConnectionThread m_thread;
    swg_test::UniqueFd m_client;
    swg_test::UniqueFd m_gateway;
};

struct ResponseCase {
    std::string name;
    std::string answer;  // the gateway's bytes
    bool close;          // the gateway ends its side behind them
    bool noForward;
    bool stop;  // the thread was told to stop
    long code;
    int status;
    std::string client;  // what reaches the client
    bool lost;
    std::string left;  // tunnel bytes that stay for the relay
};

const std::string kForbidden =
    "HTTP/1.1 403 Forbidden\r\nVia: 1.1 s_proxy_gw\r\nContent-Type: text/html\r\n";
const long kFail = static_cast<long>(SWG_E_FAIL);

std::vector<ResponseCase> ResponseCases() {
    std::vector<ResponseCase> cases = {
        {"OkWithVia", "HTTP/1.1 200 Connection established\r\nVia: 1.1 s_proxy_gw1\r\n\r\n", false,
         false, false, 0, 200, "", false, ""},
        // A 200 from a portal or another proxy must not open a tunnel.
        {"OkWithoutVia", "HTTP/1.1 200 OK\r\nServer: portal\r\n\r\n", false, false, false, kFail, 0,
         "", false, ""},
        {"ForbiddenWithoutVia", "HTTP/1.1 403 Forbidden\r\nContent-Length: 4\r\n\r\nnope", false,
         false, false, kFail, 0, "", false, ""},
        // Another status hands the gateway's page to the client byte for byte, and fails.
        {"ForbiddenForwarded", kForbidden + "Content-Length: 14\r\n\r\n<p>blocked</p>", false,
         false, false, kFail, 403, kForbidden + "Content-Length: 14\r\n\r\n<p>blocked</p>", false,
         ""},
        {"StatusWithoutBody", kForbidden + "\r\n", false, false, false, kFail, 403,
         kForbidden + "\r\n", false, ""},
        {"NoForward", kForbidden + "\r\n", false, true, false, 0, 403, "", false, ""},
        // The body of a 200 is read exactly and dropped; the tunnel's bytes behind it stay.
        {"OkBodyDropped",
         "HTTP/1.1 200 OK\r\nVia: 1.1 s_proxy_gw\r\nContent-Length: 5\r\n\r\nhelloTUNNEL", false,
         false, false, 0, 200, "", false, "TUNNEL"},
        {"ShortBody", "HTTP/1.1 200 OK\r\nVia: 1.1 s_proxy_gw\r\nContent-Length: 10\r\n\r\nabc",
         true, false, false, kFail, 200, "", true, ""},
        {"ShortStatusPage", kForbidden + "Content-Length: 50\r\n\r\npartial", true, false, false,
         kFail, 403, kForbidden + "Content-Length: 50\r\n\r\n", true, ""},
        {"ClosedBeforeAnswer", "", true, false, false, 1, 0, "", true, ""},
        {"ClosedInsideHeaders", "HTTP/1.1 200 OK\r\nVia: 1.1 s_pro", true, false, false, 1, 0, "",
         true, ""},
        {"StopRequested", kForbidden + "\r\n", false, false, true, 0, 0, "", false, ""},
        // A gateway that stalls is given up at the deadline; a page too large to hold is
        // refused as one that cannot be allocated.
        {"SilentInsideHeaders", "HTTP/1.1 200 OK\r\nVia: 1.1 s_pro", false, false, false, ETIMEDOUT,
         0, "", true, ""},
        {"PageOverTheLimit", kForbidden + "Content-Length: 300000\r\n\r\n", false, false, false,
         static_cast<long>(SWG_E_OUTOFMEMORY), 403, kForbidden + "Content-Length: 300000\r\n\r\n",
         false, ""},
    };
    // Name and pattern match in any case, anywhere in the value; only a Via line counts.
    const struct {
        const char* name;
        const char* line;
        bool gateway;
    } vias[] = {{"ViaLower", "Via: 1.1 s_proxy_a", true},
                {"ViaUpper", "VIA: 1.1 S_PROXY_A", true},
                {"ViaMixed", "via:m_Proxy_b", true},
                {"ViaSecond", "Via: 1.0 edge, 1.1 e_proxy_c", true},
                {"ViaOtherLetter", "Via: 1.1 x_proxy_a", false},
                {"ViaNoSuffix", "Via: 1.1 s_proxy", false},
                {"ViaPrefixed", "X-Via: 1.1 s_proxy_a", false},
                {"ViaEmpty", "Via:", false}};
    for (const auto& via : vias) {
        cases.push_back({via.name, std::string("HTTP/1.1 200 OK\r\n") + via.line + "\r\n\r\n",
                         false, false, false, via.gateway ? 0 : kFail, via.gateway ? 200 : 0, "",
                         false, ""});
    }
    return cases;
}

void PrintTo(const ResponseCase& c, std::ostream* out) { *out << c.name; }

class ProxyResponseTest : public GatewayExchangeTest,
                          public ::testing::WithParamInterface<ResponseCase> {};

// Each answer to CONNECT: the result, the status, what the client sees, and what stays.
TEST_P(ProxyResponseTest, ProvesTheGatewayAndForwardsOnlyItsPages) {
    const ResponseCase& c = GetParam();
    ASSERT_TRUE(swg_test::WriteAll(m_gateway.Get(), c.answer, 1s));
    if (c.close) {
        ASSERT_EQ(::shutdown(m_gateway.Get(), SHUT_WR), 0);
    }
    m_thread.exit_requested = c.stop;
    m_thread.m_pExternalSocket->SetDeadline(std::chrono::steady_clock::now() + 300ms);
    bool lost = !c.lost;
    int status = -1;
    EXPECT_EQ(m_thread.ProcessProxyResponse(lost, status, c.noForward), c.code);
    EXPECT_EQ(status, c.status);
    EXPECT_EQ(lost, c.lost);
    EXPECT_EQ(LeftOnGatewaySide(static_cast<int>(c.left.size())), c.left);
    EXPECT_EQ(ClientReceived(), c.client);
}

INSTANTIATE_TEST_SUITE_P(Answers, ProxyResponseTest, ::testing::ValuesIn(ResponseCases()),
                         [](const ::testing::TestParamInfo<ResponseCase>& param) {
                             return param.param.name;
                         });

// The answer may arrive in pieces, split inside a line and inside the body.
TEST_F(GatewayExchangeTest, AnswerInPiecesIsCollected) {
    const std::string answer =
        "HTTP/1.1 200 OK\r\nVia: 1.1 s_proxy_gw\r\nContent-Length: 9\r\n\r\nbody-bodyT";
    const int agentSide = m_thread.m_pExternalSocket->GetSocket();
    std::thread gateway([&] {
        for (std::size_t at = 0; at < answer.size(); at += 7) {
            (void)swg_test::WriteAll(m_gateway.Get(), answer.substr(at, 7), 1s);
            if (at + 7 >= answer.size()) break;  // the last piece ends with a tunnel byte
            (void)swg_test::WaitUntil([&] { return swg_test::PendingBytes(agentSide) == 0; });
        }
    });
    bool lost = true;
    int status = 0;
    EXPECT_EQ(m_thread.ProcessProxyResponse(lost, status, false), 0);
    gateway.join();
    EXPECT_EQ(LeftOnGatewaySide(1), "T");
}

// The request's bytes exactly; brackets go by the IPv4-leg flag alone, so an IPv6 literal on an
// IPv6 gateway leg goes out bare.
TEST_F(GatewayExchangeTest, ConnectRequestBytesFollowTheBracketRule) {
    const struct {
        bool ipv6;
        bool ipv6ViaIPv4;
        const char* host;
        const char* target;
    } cases[] = {{false, false, "198.18.2.2", "198.18.2.2:8443"},
                 {false, true, "2001:db8::2", "[2001:db8::2]:8443"},
                 {true, false, "2001:db8::2", "2001:db8::2:8443"}};
    std::string expected;
    for (const auto& c : cases) {
        m_thread.m_bIPv6 = c.ipv6;
        m_thread.m_bIPv6ViaIPv4 = c.ipv6ViaIPv4;
        EXPECT_EQ(m_thread.DoProxyConnect(c.host, 8443, "", false), 0);
        expected += std::string("CONNECT ") + c.target +
                    " HTTP/1.1\r\nContent-Length: 0\r\nHost: " + c.target + "\r\n\r\n";
    }
    m_thread.CloseConnection();
    EXPECT_EQ(swg_test::ReadToEnd(m_gateway.Get()), expected);
}

// ---- choice of gateway address ---------------------------------------------------------------

class GatewayAddressTest : public ::testing::Test {
protected:
    ScopedAgentState m_state;
    swg_test::RecordingTrace m_trace;
    CDnConnectionThread m_thread;
};

// The IPv6 pick copies 16 bytes from byte `index` of the list, not from entry `index`: with
// three addresses, index 1 takes bytes 1..16, which run into the second address. A literal is
// taken as it stands and moves no counter.
TEST_F(GatewayAddressTest, IPv6PickStartsAtTheByteIndex) {
    std::vector<unsigned char> list(48);
    for (std::size_t i = 0; i < list.size(); ++i) list[i] = static_cast<unsigned char>(i);
    g_pSWGAgent->CacheResolvedIPV6List("gw6.index.test", list);
    CDnConnectionThread::sm_usNextIPV6Index = 1;
    std::string name = "gw6.index.test";
    unsigned char picked[16] = {};
    for (const std::size_t start : {1, 2, 0}) {  // index 3 % 3 = 0: the first address
        ASSERT_TRUE(m_thread.resolveToIPV6(name, picked));
        EXPECT_EQ(std::vector<unsigned char>(picked, picked + 16),
                  std::vector<unsigned char>(list.begin() + start, list.begin() + start + 16));
    }
    std::string literal = "2001:db8::77";
    ASSERT_TRUE(m_thread.resolveToIPV6(literal, picked));
    in6_addr expected{};
    ASSERT_EQ(::inet_pton(AF_INET6, "2001:db8::77", &expected), 1);
    EXPECT_EQ(std::memcmp(picked, &expected, 16), 0);
    EXPECT_EQ(CDnConnectionThread::sm_usNextIPV6Index.load(), 4);
}

// IPv4 picks go round the list and the shared 16-bit counter wraps to 0; an IPv4 literal is the
// address, an IPv6 one sends the caller to the anycast fallback.
TEST_F(GatewayAddressTest, IPv4PickIsRoundRobinAndTheCounterWraps) {
    const std::vector<unsigned int> list = {::inet_addr("198.18.1.1"), ::inet_addr("198.18.1.2"),
                                            ::inet_addr("198.18.1.3")};
    g_pSWGAgent->CacheResolvedIPList("gw4.rr.test", list);
    CDnConnectionThread::sm_usNextIPIndex = 65535;
    std::string name = "gw4.rr.test";
    std::vector<unsigned long> picked;
    for (int i = 0; i < 3; ++i) {
        unsigned long address = 0;
        ASSERT_TRUE(m_thread.resolveToIPV4(name, address));
        picked.push_back(address);
    }
    // 65535 % 3 = 0, then the counter wraps to 0 (index 0 again), then 1.
    EXPECT_EQ(picked, (std::vector<unsigned long>{list[0], list[0], list[1]}));
    std::string v4 = "198.18.0.10";
    std::string v6 = "2001:db8::1";
    unsigned long address = 0;
    ASSERT_TRUE(m_thread.resolveToIPV4(v4, address));
    EXPECT_EQ(address, ::inet_addr("198.18.0.10"));
    EXPECT_FALSE(m_thread.resolveToIPV4(v6, address));
}

// With no name, no list and no anycast address there is no gateway: -1, and no socket is left.
TEST_F(GatewayAddressTest, NoGatewayAddressAtAllGivesMinusOne) {
    ScopedAgentState::Edit([](CSWGAgent::ORGINFO& info) {
        info.strSWGDomain.clear();
        info.qstrSWGAnycastListV4.clear();
        info.qstrSWGAnycastListV6.clear();
        info.strSWGAnycast.clear();
        info.strHostname.clear();
    });
    m_thread.TMode = 1;
    m_thread.CMode = 1;
    EXPECT_EQ(m_thread.GetExternalConnection(), -1);
    EXPECT_EQ(m_thread.m_pExternalSocket, nullptr);
}

// A failed anycast address goes from the front to the back of its family's list, unless another
// thread turned the list already or there is nowhere to go.
TEST_F(GatewayAddressTest, AnycastFailureTurnsTheListOfTheLeg) {
    using List = std::deque<std::string>;
    const struct {
        const char* name;
        List v4, v6;
        bool ipv6;
        const char* failed;
        List v4After, v6After;
    } cases[] = {
        // The list entries stand for addresses; only their order matters.
        {"front", {"a", "b", "c"}, {"x", "y"}, false, "a", {"b", "c", "a"}, {"x", "y"}},
        {"turned", {"b", "a"}, {}, false, "a", {"b", "a"}, {}},
        {"single", {"a"}, {}, false, "a", {"a"}, {}},
        {"ipv6", {"a", "b"}, {"x", "y", "z"}, true, "x", {"a", "b"}, {"y", "z", "x"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScopedAgentState::Edit([&](CSWGAgent::ORGINFO& info) {
            info.qstrSWGAnycastListV4 = c.v4;
            info.qstrSWGAnycastListV6 = c.v6;
        });
        m_thread.m_bIPv6 = c.ipv6;
        m_thread.m_anycastIP = c.failed;
        m_thread.handleAnycastFailure();
        EXPECT_EQ(g_pSWGAgent->GetOrgInfo().qstrSWGAnycastListV4, c.v4After);
        EXPECT_EQ(g_pSWGAgent->GetOrgInfo().qstrSWGAnycastListV6, c.v6After);
    }
}

}  // namespace
