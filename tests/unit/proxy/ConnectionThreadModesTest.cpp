// SPDX-License-Identifier: Apache-2.0
// Mode selection, the Host of the gateway request and the licence lines, over real sockets.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "GatewayTestSupport.h"
#include "core/SWGAgent.h"
#include "proxy/ConnectionThread.h"
#include "proxy/DnSocket.h"
#include "support/GatewayProcess.h"
#include "support/SocketPeers.h"
#include "support/ThreadTestSupport.h"
#include "upstream/LicenceHeader.h"
#include "upstream/ProxyInfo.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using swg_test::UniqueFd;

constexpr char kDestination[] = "198.18.0.7";
constexpr std::uint16_t kDestinationPort = 3128;
constexpr char kDestination6[] = "2001:db8::7";

// TLS 1.3 ClientHello as a browser sends it, SNI "a.example", 145 bytes. The type of its
// supported_groups extension (0x000a) is a newline byte: the sniffed line ends there.
const std::string kClientHelloTls13(
    "\x16\x03\x01\x00\x8c"                      // record: handshake, version 3.1, 140 bytes
    "\x01\x00\x00\x88\x03\x03"                  // ClientHello, 136 bytes, TLS 1.2
    "@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_"         // random
    "\x00"                                      // legacy_session_id: empty
    "\x00\x06\x13\x01\x13\x02\xc0\x2f\x01\x00"  // cipher suites: AES-GCM, ECDHE; no compression
    "\x00\x59"                                  // extensions: 89 bytes
    "\x00\x00\x00\x0e\x00\x0c\x00\x00\x09"
    "a.example"                                 // server_name
    "\x00\x0a\x00\x06\x00\x04\x00\x1d\x00\x17"  // supported_groups: x25519, P-256
    "\x00\x0d\x00\x06\x00\x04\x04\x03\x08\x04"  // signature_algorithms
    "\x00\x2b\x00\x05\x04\x03\x04\x03\x03"      // supported_versions: TLS 1.3, 1.2
    "\x00\x33\x00\x26\x00\x24\x00\x1d\x00\x20"  // key_share: x25519, 32 bytes
    " !\"#$%&'()*+,-./0123456789:;<=>?",
    145);

// The thread object on the test's own thread, with the accepted end of a loopback connection
// as its local socket and a chosen original destination; the test plays the client.
class ModeSelectionTest : public ::testing::Test {
protected:
    void SetUp() override {
        ResetProxyInfo();
        NewConnection();
    }
    void TearDown() override { ResetProxyInfo(); }

    // A fresh client connection and job state, to the default destination.
    void NewConnection() {
        swg_test::TcpPair pair = swg_test::MakeTcpPair(AF_INET);
        ASSERT_NE(pair.a.Get(), -1);
        m_client = std::move(pair.a);
        m_accepted = pair.b.Get();
        delete m_thread.m_pKdfSocket;
        m_socket = new CDnSocket(pair.b.Release());
        m_thread.m_pKdfSocket = m_socket;
        m_thread.CMode = 0;
        m_thread.TMode = 0;
        m_thread.m_headers.Reset();
        m_thread.m_host.clear();
        m_thread.m_proxyInfo = LOCAL_PROXY_INFO();
        SetDestination(kDestination, kDestinationPort);
    }

    void SetDestination(const char* address, std::uint16_t port) {
        in_addr in4{};
        ASSERT_EQ(::inet_pton(AF_INET, address, &in4), 1);
        m_thread.m_origDstV4 = 0;
        std::memcpy(&m_thread.m_origDstV4, &in4, sizeof(in4));
        m_thread.m_origDstPort = htons(port);
        m_thread.m_bIPv6 = false;
    }
    void SetDestination6(const char* address, std::uint16_t port) {
        ASSERT_EQ(::inet_pton(AF_INET6, address, m_thread.m_origDstV6), 1);
        m_thread.m_origDstV4 = 0;
        m_thread.m_origDstPort = htons(port);
        m_thread.m_bIPv6 = true;
    }

    void ClientSends(const std::string& bytes) {
        ASSERT_TRUE(swg_test::WriteAll(m_client.Get(), bytes, 2s));
    }
    // Sends `bytes` and waits until the accepted socket holds them all.
    void ClientHasSent(const std::string& bytes) {
        ClientSends(bytes);
        ASSERT_TRUE(swg_test::WaitUntil(
            [&] { return swg_test::PendingBytes(m_accepted) == static_cast<int>(bytes.size()); }));
    }
    // What the sniffing read and kept for the next reader.
    std::string Buffered() {
        std::string out;
        m_socket->PeekDataFromBuffer(out);
        return out;
    }

    swg_test::RecordingTrace m_trace;
    CDnConnectionThread m_thread;
    CDnSocket* m_socket = nullptr;  // owned by m_thread
    UniqueFd m_client;
    int m_accepted = -1;
};

// ---- request lines ------------------------------------------------------------------------

struct RequestCase {
    const char* name;
    const char* line;
    std::int32_t cMode;
    std::int32_t tMode;
    bool proxyRecorded;  // the destination becomes the observed proxy
};

class RequestLineTest : public ModeSelectionTest,
                        public ::testing::WithParamInterface<RequestCase> {};

// Each method and URI form must take its own branch: origin form to the server, absolute form
// and CONNECT to a proxy (recorded as the observed proxy), TRACE bypassed; methods are compared
// case-sensitively. Sniffing takes nothing away: the whole block waits in the line buffer.
TEST_P(RequestLineTest, TakesTheBranchOfItsMethodAndUriForm) {
    const RequestCase& c = GetParam();
    const std::string request = std::string(c.line) + "\r\nHost: a.example\r\n\r\n";
    ClientHasSent(request);
    ASSERT_EQ(m_thread.SelectInitialMode(), 0);
    EXPECT_EQ(m_thread.CMode, c.cMode);
    EXPECT_EQ(m_thread.TMode, c.tMode);
    const LOCAL_PROXY_INFO recorded = GetProxyInfo();
    EXPECT_EQ(recorded.proxy_host, c.proxyRecorded ? kDestination : "0.0.0.0");
    EXPECT_EQ(m_thread.m_proxyInfo.proxy_host, recorded.proxy_host);
    if (c.proxyRecorded) {
        EXPECT_EQ(recorded.proxy_port, kDestinationPort);
        EXPECT_EQ(recorded.proxy_mode, ProxyModeObserved);
        EXPECT_EQ(recorded.proxy_type, PROXY_TYPE_OBSERVED);
        EXPECT_EQ(recorded.proxy_state, PROXY_STATE_UNSET);
    }
    EXPECT_EQ(Buffered(), request);
    EXPECT_EQ(swg_test::PendingBytes(m_accepted), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Methods, RequestLineTest,
    ::testing::Values(
        RequestCase{"GetOriginForm", "GET /index.html HTTP/1.1", 2, 1, false},
        RequestCase{"GetAbsoluteForm", "GET http://a.example/x HTTP/1.1", 2, 1, true},
        RequestCase{"PostOriginForm", "POST /form HTTP/1.0", 2, 1, false},
        RequestCase{"Connect", "CONNECT a.example:443 HTTP/1.1", 2, 1, true},
        RequestCase{"TraceOriginForm", "TRACE / HTTP/1.1", 0, 0, false},
        RequestCase{"TraceAbsoluteForm", "TRACE http://a.example/ HTTP/1.1", 0, 0, false},
        RequestCase{"OptionsAsterisk", "OPTIONS * HTTP/1.1", 2, 1, false},
        RequestCase{"OptionsAbsoluteForm", "OPTIONS http://a.example/x HTTP/1.1", 2, 1, true},
        RequestCase{"LowerCaseTrace", "trace / HTTP/1.1", 2, 1, false},
        RequestCase{"LowerCaseOptionsAsterisk", "options * HTTP/1.1", 2, 1, true}),
    [](const ::testing::TestParamInfo<RequestCase>& param) {
        return std::string(param.param.name);
    });

// A request line that arrives in pieces is collected for what is left of the wait.
TEST_F(ModeSelectionTest, RequestLineInPiecesIsCollectedWithinTheWait) {
    std::thread client([&] {
        for (const char* piece : {"GE", "T /x HT", "TP/1.1\r\nHost: a\r\n\r\n"}) {
            ClientSends(piece);  // each piece once the sniffer has taken the one before
            EXPECT_TRUE(
                swg_test::WaitUntil([&] { return swg_test::PendingBytes(m_accepted) == 0; }));
        }
    });
    EXPECT_EQ(m_thread.SelectInitialMode(), 0);
    client.join();
    EXPECT_EQ(m_thread.CMode, 2);
    EXPECT_EQ(m_thread.TMode, 1);
    EXPECT_EQ(Buffered(), "GET /x HTTP/1.1\r\nHost: a\r\n\r\n");
}

// The first bytes decide: "HTTP/" only in more than four bytes, TLS only for a ClientHello of
// version 3 or later (on any port), port 443 without reading; every byte read stays buffered.
TEST_F(ModeSelectionTest, FirstBytesDecideBetweenHttpTlsAndUnknown) {
    std::string sslv2 = kClientHelloTls13;
    sslv2[1] = 0x02;  // record version 2.x
    std::string serverHello = kClientHelloTls13;
    serverHello[5] = 0x02;  // handshake type ServerHello
    const struct {
        const char* name;
        std::string bytes;
        std::uint16_t port;
        std::int32_t mode;  // CMode; TMode is 1 for a known mode, else 0
        bool read;
    } cases[] = {
        {"four bytes", "HTTP", 8080, 0, true},
        {"five without HTTP/", "HELLO", 8080, 0, true},
        {"five with HTTP/", "HTTP/", 8080, 2, true},
        {"server-first protocol", "SSH-2.0-x", 8080, 0, true},
        {"TLS 1.3 ClientHello", kClientHelloTls13, 8443, 1, true},
        {"SSL 2", sslv2, 8443, 0, true},
        {"not a ClientHello", serverHello, 8443, 0, true},
        {"alert record", std::string("\x15\x03\x03\x00\x02\x02\x46\n", 8), 8443, 0, true},
        {"plain HTTP to 443", "GET / HTTP/1.1\r\nHost: a\r\n\r\n", 443, 1, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        NewConnection();
        SetDestination(kDestination, c.port);
        m_thread.m_firstBytesWaitMs = 200;  // some records hold no line end
        ClientHasSent(c.bytes);
        ASSERT_EQ(m_thread.SelectInitialMode(), 0);
        EXPECT_EQ(m_thread.CMode, c.mode);
        EXPECT_EQ(m_thread.TMode, c.mode != 0 ? 1 : 0);
        EXPECT_EQ(Buffered(), c.read ? c.bytes : "");
        EXPECT_EQ(swg_test::PendingBytes(m_accepted),
                  c.read ? 0 : static_cast<int>(c.bytes.size()));
    }
}

// A client that sends nothing is given up after the whole wait with code 60; a stop request
// ends the wait with no error.
TEST_F(ModeSelectionTest, SilentClientTimesOutWith60AfterTheWait) {
    m_thread.m_firstBytesWaitMs = 300;
    const auto start = Clock::now();
    EXPECT_EQ(m_thread.SelectInitialMode(), 60);
    EXPECT_GE(Clock::now() - start, 290ms);

    m_thread.m_firstBytesWaitMs = 20000;
    m_thread.exit_requested = true;
    EXPECT_EQ(m_thread.SelectInitialMode(), 0);
    EXPECT_EQ(m_thread.CMode, 0);
}

// Guards the proxy check of an origin-form request: a system proxy gone from the host's
// settings is forgotten; one still set, even at another address, keeps its record.
TEST_F(ModeSelectionTest, OriginFormRequestForgetsASystemProxyThatIsGone) {
    const char* const saved = std::getenv("https_proxy");
    const std::string savedValue = saved != nullptr ? saved : "";
    const struct {
        const char* setting;  // https_proxy of this process, the agent's environment
        const char* recorded;
    } cases[] = {
        {"", "0.0.0.0"},
        {"http://198.18.0.5:3128", "198.18.0.5"},
        {"http://198.18.0.6:3128", "198.18.0.5"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.setting);
        ::setenv("https_proxy", c.setting, 1);
        LOCAL_PROXY_INFO system;
        system.proxy_mode = ProxyModeSystem;
        system.proxy_host = "198.18.0.5";
        system.proxy_port = 3128;
        system.proxy_state = PROXY_STATE_IN_USE;
        ResetProxyInfo();
        SetProxyInfo(system);
        NewConnection();
        ClientHasSent("GET /x HTTP/1.1\r\nHost: a.example\r\n\r\n");
        ASSERT_EQ(m_thread.SelectInitialMode(), 0);
        EXPECT_EQ(GetProxyInfo().proxy_host, c.recorded);
    }
    if (saved != nullptr) {
        ::setenv("https_proxy", savedValue.c_str(), 1);
    } else {
        ::unsetenv("https_proxy");
    }
}

// Proxies are recorded as IPv4 only: a proxy-form request on an IPv6 connection fails the
// selection, and no proxy is recorded.
TEST_F(ModeSelectionTest, ProxyFormOnIPv6FailsTheSelection) {
    SetDestination6(kDestination6, 8080);
    ClientHasSent("CONNECT a.example:443 HTTP/1.1\r\n\r\n");
    EXPECT_EQ(m_thread.SelectInitialMode(), -1);
    EXPECT_EQ(GetProxyInfo().proxy_host, "0.0.0.0");
}

// The gateway is named the Host without its port, or the destination address when there is no
// Host or the connection is TLS; on an IPv6 connection an IPv6 literal gives the address.
TEST_F(ModeSelectionTest, SetupHostNamesTheHostWithoutPort) {
    const struct {
        bool ipv6;
        std::int32_t cMode;
        const char* host;  // the Host line's value, null for none
        const char* expected;
    } cases[] = {
        {false, 2, "a.example:8080", "a.example"}, {false, 2, " b.example ", "b.example"},
        {false, 2, nullptr, kDestination},         {false, 2, "", kDestination},
        {false, 2, "[2001:db8::5]:8080", "[2001"},  // on IPv4 cut like any other value
        {false, 1, "a.example", kDestination},     {true, 2, "[2001:db8::5]:8080", kDestination6},
        {true, 2, "[2001:db8::5]", kDestination6}, {true, 2, "2001:db8::5", kDestination6},
        {true, 2, "a.example:8080", "a.example"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.host != nullptr ? c.host : "no Host");
        NewConnection();
        if (c.ipv6) SetDestination6(kDestination6, 80);
        m_thread.CMode = c.cMode;
        ClientSends(std::string("GET / HTTP/1.1\r\n") +
                    (c.host != nullptr ? std::string("Host:") + c.host + "\r\n" : "") + "\r\n");
        EXPECT_EQ(m_thread.ReadHttpHeaders(), 0);
        m_thread.SetupHost();
        EXPECT_EQ(m_thread.m_host, c.expected);
    }
}

// The two licence lines go behind the client's and carry the configured identity, with the
// local address the outgoing connection leaves from, to the gateway; a key that cannot be used
// leaves the block as the client sent it.
TEST_F(ModeSelectionTest, LicenceLinesFollowTheClientsAndNameTheOutgoingAddress) {
    const std::string samples = std::string(SWG_SOURCE_DIR) + "/packaging/sample/";
    swg_test::ScopedAgentState state;
    swg_test::ScopedAgentState::Edit([&](CSWGAgent::ORGINFO& org) {
        org.strOrgId = "org-4711";
        org.strpKeyPem = swg_test::ReadTextFile(samples + "licence-test-public.pem");
        org.strpKeyId = "sample-key-1";
    });
    CDnHttpHeaders headers{256};
    headers.m_lines = {"GET / HTTP/1.1\r\n", "Host: a.example\r\n"};
    headers.m_bComplete = true;
    swg_test::TcpPair outgoing = swg_test::MakeTcpPair(AF_INET);
    ASSERT_NE(outgoing.a.Get(), -1);
    m_thread.m_pExternalSocket = new CDnSocket(outgoing.a.Release());
    ASSERT_TRUE(m_thread.ModifyHttpHeaders(&headers));
    ASSERT_EQ(headers.m_lines.size(), 4u);
    EXPECT_EQ(headers.m_lines.front(), "GET / HTTP/1.1\r\n");
    EXPECT_EQ(headers.m_lines.back().substr(headers.m_lines.back().size() - 2), "\r\n");
    LicenceIdentity identity;
    std::string error;
    ASSERT_TRUE(DecodeLicenceHeader(
        headers.HeaderValue(kLicenceKeyIdHeader), headers.HeaderValue(kLicencePayloadHeader),
        swg_test::ReadTextFile(samples + "licence-test-private.pem"), identity, error))
        << error;
    EXPECT_EQ(identity.strOrgId, "org-4711");  // the field mapping is the licence code's own
    EXPECT_EQ(identity.strInterfaceAddress, "127.0.0.1");

    swg_test::ScopedAgentState::Edit([](CSWGAgent::ORGINFO& org) {
        org.strpKeyPem = "-----BEGIN PUBLIC KEY-----\nnot a key\n-----END PUBLIC KEY-----\n";
    });
    headers.m_lines.resize(2);
    EXPECT_FALSE(m_thread.ModifyHttpHeaders(&headers));
    EXPECT_EQ(headers.m_lines.size(), 2u);
}

}  // namespace
