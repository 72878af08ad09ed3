// SPDX-License-Identifier: Apache-2.0
// The gateway leg of a connection: the answer to CONNECT, the request bytes, the address choice.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "GatewayTestSupport.h"
#include "foundation/GlobalConst.h"
#include "support/GatewayProcess.h"
#include "unit/foundation/ThreadTestSupport.h"
#include "upstream/LicenceHeader.h"

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
        m_thread.m_pKdfSocket = local.agentSide;
        m_thread.m_pExternalSocket = outgoing.agentSide;
        m_client = std::move(local.peer);
        m_gateway = std::move(outgoing.peer);
    }

    // The gateway sends `bytes`, then, with `close`, ends its side.
    void GatewaySends(const std::string& bytes, bool close) {
        ASSERT_TRUE(swg_test::WriteAll(m_gateway.Get(), bytes, 1s));
        if (close) {
            ASSERT_EQ(::shutdown(m_gateway.Get(), SHUT_WR), 0);
        }
    }

    long Process(bool noForward = false) {
        return m_thread.ProcessProxyResponse(m_connectionLost, m_status, noForward);
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

    swg_test::RecordingTrace m_trace;
    CDnConnectionThread m_thread;
    swg_test::UniqueFd m_client;
    swg_test::UniqueFd m_gateway;
    bool m_connectionLost = true;
    int m_status = -1;
};

// The plain success: a 200 naming the gateway opens the tunnel, and nothing reaches the client.
TEST_F(GatewayExchangeTest, OkWithGatewayViaIsSuccessAndForwardsNothing) {
    GatewaySends("HTTP/1.1 200 Connection established\r\nVia: 1.1 s_proxy_gw1\r\n\r\n", false);
    EXPECT_EQ(Process(), 0);
    EXPECT_EQ(m_status, 200);
    EXPECT_FALSE(m_connectionLost);
    EXPECT_EQ(ClientReceived(), "");
}

// A 200 from something that is not the gateway (a portal, another proxy) must not open a tunnel.
TEST_F(GatewayExchangeTest, OkWithoutViaFails) {
    GatewaySends("HTTP/1.1 200 Connection established\r\nServer: portal\r\n\r\n", false);
    EXPECT_EQ(Process(), SWG_E_FAIL);
    EXPECT_FALSE(m_connectionLost);
    EXPECT_EQ(m_trace.Count(ERR, "Connection : Unable to validate proxy response"), 1);
    EXPECT_EQ(ClientReceived(), "");
}

// A refused Via is refused before anything is passed on, whatever the status.
TEST_F(GatewayExchangeTest, ForbiddenWithoutViaIsNotForwarded) {
    GatewaySends("HTTP/1.1 403 Forbidden\r\nContent-Length: 4\r\n\r\nnope", false);
    EXPECT_EQ(Process(), SWG_E_FAIL);
    EXPECT_EQ(ClientReceived(), "");
}

struct ViaCase {
    const char* line;
    bool gateway;
};

class ViaHeaderTest : public GatewayExchangeTest, public ::testing::WithParamInterface<ViaCase> {};

// Name and pattern match in any letter case, anywhere in the value; only lines that begin with
// the header name count.
TEST_P(ViaHeaderTest, AcceptsOnlyAGatewayNameInAViaLine) {
    GatewaySends(std::string("HTTP/1.1 200 OK\r\n") + GetParam().line + "\r\n\r\n", false);
    EXPECT_EQ(Process(), GetParam().gateway ? 0 : SWG_E_FAIL);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ViaHeaderTest,
    ::testing::Values(ViaCase{"Via: 1.1 s_proxy_a", true}, ViaCase{"VIA: 1.1 S_PROXY_A", true},
                      ViaCase{"via:m_Proxy_b", true}, ViaCase{"Via: 1.0 edge, 1.1 e_proxy_c", true},
                      ViaCase{"Via: 1.1 x_proxy_a", false}, ViaCase{"Via: 1.1 s_proxy", false},
                      ViaCase{"X-Via: 1.1 s_proxy_a", false}, ViaCase{"Via:", false}));

// A status other than 200 hands the gateway's page (block page, authentication request) to the
// client, header block and body byte for byte, and still fails the exchange.
TEST_F(GatewayExchangeTest, ForbiddenWithViaIsForwardedWithItsBodyAndFails) {
    const std::string head =
        "HTTP/1.1 403 Forbidden\r\nVia: 1.1 s_proxy_gw\r\nContent-Type: text/html\r\n"
        "Content-Length: 14\r\n\r\n";
    GatewaySends(head + "<p>blocked</p>", false);
    EXPECT_EQ(Process(), SWG_E_FAIL);
    EXPECT_EQ(m_status, 403);
    EXPECT_EQ(m_trace.Count(TRACE, "Connection : Proxy response status code 403"), 1);
    EXPECT_EQ(ClientReceived(), head + "<p>blocked</p>");
}

// A status page without a body goes to the client as its header block alone.
TEST_F(GatewayExchangeTest, StatusWithoutBodyForwardsTheHeaderBlock) {
    const std::string head =
        "HTTP/1.1 407 Proxy Authentication Required\r\nVia: 1.1 m_proxy_1\r\n\r\n";
    GatewaySends(head, false);
    EXPECT_EQ(Process(), SWG_E_FAIL);
    EXPECT_EQ(ClientReceived(), head);
}

// Asked not to forward, a status other than 200 is left to the caller: nothing reaches the client.
TEST_F(GatewayExchangeTest, StatusWithNoForwardIsLeftToTheCaller) {
    GatewaySends("HTTP/1.1 502 Bad Gateway\r\nVia: 1.1 s_proxy_gw\r\n\r\n", false);
    EXPECT_EQ(Process(true), 0);
    EXPECT_EQ(m_status, 502);
    EXPECT_EQ(m_trace.Count(BRIDGE, "Connection: ProcessProxyResponse code 502 and canretry"), 1);
    EXPECT_EQ(ClientReceived(), "");
}

// The body of a 200 is read exactly and dropped: the client never sees it, and the tunnel's
// first bytes behind it stay for the relay.
TEST_F(GatewayExchangeTest, BodyOfOkIsReadAndDroppedUpToItsLength) {
    GatewaySends("HTTP/1.1 200 OK\r\nVia: 1.1 s_proxy_gw\r\nContent-Length: 5\r\n\r\nhelloTUNNEL",
                 false);
    EXPECT_EQ(Process(), 0);
    EXPECT_EQ(LeftOnGatewaySide(6), "TUNNEL");
    EXPECT_EQ(ClientReceived(), "");
}

// A body cut short by the gateway's close is a failure, and the connection is marked lost.
TEST_F(GatewayExchangeTest, ShortBodyFails) {
    GatewaySends("HTTP/1.1 200 OK\r\nVia: 1.1 s_proxy_gw\r\nContent-Length: 10\r\n\r\nabc", true);
    EXPECT_EQ(Process(), SWG_E_FAIL);
    EXPECT_TRUE(m_connectionLost);
    EXPECT_EQ(m_trace.Count(ERR, "Connection : Connection closed by peer"), 1);
    EXPECT_EQ(m_trace.CountPrefix(
                  ERR, "Connection : Failed to read complete response in ProcessProxyResponse."),
              1);
}

// A short status page is not passed on in part: the client gets its header block only.
TEST_F(GatewayExchangeTest, ShortBodyOfAStatusPageIsNotPassedOn) {
    const std::string head =
        "HTTP/1.1 403 Forbidden\r\nVia: 1.1 s_proxy_gw\r\nContent-Length: 50\r\n\r\n";
    GatewaySends(head + "partial", true);
    EXPECT_EQ(Process(), SWG_E_FAIL);
    EXPECT_EQ(ClientReceived(), head);
}

// A gateway that closes without a word: the read's code comes back and the connection is lost.
TEST_F(GatewayExchangeTest, GatewayClosingBeforeAnswerFails) {
    GatewaySends("", true);
    const long code = Process();
    EXPECT_NE(code, 0);
    EXPECT_TRUE(m_connectionLost);
    EXPECT_EQ(m_trace.CountPrefix(ERR, "Connection : Read failed in ProcessProxyResponse. Code : "),
              1);
}

// An answer cut off inside its header block is a failure too, not a half-read success.
TEST_F(GatewayExchangeTest, GatewayClosingInsideTheHeaderBlockFails) {
    GatewaySends("HTTP/1.1 200 OK\r\nVia: 1.1 s_pro", true);
    EXPECT_NE(Process(), 0);
    EXPECT_TRUE(m_connectionLost);
}

// The answer may arrive in pieces, split inside a line and inside the body.
TEST_F(GatewayExchangeTest, AnswerInPiecesIsCollected) {
    const std::string answer =
        "HTTP/1.1 200 OK\r\nVia: 1.1 s_pr"
        "oxy_gw\r\nContent-Len"
        "gth: 9\r\n\r\nbo"
        "dy-bodyT";
    std::thread gateway([&] {
        for (std::size_t at = 0; at < answer.size(); at += 7) {
            (void)swg_test::WriteAll(m_gateway.Get(), answer.substr(at, 7), 1s);
            std::this_thread::sleep_for(3ms);
        }
    });
    EXPECT_EQ(Process(), 0);
    gateway.join();
    EXPECT_EQ(LeftOnGatewaySide(1), "T");
}

// A thread told to stop leaves at once with 0, reading nothing.
TEST_F(GatewayExchangeTest, StopRequestEndsTheExchangeWithZero) {
    GatewaySends("HTTP/1.1 403 Forbidden\r\nVia: 1.1 s_proxy_gw\r\n\r\n", false);
    m_thread.exit_requested = true;
    EXPECT_EQ(Process(), 0);
    EXPECT_EQ(ClientReceived(), "");
}

// ---- the CONNECT request -------------------------------------------------------------------

struct ConnectCase {
    bool ipv6;
    bool ipv6ViaIPv4;
    const char* host;
    const char* target;
};

class ProxyConnectTest : public GatewayExchangeTest,
                         public ::testing::WithParamInterface<ConnectCase> {};

// The request's bytes exactly; brackets go by the IPv4-leg flag alone, so an IPv6 literal on an
// IPv6 gateway leg goes out bare.
TEST_P(ProxyConnectTest, RequestBytesFollowTheBracketRule) {
    m_thread.m_bIPv6 = GetParam().ipv6;
    m_thread.m_bIPv6ViaIPv4 = GetParam().ipv6ViaIPv4;
    EXPECT_EQ(m_thread.DoProxyConnect(GetParam().host, 8443, "", false), 0);
    m_thread.CloseConnection();
    const std::string target = GetParam().target;
    EXPECT_EQ(
        swg_test::ReadToEnd(m_gateway.Get()),
        "CONNECT " + target + " HTTP/1.1\r\nContent-Length: 0\r\nHost: " + target + "\r\n\r\n");
}

INSTANTIATE_TEST_SUITE_P(
    Legs, ProxyConnectTest,
    ::testing::Values(ConnectCase{false, false, "198.18.2.2", "198.18.2.2:8443"},
                      ConnectCase{false, true, "2001:db8::2", "[2001:db8::2]:8443"},
                      ConnectCase{true, false, "2001:db8::2", "2001:db8::2:8443"}));

std::string ReadSample(const char* name) {
    return swg_test::ReadTextFile(std::string(SWG_SOURCE_DIR) + "/packaging/sample/" + name);
}

// The licence lines come behind the request's own three lines, and open with the
// organisation's private key to the identity of the configuration.
TEST_F(GatewayExchangeTest, ConnectCarriesTheLicenceBehindItsOwnLines) {
    ScopedAgentState state;
    ScopedAgentState::Edit([](CSWGAgent::ORGINFO& info) {
        info.strOrgId = "org-1";
        info.strDeviceId = "device-1";
        info.strPstrUserId = "Hjane@corp.test";
        info.strOverlayUser = "";
        info.strpKeyPem = ReadSample("licence-test-public.pem");
        info.strpKeyId = "sample-key-1";
    });
    ASSERT_EQ(m_thread.DoProxyConnect("198.18.2.2", 443, "", true), 0);
    m_thread.CloseConnection();
    const std::string request = swg_test::ReadToEnd(m_gateway.Get());

    std::vector<std::string> lines;
    for (std::size_t at = 0; at < request.size();) {
        const std::size_t end = request.find("\r\n", at);
        ASSERT_NE(end, std::string::npos) << request;
        lines.push_back(request.substr(at, end - at));
        at = end + 2;
    }
    ASSERT_EQ(lines.size(), 6u) << request;
    EXPECT_EQ(lines[0], "CONNECT 198.18.2.2:443 HTTP/1.1");
    EXPECT_EQ(lines[1], "Content-Length: 0");
    EXPECT_EQ(lines[2], "Host: 198.18.2.2:443");
    EXPECT_EQ(lines[5], "");
    const std::string idName = "X-SWG-Licence-Id: ";
    const std::string payloadName = "X-SWG-Licence: ";
    ASSERT_EQ(lines[3].rfind(idName, 0), 0u);
    ASSERT_EQ(lines[4].rfind(payloadName, 0), 0u);

    LicenceIdentity identity;
    std::string error;
    ASSERT_TRUE(DecodeLicenceHeader(lines[3].substr(idName.size()),
                                    lines[4].substr(payloadName.size()),
                                    ReadSample("licence-test-private.pem"), identity, error))
        << error;
    EXPECT_EQ(identity.strOrgId, "org-1");
    EXPECT_EQ(identity.strDeviceId, "device-1");
    EXPECT_EQ(identity.strUserId, "Hjane@corp.test");
    EXPECT_EQ(identity.strKeyId, "sample-key-1");
}

// Without an outgoing socket there is nothing to write to: the header writer's argument error.
TEST_F(GatewayExchangeTest, ConnectWithoutOutgoingSocketFails) {
    m_thread.m_pExternalSocket->CloseSocket();
    delete m_thread.m_pExternalSocket;
    m_thread.m_pExternalSocket = nullptr;
    EXPECT_EQ(m_thread.DoProxyConnect("198.18.2.2", 443, "", true), SWG_E_INVALIDARG);
}

// A gateway that is gone makes the write fail, which sends the job down the failure branch.
TEST_F(GatewayExchangeTest, ConnectToAClosedGatewayFails) {
    m_gateway.Reset();
    EXPECT_EQ(m_thread.DoProxyConnect("198.18.2.2", 443, "", false), -1);
}

// ---- choice of gateway address ---------------------------------------------------------------

class GatewayAddressTest : public ::testing::Test {
protected:
    static std::vector<unsigned char> Bytes16(unsigned char first) {
        std::vector<unsigned char> bytes(16);
        for (int i = 0; i < 16; ++i)
            bytes[static_cast<std::size_t>(i)] = static_cast<unsigned char>(first + i);
        return bytes;
    }

    ScopedAgentState m_state;
    swg_test::RecordingTrace m_trace;
    CDnConnectionThread m_thread;
};

// The IPv6 pick copies 16 bytes from byte `index` of the list, not from entry `index`: with
// three addresses, index 1 takes bytes 1..16, which run into the second address.
TEST_F(GatewayAddressTest, IPv6PickStartsAtTheByteIndex) {
    std::vector<unsigned char> list = Bytes16(0x10);
    const std::vector<unsigned char> second = Bytes16(0x40);
    const std::vector<unsigned char> third = Bytes16(0x80);
    list.insert(list.end(), second.begin(), second.end());
    list.insert(list.end(), third.begin(), third.end());
    g_pSWGAgent->CacheResolvedIPV6List("gw6.index.test", list);

    CDnConnectionThread::sm_usNextIPV6Index = 1;
    std::string name = "gw6.index.test";
    unsigned char picked[16] = {};
    ASSERT_TRUE(m_thread.resolveToIPV6(name, picked));
    EXPECT_EQ(std::vector<unsigned char>(picked, picked + 16),
              std::vector<unsigned char>(list.begin() + 1, list.begin() + 17));

    ASSERT_TRUE(m_thread.resolveToIPV6(name, picked));  // index 2
    EXPECT_EQ(std::vector<unsigned char>(picked, picked + 16),
              std::vector<unsigned char>(list.begin() + 2, list.begin() + 18));

    ASSERT_TRUE(m_thread.resolveToIPV6(name, picked));  // index 3 % 3 = 0: the first address
    EXPECT_EQ(std::vector<unsigned char>(picked, picked + 16), Bytes16(0x10));
    EXPECT_EQ(
        m_trace.Count(BRIDGE, "Connection: Using IPV6 cached DNS response for gw6.index.test"), 3);
}

// A literal is taken as it stands and moves no counter; an empty name is no address.
TEST_F(GatewayAddressTest, IPv6LiteralIsNotResolved) {
    CDnConnectionThread::sm_usNextIPV6Index = 7;
    std::string literal = "2001:db8::77";
    unsigned char picked[16] = {};
    ASSERT_TRUE(m_thread.resolveToIPV6(literal, picked));
    in6_addr expected{};
    ASSERT_EQ(::inet_pton(AF_INET6, "2001:db8::77", &expected), 1);
    EXPECT_EQ(std::memcmp(picked, &expected, 16), 0);
    EXPECT_EQ(CDnConnectionThread::sm_usNextIPV6Index.load(), 7);
    std::string empty;
    EXPECT_FALSE(m_thread.resolveToIPV6(empty, picked));
}

// IPv4 picks go round the list, and the shared 16-bit counter wraps around to 0.
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
    EXPECT_EQ(m_trace.Count(BRIDGE,
                            "Connection : Resolved IP from 'gw4.rr.test' is 198.18.1.1, using "
                            "index = 0"),
              2);
    EXPECT_EQ(m_trace.Count(BRIDGE,
                            "Connection : Resolved IP from 'gw4.rr.test' is 198.18.1.2, using "
                            "index = 1"),
              1);
}

// Literals: an IPv4 one is the address, an IPv6 one sends the caller to the anycast fallback.
TEST_F(GatewayAddressTest, IPv4LiteralsAndEmptyName) {
    std::string v4 = "198.18.0.10";
    unsigned long address = 0;
    ASSERT_TRUE(m_thread.resolveToIPV4(v4, address));
    EXPECT_EQ(address, ::inet_addr("198.18.0.10"));
    std::string v6 = "2001:db8::1";
    EXPECT_FALSE(m_thread.resolveToIPV4(v6, address));
    EXPECT_EQ(m_trace.Count(BRIDGE,
                            "Connection: Stringified version of IPV6 is given, fallback to "
                            "Anycast IP"),
              1);
    std::string empty;
    EXPECT_FALSE(m_thread.resolveToIPV4(empty, address));
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
    EXPECT_EQ(m_trace.Count(ERR,
                            "Connection : Failed to convert domain name to IP. No fallback "
                            "Anycast IP present."),
              1);
    EXPECT_EQ(m_trace.Count(ERR, "Connection : Caught unknown exception"), 1);
    EXPECT_FALSE(m_thread.m_bAnycastFallback);
}

// ---- anycast rotation ----------------------------------------------------------------------

class AnycastRotationTest : public GatewayAddressTest {
protected:
    static void SetLists(std::deque<std::string> v4, std::deque<std::string> v6) {
        ScopedAgentState::Edit([&](CSWGAgent::ORGINFO& info) {
            info.qstrSWGAnycastListV4 = v4;
            info.qstrSWGAnycastListV6 = v6;
        });
    }
    static std::deque<std::string> V4() { return g_pSWGAgent->GetOrgInfo().qstrSWGAnycastListV4; }
    static std::deque<std::string> V6() { return g_pSWGAgent->GetOrgInfo().qstrSWGAnycastListV6; }
};

// The failed front goes to the back, and the next address is in use.
TEST_F(AnycastRotationTest, FailedFrontMovesToTheBack) {
    SetLists({"198.18.5.1", "198.18.5.2", "198.18.5.3"}, {"2001:db8::1", "2001:db8::2"});
    m_thread.m_anycastIP = "198.18.5.1";
    m_thread.handleAnycastFailure();
    EXPECT_EQ(V4(), (std::deque<std::string>{"198.18.5.2", "198.18.5.3", "198.18.5.1"}));
    EXPECT_EQ(V6(), (std::deque<std::string>{"2001:db8::1", "2001:db8::2"}));
    EXPECT_EQ(m_trace.Count(TRACE,
                            "Connection : Marking Anycast IP 198.18.5.1 as bad due to connection "
                            "failure."),
              1);
    EXPECT_EQ(m_trace.Count(TRACE, "Connection : Using new Anycast IP 198.18.5.2 instead"), 1);
}

// A front that is no longer this thread's address was turned by another thread: no second turn.
TEST_F(AnycastRotationTest, FrontOfAnotherThreadIsLeftAlone) {
    SetLists({"198.18.5.2", "198.18.5.3", "198.18.5.1"}, {});
    m_thread.m_anycastIP = "198.18.5.1";
    m_thread.handleAnycastFailure();
    EXPECT_EQ(V4(), (std::deque<std::string>{"198.18.5.2", "198.18.5.3", "198.18.5.1"}));
}

// A single address has nowhere to go.
TEST_F(AnycastRotationTest, SingleEntryDoesNotTurn) {
    SetLists({"198.18.5.1"}, {});
    m_thread.m_anycastIP = "198.18.5.1";
    m_thread.handleAnycastFailure();
    EXPECT_EQ(V4(), std::deque<std::string>{"198.18.5.1"});
    EXPECT_EQ(m_trace.CountPrefix(TRACE, "Connection : Marking Anycast IP"), 0);
}

// An IPv6 gateway leg turns the IPv6 list only.
TEST_F(AnycastRotationTest, IPv6LegTurnsTheIPv6List) {
    SetLists({"198.18.5.1", "198.18.5.2"}, {"2001:db8::1", "2001:db8::2", "2001:db8::3"});
    m_thread.m_bIPv6 = true;
    m_thread.m_anycastIP = "2001:db8::1";
    m_thread.handleAnycastFailure();
    EXPECT_EQ(V6(), (std::deque<std::string>{"2001:db8::2", "2001:db8::3", "2001:db8::1"}));
    EXPECT_EQ(V4(), (std::deque<std::string>{"198.18.5.1", "198.18.5.2"}));
}

// The order comes back only after a full turn; each failure of the front moves one step.
TEST_F(AnycastRotationTest, RepeatedFailuresGoRoundTheList) {
    SetLists({"198.18.5.1", "198.18.5.2", "198.18.5.3"}, {});
    for (int i = 0; i < 3; ++i) {
        m_thread.m_anycastIP = V4().front();
        m_thread.handleAnycastFailure();
    }
    EXPECT_EQ(V4(), (std::deque<std::string>{"198.18.5.1", "198.18.5.2", "198.18.5.3"}));
}

}  // namespace
