// SPDX-License-Identifier: Apache-2.0
// Mode selection, the Host of the gateway request and the licence lines, over real sockets.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>

#include "core/SWGAgent.h"
#include "foundation/Trace.h"
#include "proxy/ConnectionThread.h"
#include "proxy/DnSocket.h"
#include "support/SocketPeers.h"
#include "support/TestServers.h"
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
    int Bridge(const std::string& text) { return m_trace.Count(BRIDGE, text); }

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
    bool proxyRecorded;   // the destination becomes the observed proxy
    const char* logLine;  // the branch's own line, at level 7
};

void PrintTo(const RequestCase& c, std::ostream* out) { *out << c.name; }

class RequestLineTest : public ModeSelectionTest,
                        public ::testing::WithParamInterface<RequestCase> {};

// Each method and URI form must take its own branch: origin form to the server, absolute form
// and CONNECT to a proxy, TRACE bypassed; methods are compared case-sensitively.
TEST_P(RequestLineTest, TakesTheBranchOfItsMethodAndUriForm) {
    const RequestCase& c = GetParam();
    const std::string request = std::string(c.line) + "\r\nHost: a.example\r\n\r\n";
    ClientHasSent(request);

    ASSERT_EQ(m_thread.SelectInitialMode(), 0);
    EXPECT_EQ(m_thread.CMode, c.cMode);
    EXPECT_EQ(m_thread.TMode, c.tMode);
    EXPECT_EQ(Bridge(c.logLine), 1);
    EXPECT_EQ(Bridge("Connection : Selected modes - CMode : " + std::to_string(c.cMode) +
                     ", TMode : " + std::to_string(c.tMode)),
              1);
    const LOCAL_PROXY_INFO recorded = GetProxyInfo();
    if (c.proxyRecorded) {
        EXPECT_EQ(recorded.proxy_host, kDestination);
        EXPECT_EQ(recorded.proxy_port, kDestinationPort);
        EXPECT_EQ(recorded.proxy_mode, ProxyModeObserved);
        EXPECT_EQ(recorded.proxy_type, PROXY_TYPE_OBSERVED);
        EXPECT_EQ(recorded.proxy_state, PROXY_STATE_IN_USE);
        EXPECT_EQ(m_thread.m_proxyInfo.proxy_host, kDestination);
        EXPECT_EQ(m_thread.m_proxyInfo.proxy_port, kDestinationPort);
        EXPECT_EQ(m_trace.Count(LISTEN, "Connection : Proxy = 198.18.0.7 : 3128"), 1);
    } else {
        EXPECT_EQ(recorded.proxy_host, "0.0.0.0");
        EXPECT_EQ(m_thread.m_proxyInfo.proxy_host, "0.0.0.0");
    }
    // Sniffing takes nothing away: the whole block waits in the line buffer.
    EXPECT_EQ(Buffered(), request);
    EXPECT_EQ(swg_test::PendingBytes(m_accepted), 0);
}

const RequestCase kRequestCases[] = {
    {"GetOriginForm", "GET /index.html HTTP/1.1", 2, 1, false,
     "Connection : RequestURI == abs_path(/index.html). CMode : 2 TMode : 0"},
    {"GetAbsoluteForm", "GET http://a.example/x HTTP/1.1", 2, 1, true,
     "Connection : RequestURI == absoluteURI(http://a.example/x). Request made via Proxy "
     "198.18.0.7:3128 CMode : 2 TMode : 1"},
    {"PostOriginForm", "POST /form HTTP/1.0", 2, 1, false,
     "Connection : RequestURI == abs_path(/form). CMode : 2 TMode : 0"},
    {"Connect", "CONNECT a.example:443 HTTP/1.1", 2, 1, true,
     "Connection : Method == CONNECT. Request made via Proxy 198.18.0.7:3128 CMode : 2 TMode : 1"},
    {"TraceOriginForm", "TRACE / HTTP/1.1", 0, 0, false,
     "Connection : Method == TRACE. Unknown request type, bypassing it CMode : 0, TMode : 0"},
    {"TraceAbsoluteForm", "TRACE http://a.example/ HTTP/1.1", 0, 0, false,
     "Connection : Method == TRACE. Unknown request type, bypassing it CMode : 0, TMode : 0"},
    {"OptionsAsterisk", "OPTIONS * HTTP/1.1", 2, 1, false,
     "Connection :Method == OPTIONS. RequestURI == abs_path(*). CMode : 2 TMode : 1"},
    {"OptionsOriginForm", "OPTIONS /x HTTP/1.1", 2, 1, false,
     "Connection :Method == OPTIONS. RequestURI == abs_path(/x). CMode : 2 TMode : 1"},
    {"OptionsAbsoluteForm", "OPTIONS http://a.example/x HTTP/1.1", 2, 1, true,
     "Connection :Method == OPTIONS. RequestURI == absoluteURI(http://a.example/x). Request "
     "made via Proxy 198.18.0.7:3128 CMode : 2 TMode : 1"},
    {"LowerCaseConnect", "connect a.example:443 HTTP/1.1", 2, 1, true,
     "Connection : RequestURI == absoluteURI(a.example:443). Request made via Proxy "
     "198.18.0.7:3128 CMode : 2 TMode : 1"},
    {"LowerCaseTrace", "trace / HTTP/1.1", 2, 1, false,
     "Connection : RequestURI == abs_path(/). CMode : 2 TMode : 0"},
    {"LowerCaseOptionsAsterisk", "options * HTTP/1.1", 2, 1, true,
     "Connection : RequestURI == absoluteURI(*). Request made via Proxy 198.18.0.7:3128 CMode : "
     "2 TMode : 1"},
    {"ExtraTokenMakesItTheVersion", "GET /a b HTTP/1.1", 2, 1, false,
     "Connection : HTTPVersion [b] | Method [GET] | RequestURI [/a]"},
};

INSTANTIATE_TEST_SUITE_P(Methods, RequestLineTest, ::testing::ValuesIn(kRequestCases),
                         [](const ::testing::TestParamInfo<RequestCase>& param) {
                             return std::string(param.param.name);
                         });

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
    EXPECT_EQ(Bridge("Connection : HTTPVersion [HTTP/1.1] | Method [GET] | RequestURI [/x]"), 1);
}

// A line without its end decides, once the wait is over, with the bytes that are there.
TEST_F(ModeSelectionTest, PartialLineDecidesWithWhatCameWhenTheWaitEnds) {
    m_thread.m_firstBytesWaitMs = 300;
    ClientHasSent("GET /partial HTTP/1.1");
    const auto start = Clock::now();
    ASSERT_EQ(m_thread.SelectInitialMode(), 0);
    EXPECT_GE(Clock::now() - start, 250ms);  // it did wait for the line end
    EXPECT_EQ(m_thread.CMode, 2);
    EXPECT_EQ(m_thread.TMode, 1);
    EXPECT_EQ(Buffered(), "GET /partial HTTP/1.1");
}

// "HTTP/" is looked for only in more than four bytes; fewer than six bytes without it are not
// looked at as TLS and are logged; six or more that are neither go by silently.
TEST_F(ModeSelectionTest, ShortAndUnknownFirstBytesStayUnknown) {
    m_thread.m_firstBytesWaitMs = 200;
    const std::string notFound = "Connection : HTTP/ *NOT* FOUND. CMode : 0 TMode : 0";
    const struct {
        const char* bytes;
        std::int32_t cMode;
        int notFoundLines;
    } cases[] = {
        {"HTTP", 0, 1},       // four bytes: never searched
        {"HELLO", 0, 1},      // five bytes without "HTTP/"
        {"HTTP/", 2, 0},      // five bytes that hold it
        {"SSH-2.0-x", 0, 0},  // a server-first protocol's client: neither HTTP nor TLS
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bytes);
        NewConnection();
        ClientHasSent(c.bytes);
        const int before = m_trace.Count(TRACE, notFound);
        ASSERT_EQ(m_thread.SelectInitialMode(), 0);
        EXPECT_EQ(m_thread.CMode, c.cMode);
        EXPECT_EQ(m_trace.Count(TRACE, notFound) - before, c.notFoundLines);
        EXPECT_EQ(Buffered(), c.bytes);
    }
}

// ---- TLS -------------------------------------------------------------------------------

// A real ClientHello on a port other than 443 goes through the tunnel, and every byte of it
// is kept for the relay.
TEST_F(ModeSelectionTest, ClientHelloOfTls13AndTls12IsTls) {
    m_thread.m_firstBytesWaitMs = 300;  // the TLS 1.2 record holds no line end
    for (const std::string& hello : {Bytes(kClientHelloTls13), Bytes(kClientHelloTls12)}) {
        NewConnection();
        SetDestination(kDestination, 8443);
        ClientHasSent(hello);
        ASSERT_EQ(m_thread.SelectInitialMode(), 0);
        EXPECT_EQ(m_thread.CMode, 1);
        EXPECT_EQ(m_thread.TMode, 1);
        EXPECT_EQ(Buffered(), hello);
        EXPECT_EQ(swg_test::PendingBytes(m_accepted), 0);
    }
    EXPECT_EQ(Bridge("Connection : TLS was detected. Port = 8443. CMode : 1, TMode : 1"), 2);
}

// SSL 2 and older (version byte 2 or less) and a first record that is not a ClientHello are
// not for the gateway: both stay unknown and are bypassed without a word.
TEST_F(ModeSelectionTest, OldVersionAndOtherRecordsAreBypassed) {
    std::string sslv2 = Bytes(kClientHelloTls12);
    sslv2[1] = 0x02;  // record version 2.x
    std::string serverHello = Bytes(kClientHelloTls13);
    serverHello[5] = 0x02;  // handshake type ServerHello
    // An alert record (type 0x15): protocol version, fatal; then a newline so no wait.
    const std::string alert("\x15\x03\x03\x00\x02\x02\x46\n", 8);
    m_thread.m_firstBytesWaitMs = 200;
    for (const std::string& bytes : {sslv2, serverHello, alert}) {
        NewConnection();
        ClientHasSent(bytes);
        ASSERT_EQ(m_thread.SelectInitialMode(), 0);
        EXPECT_EQ(m_thread.CMode, 0);
        EXPECT_EQ(m_thread.TMode, 0);
        EXPECT_EQ(Buffered(), bytes);
    }
    EXPECT_EQ(m_trace.CountPrefix(BRIDGE, "Connection : TLS was detected"), 0);
    EXPECT_EQ(m_trace.CountPrefix(TRACE, "Connection : HTTP/ *NOT* FOUND"), 0);
}

// Port 443 is TLS whatever the client sends, and nothing is read from it.
TEST_F(ModeSelectionTest, Port443IsTlsWithoutReading) {
    SetDestination(kDestination, 443);
    const std::string plain = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";
    ClientHasSent(plain);
    ASSERT_EQ(m_thread.SelectInitialMode(), 0);
    EXPECT_EQ(m_thread.CMode, 1);
    EXPECT_EQ(m_thread.TMode, 1);
    EXPECT_EQ(Buffered(), "");
    EXPECT_EQ(swg_test::PendingBytes(m_accepted), static_cast<int>(plain.size()));
    EXPECT_EQ(Bridge("Connection : Port = 443. CMode : 1, TMode : 1"), 1);
}

// ---- waiting -------------------------------------------------------------------------------

// A client that sends nothing is given up after the full 2000 ms with code 60.
TEST_F(ModeSelectionTest, SilentClientTimesOutWith60AfterTwoSeconds) {
    const auto start = Clock::now();
    EXPECT_EQ(m_thread.SelectInitialMode(), 60);
    const auto waited = Clock::now() - start;
    EXPECT_GE(waited, 1900ms);
    EXPECT_LT(waited, 5s);
    EXPECT_EQ(Bridge("Connection : Timed out, nothing readable. CMode : 0, TMode : 0"), 1);
}

// A stop request during the wait ends it at the next round, with no error.
TEST_F(ModeSelectionTest, ExitRequestEndsTheWait) {
    std::thread stopper([&] {
        std::this_thread::sleep_for(100ms);
        m_thread.exit_requested = true;
    });
    const auto start = Clock::now();
    EXPECT_EQ(m_thread.SelectInitialMode(), 0);
    stopper.join();
    EXPECT_LT(Clock::now() - start, 1500ms);
    EXPECT_EQ(Bridge("Connection : Exit event set, exiting from SelectInitialMode ..."), 1);
    EXPECT_EQ(m_thread.CMode, 0);
}

// ---- upstream proxy ----------------------------------------------------------------------

// Proxies are recorded as IPv4 only: a proxy-form request on an IPv6 connection fails the
// selection, and the connection is closed by its caller.
TEST_F(ModeSelectionTest, ProxyFormOnIPv6FailsTheSelection) {
    SetDestination6(kDestination6, 8080);
    ClientHasSent("CONNECT a.example:443 HTTP/1.1\r\n\r\n");
    EXPECT_EQ(m_thread.SelectInitialMode(), -1);
    EXPECT_EQ(m_trace.Count(LISTEN, "Connection : Proxy inet_ntoa error"), 1);
    EXPECT_EQ(Bridge("Failed to set proxy"), 1);
    EXPECT_EQ(GetProxyInfo().proxy_host, "0.0.0.0");
}

// An origin-form request leaves a proxy that was seen in traffic alone; only a system proxy
// is looked at again (and, with no usable system proxy on this host, forgotten or reported).
TEST_F(ModeSelectionTest, OriginFormRechecksOnlyASystemProxy) {
    LOCAL_PROXY_INFO observed;
    observed.proxy_host = "198.18.0.9";
    observed.proxy_port = 8080;
    observed.proxy_type = PROXY_TYPE_OBSERVED;
    observed.proxy_state = PROXY_STATE_IN_USE;
    SetProxyInfo(observed);
    ClientHasSent("GET / HTTP/1.1\r\n\r\n");
    ASSERT_EQ(m_thread.SelectInitialMode(), 0);
    EXPECT_EQ(GetProxyInfo().proxy_host, "198.18.0.9");
    EXPECT_EQ(m_trace.Count(ERR, "Connection : Could not create public proxy instance"), 0);
    EXPECT_EQ(m_trace.Count(TRACE, "Connection : Proxy is removed"), 0);

    LOCAL_PROXY_INFO system = observed;
    system.proxy_host = "198.18.0.10";
    system.proxy_mode = ProxyModeSystem;
    system.proxy_state = PROXY_STATE_IN_USE;
    SetProxyInfo(system);
    NewConnection();
    ClientHasSent("GET / HTTP/1.1\r\n\r\n");
    ASSERT_EQ(m_thread.SelectInitialMode(), 0);
    const bool forgotten = GetProxyInfo().proxy_host == "0.0.0.0" &&
                           m_trace.Count(TRACE, "Connection : Proxy is removed") == 1;
    const bool reported =
        m_trace.Count(ERR, "Connection : Could not create public proxy instance") == 1;
    EXPECT_TRUE(forgotten || reported);
}

// ---- header block and Host ---------------------------------------------------------------

// A failed header read names what it had read; the peer's close is code 1.
TEST_F(ModeSelectionTest, HeaderBlockCutShortFailsWithWhatWasRead) {
    ClientSends("GET / HTTP/1.1\r\nHost: a\r\n");
    ASSERT_EQ(::shutdown(m_client.Get(), SHUT_WR), 0);
    EXPECT_EQ(m_thread.ReadHttpHeaders(), 1);
    EXPECT_EQ(m_trace.Count(ERR,
                            "Connection : Failed to read headers. (read 2 headers, 25 bytes). "
                            "Code : 1"),
              1);
}

class SetupHostTest : public ModeSelectionTest {
protected:
    // Reads `block` as the client's header block of an HTTP connection, then sets up m_host.
    std::string HostFor(const std::string& block) {
        NewConnection();
        m_thread.CMode = 2;
        ClientSends(block);
        EXPECT_EQ(m_thread.ReadHttpHeaders(), 0);
        m_thread.SetupHost();
        return m_thread.m_host;
    }
};

// The gateway is named the Host without its port, or the destination address without one.
TEST_F(SetupHostTest, HostWithoutPortOrTheDestinationAddress) {
    EXPECT_EQ(HostFor("GET / HTTP/1.1\r\nHost: a.example:8080\r\n\r\n"), "a.example");
    EXPECT_EQ(HostFor("GET / HTTP/1.1\r\nhost:  b.example \r\n\r\n"), "b.example");
    EXPECT_EQ(HostFor("GET / HTTP/1.1\r\nAccept: */*\r\n\r\n"), kDestination);
    EXPECT_EQ(HostFor("GET / HTTP/1.1\r\nHost:\r\n\r\n"), kDestination);
    // On an IPv4 connection an IPv6 literal is cut like any other value.
    EXPECT_EQ(HostFor("GET / HTTP/1.1\r\nHost: [2001:db8::5]:8080\r\n\r\n"), "[2001");
}

// On an IPv6 connection an IPv6 literal gives way to the destination address; names still
// lose their port.
TEST_F(SetupHostTest, IPv6LiteralOnAnIPv6ConnectionIsTheDestinationAddress) {
    const auto host6 = [&](const std::string& value) {
        NewConnection();
        SetDestination6(kDestination6, 80);
        m_thread.CMode = 2;
        ClientSends("GET / HTTP/1.1\r\nHost: " + value + "\r\n\r\n");
        EXPECT_EQ(m_thread.ReadHttpHeaders(), 0);
        m_thread.SetupHost();
        return m_thread.m_host;
    };
    EXPECT_EQ(host6("[2001:db8::5]:8080"), kDestination6);
    EXPECT_EQ(host6("[2001:db8::5]"), kDestination6);
    EXPECT_EQ(host6("2001:db8::5"), kDestination6);
    EXPECT_EQ(host6("a.example:8080"), "a.example");
}

// A TLS connection names the gateway an address, never a name.
TEST_F(SetupHostTest, TlsConnectionUsesTheDestinationAddress) {
    m_thread.CMode = 1;
    m_thread.SetupHost();
    EXPECT_EQ(m_thread.m_host, kDestination);
}

// ---- licence lines -----------------------------------------------------------------------

std::string ReadSample(const std::string& name) {
    std::ifstream in(std::string(SWG_SOURCE_DIR) + "/packaging/sample/" + name);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
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

    // The identity in the two lines behind the client's own, checked with the private key.
    LicenceIdentity Decoded() {
        EXPECT_EQ(m_headers.m_lines.size(), 4u);
        std::vector<std::string> values;
        for (auto line = std::next(m_headers.m_lines.begin(), 2); line != m_headers.m_lines.end();
             ++line) {
            EXPECT_GE(line->size(), 2u);
            EXPECT_EQ(line->substr(line->size() - 2), "\r\n");
            const std::size_t colon = line->find(": ");
            values.push_back(line->substr(colon + 2, line->size() - colon - 4));
        }
        LicenceIdentity identity;
        std::string error;
        EXPECT_TRUE(DecodeLicenceHeader(values.at(0), values.at(1),
                                        ReadSample("licence-test-private.pem"), identity, error))
            << error;
        return identity;
    }

    CSWGAgent::ORGINFO m_saved;
    CDnHttpHeaders m_headers{256};
};

// The two lines go behind the client's and carry the configured identity to the gateway.
TEST_F(LicenceLinesTest, AppendsTwoLinesThatDecodeToTheConfiguredIdentity) {
    ASSERT_TRUE(m_thread.ModifyHttpHeaders(&m_headers));
    EXPECT_EQ(m_headers.m_lines.front(), "GET / HTTP/1.1\r\n");
    EXPECT_EQ(m_headers.HeaderValue(kLicenceKeyIdHeader), "sample-key-1");
    const LicenceIdentity identity = Decoded();
    EXPECT_EQ(identity.strKeyId, "sample-key-1");
    EXPECT_EQ(identity.strOrgId, "org-4711");
    EXPECT_EQ(identity.strDeviceId, "device-9f1c");
    EXPECT_EQ(identity.strUserId, "Hjane.doe@corp.example");
    EXPECT_EQ(identity.strOverlayUser, "Hoverlay");
    // No outgoing connection yet: no interface to name, and the lines go without it.
    EXPECT_EQ(identity.strInterfaceAddress, "");
    EXPECT_EQ(m_trace.CountPrefix(WARN, "GetBestInterfaceName failed : "), 1);
}

// With an outgoing connection the lines name the local address it leaves from.
TEST_F(LicenceLinesTest, NamesTheLocalAddressOfTheOutgoingConnection) {
    swg_test::TcpPair outgoing = swg_test::MakeTcpPair(AF_INET);
    ASSERT_NE(outgoing.a.Get(), -1);
    m_thread.m_pExternalSocket = new CDnSocket(outgoing.a.Release());
    ASSERT_TRUE(m_thread.ModifyHttpHeaders(&m_headers));
    EXPECT_EQ(Decoded().strInterfaceAddress, "127.0.0.1");
}

// A key that cannot be used leaves the block as the client sent it.
TEST_F(LicenceLinesTest, BadKeyAppendsNothing) {
    CSWGAgent::ORGINFO org = g_pSWGAgent->GetOrgInfo();
    org.strpKeyPem = "-----BEGIN PUBLIC KEY-----\nnot a key\n-----END PUBLIC KEY-----\n";
    g_pSWGAgent->SetOrgInfo(org);
    EXPECT_FALSE(m_thread.ModifyHttpHeaders(&m_headers));
    EXPECT_EQ(m_headers.m_lines.size(), 2u);
    EXPECT_EQ(m_trace.CountPrefix(WARN, "Connection : Licence header not added for "), 1);
}

// ---- whole jobs ----------------------------------------------------------------------------

// Keeps the result of each job, which the event thread does not hand out.
class CJobThread : public CDnConnectionThread {
public:
    long ProcessEvent() override {
        const long result = CDnConnectionThread::ProcessEvent();
        m_result = result;
        return result;
    }
    std::atomic<long> m_result{-12345};
};

class ModeJobTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_thread.Initialize());
        ASSERT_EQ(m_thread.StartThread(), 0);
    }
    void TearDown() override {
        m_thread.Kill();
        m_thread.Wait();
        m_thread.Deinitialize();
        g_pSWGAgent->SetCaptivePortalMode(false);
    }

    // Starts a job whose client sends the record naming `destination`, then `bytes`.
    UniqueFd StartJob(const sockaddr_storage& destination, const std::string& bytes) {
        swg_test::TcpPair pair = swg_test::MakeTcpPair(AF_INET);
        EXPECT_NE(pair.a.Get(), -1);
        m_done.reset();
        EXPECT_EQ(m_thread.Start(m_done, new CDnSocket(pair.b.Release()), nullptr, false, true), 0);
        EXPECT_TRUE(
            swg_test::WriteAll(pair.a.Get(), swg_test::SessionRecordFor(destination) + bytes, 2s));
        return std::move(pair.a);
    }
    bool JobEnded(std::chrono::milliseconds limit) {
        return m_done.timed_wait(boost::posix_time::microsec_clock::universal_time() +
                                 boost::posix_time::milliseconds(limit.count()));
    }

    swg_test::RecordingTrace m_trace;
    CJobThread m_thread;
    boost_ext::condition_event m_done{false};
};

// The bytes read while sniffing go to the destination first, in order, with nothing added.
TEST_F(ModeJobTest, BypassedRequestReachesItsDestinationUnchanged) {
    swg_test::TestServer echo(swg_test::Endpoint("127.0.0.1", 0), swg_test::EchoHandler);
    const std::string request = "TRACE / HTTP/1.1\r\nHost: a\r\n\r\n";
    UniqueFd client = StartJob(echo.Address(), request);
    std::string echoed;
    ASSERT_TRUE(swg_test::ReadExactly(client.Get(), request.size(), echoed, 5s));
    EXPECT_EQ(echoed, request);
    client.Reset();
    ASSERT_TRUE(JobEnded(5s));
    EXPECT_EQ(m_thread.CMode, 0);
    EXPECT_EQ(m_thread.TMode, 0);
}

// An HTTP request in bypass (captive portal mode) is read as a block, written out, and the
// body that came with it follows from the line buffer, before anything sent later.
TEST_F(ModeJobTest, BodyBehindTheHeaderBlockFollowsTheBlock) {
    g_pSWGAgent->SetCaptivePortalMode(true);
    swg_test::TestServer echo(swg_test::Endpoint("127.0.0.1", 0), swg_test::EchoHandler);
    const std::string block =
        "POST /upload HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 16\r\n\r\n";
    UniqueFd client = StartJob(echo.Address(), block + "body-in-the-same");
    ASSERT_TRUE(echo.WaitForAccepted(1, 5s));
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), "+later", 1s));
    const std::string expected = block + "body-in-the-same+later";
    std::string echoed;
    ASSERT_TRUE(swg_test::ReadExactly(client.Get(), expected.size(), echoed, 5s));
    EXPECT_EQ(echoed, expected);
    client.Reset();
    ASSERT_TRUE(JobEnded(5s));
    EXPECT_EQ(m_thread.CMode, 2);
    EXPECT_EQ(m_thread.TMode, 0);
    EXPECT_EQ(m_thread.m_host, "127.0.0.1");
}

// A header block that never completes closes the client; nothing is connected for it.
TEST_F(ModeJobTest, HeaderBlockCutShortClosesTheClient) {
    swg_test::TestServer echo(swg_test::Endpoint("127.0.0.1", 0), swg_test::EchoHandler);
    UniqueFd client = StartJob(echo.Address(), "GET / HTTP/1.1\r\nHost: a\r\n");
    ASSERT_EQ(::shutdown(client.Get(), SHUT_WR), 0);
    ASSERT_TRUE(JobEnded(5s));
    EXPECT_EQ(m_thread.m_result, 1);
    EXPECT_EQ(m_trace.Count(ERR, "Connection : Failed to read http headers"), 1);
    EXPECT_EQ(echo.Accepted(), 0);
    std::string received;
    EXPECT_FALSE(swg_test::ReadExactly(client.Get(), 1, received, 1s));
}

}  // namespace
