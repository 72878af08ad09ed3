// SPDX-License-Identifier: Apache-2.0
// Mode selection, the Host of the gateway request and the licence lines, over real sockets.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <ostream>
#include <string>
#include <thread>

#include "core/SWGAgent.h"
#include "proxy/ConnectionThread.h"
#include "proxy/DnSocket.h"
#include "support/GatewayProcess.h"
#include "support/SocketPeers.h"
#include "unit/foundation/ThreadTestSupport.h"
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
const unsigned char kClientHelloTls13[] = {
    0x16, 0x03, 0x01, 0x00, 0x8c,  // record: handshake, legacy version 3.1, 140 bytes
    0x01, 0x00, 0x00, 0x88,        // handshake: ClientHello, 136 bytes
    0x03, 0x03,                    // legacy_version TLS 1.2
    0x40, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a,
    0x4b, 0x4c, 0x4d, 0x4e, 0x4f, 0x50, 0x51, 0x52, 0x53, 0x54, 0x55,
    0x56, 0x57, 0x58, 0x59, 0x5a, 0x5b, 0x5c, 0x5d, 0x5e, 0x5f,  // random
    0x00,                                                        // legacy_session_id: empty
    0x00, 0x06, 0x13, 0x01, 0x13, 0x02, 0xc0, 0x2f,  // cipher suites: AES128/256-GCM, ECDHE
    0x01, 0x00,                                      // compression: null
    0x00, 0x59,                                      // extensions: 89 bytes
    0x00, 0x00, 0x00, 0x0e, 0x00, 0x0c, 0x00, 0x00, 0x09, 'a',  '.',
    'e',  'x',  'a',  'm',  'p',  'l',
    'e',                                                         // server_name "a.example"
    0x00, 0x0a, 0x00, 0x06, 0x00, 0x04, 0x00, 0x1d, 0x00, 0x17,  // groups: x25519, P-256
    0x00, 0x0d, 0x00, 0x06, 0x00, 0x04, 0x04, 0x03, 0x08, 0x04,  // signature algorithms
    0x00, 0x2b, 0x00, 0x05, 0x04, 0x03, 0x04, 0x03, 0x03,        // versions: TLS 1.3, 1.2
    0x00, 0x33, 0x00, 0x26, 0x00, 0x24, 0x00, 0x1d, 0x00, 0x20,  // key_share: x25519, 32 bytes
    0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2a,
    0x2b, 0x2c, 0x2d, 0x2e, 0x2f, 0x30, 0x31, 0x32, 0x33, 0x34, 0x35,
    0x36, 0x37, 0x38, 0x39, 0x3a, 0x3b, 0x3c, 0x3d, 0x3e, 0x3f};

// TLS 1.2 ClientHello, SNI "a.example", 117 bytes, with no newline byte anywhere: the sniffer
// decides when the wait runs out.
const unsigned char kClientHelloTls12[] = {
    0x16, 0x03, 0x03, 0x00, 0x70,  // record: handshake, version 3.3, 112 bytes
    0x01, 0x00, 0x00, 0x6c,        // handshake: ClientHello, 108 bytes
    0x03, 0x03,                    // client_version TLS 1.2
    0x40, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a,
    0x4b, 0x4c, 0x4d, 0x4e, 0x4f, 0x50, 0x51, 0x52, 0x53, 0x54, 0x55,
    0x56, 0x57, 0x58, 0x59, 0x5a, 0x5b, 0x5c, 0x5d, 0x5e, 0x5f,  // random
    0x20, 0x60, 0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69,
    0x6a, 0x6b, 0x6c, 0x6d, 0x6e, 0x6f, 0x70, 0x71, 0x72, 0x73, 0x74,
    0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x7b, 0x7c, 0x7d, 0x7e, 0x7f,  // session id, 32 bytes
    0x00, 0x06, 0xc0, 0x2f, 0xc0, 0x30, 0x00, 0x9c,  // cipher suites: ECDHE-RSA-AES-GCM, RSA
    0x01, 0x00,                                      // compression: null
    0x00, 0x1d,                                      // extensions: 29 bytes
    0x00, 0x00, 0x00, 0x0e, 0x00, 0x0c, 0x00, 0x00, 0x09, 'a',  '.',
    'e',  'x',  'a',  'm',  'p',  'l',
    'e',                                 // server_name "a.example"
    0x00, 0x0b, 0x00, 0x02, 0x01, 0x00,  // ec_point_formats: uncompressed
    0xff, 0x01, 0x00, 0x01, 0x00};       // renegotiation_info: empty

template <std::size_t N>
std::string Bytes(const unsigned char (&bytes)[N]) {
    return std::string(reinterpret_cast<const char*>(bytes), N);
}

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

void PrintTo(const RequestCase& c, std::ostream* out) { *out << c.name; }

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
        EXPECT_EQ(recorded.proxy_state, PROXY_STATE_IN_USE);
    }
    EXPECT_EQ(Buffered(), request);
    EXPECT_EQ(swg_test::PendingBytes(m_accepted), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Methods, RequestLineTest,
    ::testing::Values(RequestCase{"GetOriginForm", "GET /index.html HTTP/1.1", 2, 1, false},
                      RequestCase{"GetAbsoluteForm", "GET http://a.example/x HTTP/1.1", 2, 1, true},
                      RequestCase{"PostOriginForm", "POST /form HTTP/1.0", 2, 1, false},
                      RequestCase{"Connect", "CONNECT a.example:443 HTTP/1.1", 2, 1, true},
                      RequestCase{"TraceOriginForm", "TRACE / HTTP/1.1", 0, 0, false},
                      RequestCase{"TraceAbsoluteForm", "TRACE http://a.example/ HTTP/1.1", 0, 0,
                                  false},
                      RequestCase{"OptionsAsterisk", "OPTIONS * HTTP/1.1", 2, 1, false},
                      RequestCase{"OptionsAbsoluteForm", "OPTIONS http://a.example/x HTTP/1.1", 2,
                                  1, true},
                      RequestCase{"LowerCaseTrace", "trace / HTTP/1.1", 2, 1, false},
                      RequestCase{"LowerCaseOptionsAsterisk", "options * HTTP/1.1", 2, 1, true}),
    [](const ::testing::TestParamInfo<RequestCase>& param) { return std::string(param.param.name); });

// A request line that arrives in pieces is collected for what is left of the wait.
TEST_F(ModeSelectionTest, RequestLineInPiecesIsCollectedWithinTheWait) {
    std::thread client([&] {
        ClientSends("GE");
        std::this_thread::sleep_for(300ms);
        ClientSends("T /x HT");
        std::this_thread::sleep_for(300ms);
        ClientSends("TP/1.1\r\nHost: a\r\n\r\n");
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
    std::string sslv2 = Bytes(kClientHelloTls12);
    sslv2[1] = 0x02;  // record version 2.x
    std::string serverHello = Bytes(kClientHelloTls13);
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
        {"TLS 1.3 ClientHello", Bytes(kClientHelloTls13), 8443, 1, true},
        {"TLS 1.2 ClientHello", Bytes(kClientHelloTls12), 8443, 1, true},
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
        EXPECT_EQ(swg_test::PendingBytes(m_accepted), c.read ? 0 : static_cast<int>(c.bytes.size()));
    }
}

// A client that sends nothing is given up after the full 2000 ms with code 60; a stop request
// during the wait ends it at the next round, with no error.
TEST_F(ModeSelectionTest, SilentClientTimesOutWith60AfterTwoSeconds) {
    auto start = Clock::now();
    EXPECT_EQ(m_thread.SelectInitialMode(), 60);
    EXPECT_GE(Clock::now() - start, 1900ms);
    EXPECT_LT(Clock::now() - start, 5s);

    std::thread stopper([&] {
        std::this_thread::sleep_for(100ms);
        m_thread.exit_requested = true;
    });
    start = Clock::now();
    EXPECT_EQ(m_thread.SelectInitialMode(), 0);
    stopper.join();
    EXPECT_LT(Clock::now() - start, 1500ms);
    EXPECT_EQ(m_thread.CMode, 0);
}

// Proxies are recorded as IPv4 only: a proxy-form request on an IPv6 connection fails the
// selection. An origin-form request leaves a proxy seen in traffic alone.
TEST_F(ModeSelectionTest, ProxyRecordByAddressFamilyAndUriForm) {
    SetDestination6(kDestination6, 8080);
    ClientHasSent("CONNECT a.example:443 HTTP/1.1\r\n\r\n");
    EXPECT_EQ(m_thread.SelectInitialMode(), -1);
    EXPECT_EQ(GetProxyInfo().proxy_host, "0.0.0.0");

    LOCAL_PROXY_INFO observed;
    observed.proxy_host = "198.18.0.9";
    observed.proxy_port = 8080;
    observed.proxy_type = PROXY_TYPE_OBSERVED;
    observed.proxy_state = PROXY_STATE_IN_USE;
    SetProxyInfo(observed);
    NewConnection();
    ClientHasSent("GET / HTTP/1.1\r\n\r\n");
    ASSERT_EQ(m_thread.SelectInitialMode(), 0);
    EXPECT_EQ(GetProxyInfo().proxy_host, "198.18.0.9");
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
        {false, 2, "a.example:8080", "a.example"},
        {false, 2, " b.example ", "b.example"},
        {false, 2, nullptr, kDestination},
        {false, 2, "", kDestination},
        {false, 2, "[2001:db8::5]:8080", "[2001"},  // on IPv4 cut like any other value
        {false, 1, "a.example", kDestination},
        {true, 2, "[2001:db8::5]:8080", kDestination6},
        {true, 2, "[2001:db8::5]", kDestination6},
        {true, 2, "2001:db8::5", kDestination6},
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

// ---- licence lines -----------------------------------------------------------------------

std::string ReadSample(const std::string& name) {
    return swg_test::ReadTextFile(std::string(SWG_SOURCE_DIR) + "/packaging/sample/" + name);
}

class LicenceLinesTest : public ModeSelectionTest {
protected:
    void SetUp() override {
        ModeSelectionTest::SetUp();
        m_saved = g_pSWGAgent->GetOrgInfo();
        CSWGAgent::ORGINFO org;
        org.strOrgId = "org-4711";
        org.strDeviceId = "device-9f1c";
        org.strPstrUserId = "Hjane.doe@corp.example";
        org.strOverlayUser = "Hoverlay";
        org.strpKeyPem = ReadSample("licence-test-public.pem");
        org.strpKeyId = "sample-key-1";
        g_pSWGAgent->SetOrgInfo(org);
        m_headers.m_lines = {"GET / HTTP/1.1\r\n", "Host: a.example\r\n"};
        m_headers.m_bComplete = true;
    }
    void TearDown() override {
        g_pSWGAgent->SetOrgInfo(m_saved);
        ModeSelectionTest::TearDown();
    }

    CSWGAgent::ORGINFO m_saved;
    CDnHttpHeaders m_headers{256};
};

// The two lines go behind the client's and carry the configured identity, with the local
// address the outgoing connection leaves from, to the gateway.
TEST_F(LicenceLinesTest, AppendsTwoLinesThatDecodeToTheConfiguredIdentity) {
    swg_test::TcpPair outgoing = swg_test::MakeTcpPair(AF_INET);
    ASSERT_NE(outgoing.a.Get(), -1);
    m_thread.m_pExternalSocket = new CDnSocket(outgoing.a.Release());
    ASSERT_TRUE(m_thread.ModifyHttpHeaders(&m_headers));
    ASSERT_EQ(m_headers.m_lines.size(), 4u);
    EXPECT_EQ(m_headers.m_lines.front(), "GET / HTTP/1.1\r\n");
    EXPECT_EQ(m_headers.m_lines.back().substr(m_headers.m_lines.back().size() - 2), "\r\n");
    LicenceIdentity identity;
    std::string error;
    ASSERT_TRUE(DecodeLicenceHeader(m_headers.HeaderValue(kLicenceKeyIdHeader),
                                    m_headers.HeaderValue(kLicencePayloadHeader),
                                    ReadSample("licence-test-private.pem"), identity, error))
        << error;
    EXPECT_EQ(identity.strKeyId, "sample-key-1");
    EXPECT_EQ(identity.strOrgId, "org-4711");
    EXPECT_EQ(identity.strDeviceId, "device-9f1c");
    EXPECT_EQ(identity.strUserId, "Hjane.doe@corp.example");
    EXPECT_EQ(identity.strOverlayUser, "Hoverlay");
    EXPECT_EQ(identity.strInterfaceAddress, "127.0.0.1");
}

// A key that cannot be used leaves the block as the client sent it.
TEST_F(LicenceLinesTest, BadKeyAppendsNothing) {
    CSWGAgent::ORGINFO org = g_pSWGAgent->GetOrgInfo();
    org.strpKeyPem = "-----BEGIN PUBLIC KEY-----\nnot a key\n-----END PUBLIC KEY-----\n";
    g_pSWGAgent->SetOrgInfo(org);
    EXPECT_FALSE(m_thread.ModifyHttpHeaders(&m_headers));
    EXPECT_EQ(m_headers.m_lines.size(), 2u);
}

}  // namespace
