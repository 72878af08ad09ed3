// SPDX-License-Identifier: Apache-2.0
// CWebClient against scripted HTTP servers on loopback port 0 (and port 80 in a namespace of its
// own).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/GlobalConst.h"
#include "foundation/GlobalUtils.h"
#include "netaware/WebClient.h"
#include "platform/SocketMark.h"
#include "proxy/VSocket.h"
#include "support/ScriptedHttpServer.h"
#include "support/SocketPeers.h"
#include "unit/foundation/ThreadTestSupport.h"

namespace {

using After = swg_test::ScriptedHttpServer::After;
using swg_test::ScriptedHttpServer;

// Gives tests the descriptor, to look at its socket options.
class InspectableWebClient : public CWebClient {
public:
    int Fd() const { return m_pSocket ? m_pSocket->GetSocket() : -1; }
};

struct Download {
    long result = -2;
    std::string headers = "stale";
    std::string body = "stale";
};

// Fetches `path` from the server as the probes do, over a connection to 127.0.0.1 on its port.
Download Fetch(const ScriptedHttpServer& server, const std::string& path, long timeout) {
    Download d;
    d.result = CWebClient::DownloadHTTPURL("http://127.0.0.1/" + path, false, "", server.Port(),
                                           d.headers, d.body, timeout, AF_INET);
    return d;
}

// A port on loopback that nothing listens on.
uint16_t ClosedPort() {
    swg_test::LoopbackListener listener = swg_test::ListenOnLoopback(AF_INET, 1);
    const auto* in4 = reinterpret_cast<const sockaddr_in*>(&listener.address);
    return ntohs(in4->sin_port);
}

class WebClientTest : public ::testing::Test {
protected:
    swg_test::RecordingTrace m_trace;
};

// The request must be exactly the one-shot GET the probes rely on, and the reply split at the
// empty line with nothing of the body in the headers.
TEST_F(WebClientTest, DownloadSendsOriginFormGetAndSplitsHeadersFromBody) {
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nX-Probe: yes\r\n\r\n";
    ScriptedHttpServer server(AF_INET, head + "hello", After::Close);
    ASSERT_TRUE(server.Ok());

    const Download d = Fetch(server, "probe/index.html?x=1", 2);
    EXPECT_EQ(d.result, 0);
    EXPECT_EQ(d.headers, head);
    EXPECT_EQ(d.body, "hello");
    EXPECT_EQ(server.Request(),
              "GET /probe/index.html?x=1 HTTP/1.1\r\nHost: 127.0.0.1\r\n"
              "Connection: close\r\n\r\n");
    EXPECT_EQ(m_trace.Count(TRACE, "WebClient : Set the timeout for receive socket"), 1);
    EXPECT_EQ(m_trace.Count(THREAD, "WebClient : Connected to IPv4 socket"), 1);
}

struct StatusCase {
    const char* reply;
    int status;
    const char* body;
};

class WebClientStatusTest : public WebClientTest,
                            public ::testing::WithParamInterface<StatusCase> {};

// Any status is a successful fetch: the caller reads the status itself, and no redirect is
// followed (the server takes one connection and no other arrives).
TEST_P(WebClientStatusTest, AnyStatusIsReturnedAsReceivedWithoutFollowing) {
    ScriptedHttpServer server(AF_INET, GetParam().reply, After::Close);
    ASSERT_TRUE(server.Ok());
    const Download d = Fetch(server, "generate_204", 2);
    EXPECT_EQ(d.result, 0);
    EXPECT_EQ(GetStatusCodeFromHTTPHeader(d.headers.c_str(), static_cast<int>(d.headers.size())),
              GetParam().status);
    EXPECT_EQ(d.body, GetParam().body);
    (void)server.Request();
    EXPECT_FALSE(server.HasPendingConnection());
}

INSTANTIATE_TEST_SUITE_P(
    Replies, WebClientStatusTest,
    ::testing::Values(StatusCase{"HTTP/1.1 204 No Content\r\n\r\n", 204, ""},
                      StatusCase{"HTTP/1.1 302 Found\r\nLocation: http://portal.example/login\r\n"
                                 "Content-Length: 0\r\n\r\n",
                                 302, ""},
                      StatusCase{"HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\n\r\nnot found",
                                 404, "not found"},
                      StatusCase{"HTTP/1.0 500 Internal Server Error\r\n\r\noops", 500, "oops"}));

// A chunked body is handed over as it came, chunk sizes included.
TEST_F(WebClientTest, ChunkedBodyIsNotDecoded) {
    const std::string chunked = "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n";
    ScriptedHttpServer server(
        AF_INET, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked, After::Close);
    const Download d = Fetch(server, "", 2);
    EXPECT_EQ(d.result, 0);
    EXPECT_EQ(d.body, chunked);
}

// A body without a length ends at the close, however many reads it takes.
TEST_F(WebClientTest, CloseDelimitedBodyIsReadToTheEnd) {
    const std::string body = swg_test::PatternBytes(200000, 3);
    ScriptedHttpServer server(AF_INET, "HTTP/1.0 200 OK\r\n\r\n" + body, After::Close);
    const Download d = Fetch(server, "big", 5);
    EXPECT_EQ(d.result, 0);
    EXPECT_EQ(d.headers, "HTTP/1.0 200 OK\r\n\r\n");
    EXPECT_TRUE(d.body == body) << d.body.size() << " bytes";
}

// Servers that end lines with a bare newline must be read the same way.
TEST_F(WebClientTest, BareNewlineHeadersEndAtTheEmptyLine) {
    ScriptedHttpServer server(AF_INET, "HTTP/1.1 200 OK\nX-A: b\n\nbody\n", After::Close);
    const Download d = Fetch(server, "", 2);
    EXPECT_EQ(d.result, 0);
    EXPECT_EQ(d.headers, "HTTP/1.1 200 OK\nX-A: b\n\n");
    EXPECT_EQ(d.body, "body\n");
}

// A server that closes during the headers gives success with what it sent; one that closes
// at once gives success with nothing.
TEST_F(WebClientTest, EarlyCloseIsSuccessWithWhatCame) {
    ScriptedHttpServer partial(AF_INET, "HTTP/1.1 200 OK\r\nX-Cut", After::Close);
    Download d = Fetch(partial, "", 2);
    EXPECT_EQ(d.result, 0);
    EXPECT_EQ(d.headers, "HTTP/1.1 200 OK\r\nX-Cut");
    EXPECT_EQ(d.body, "");

    ScriptedHttpServer silent(AF_INET, "", After::Close);
    d = Fetch(silent, "", 2);
    EXPECT_EQ(d.result, 0);
    EXPECT_EQ(d.headers, "");
    EXPECT_EQ(d.body, "");
}

// A stalled body is a failure even though the headers came: a probe must not take a
// half-loaded portal page for an answer.
TEST_F(WebClientTest, ReceiveTimeoutDuringBodyFails) {
    ScriptedHttpServer server(AF_INET, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart",
                              After::WaitForClientClose);
    const Download d = Fetch(server, "", 1);
    EXPECT_EQ(d.result, -1);
    EXPECT_EQ(d.headers, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n");
    EXPECT_EQ(m_trace.Count(ERR, "WebClient : Failed to Receive Data"), 1);
}

// A server that accepts and never answers must not hold the probe beyond its timeout.
TEST_F(WebClientTest, ReceiveTimeoutDuringHeadersFails) {
    ScriptedHttpServer server(AF_INET, "", After::WaitForClientClose);
    const Download d = Fetch(server, "", 1);
    EXPECT_EQ(d.result, -1);
    EXPECT_EQ(m_trace.Count(ERR, "WebClient : Failed to Receive Headers"), 1);
}

// A blocking connect reports the refusal itself; a timed connect counts a socket that turns
// writable as connected, so the refusal shows when the request is sent.
TEST_F(WebClientTest, RefusedConnectionFailsAtConnectOrAtSend) {
    const uint16_t port = ClosedPort();
    std::string headers;
    std::string body;
    EXPECT_EQ(CWebClient::DownloadHTTPURL("http://127.0.0.1/", false, "", port, headers, body, -1,
                                          AF_INET),
              ECONNREFUSED);
    EXPECT_EQ(
        m_trace.Count(ERR, "WebClient : Failed to Connect. Error: " + std::to_string(ECONNREFUSED)),
        1);

    EXPECT_EQ(CWebClient::DownloadHTTPURL("http://127.0.0.1/", false, "", port, headers, body, 2,
                                          AF_INET),
              -1);
    EXPECT_EQ(m_trace.Count(ERR, "WebClient : Failed to Send Request Header"), 1);
}

// A peer that never completes the handshake must end the connect after the timeout with the
// agent's own timeout code. The listener's accept queue is filled, so its SYNs are dropped.
TEST_F(WebClientTest, ConnectTimesOutWhenHandshakeNeverCompletes) {
    swg_test::LoopbackListener listener = swg_test::ListenOnLoopback(AF_INET, 0);
    ASSERT_NE(listener.fd.Get(), -1);
    std::vector<swg_test::UniqueFd> fillers;
    for (int i = 0; i < 3; ++i) {
        fillers.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        (void)::connect(fillers.back().Get(), reinterpret_cast<sockaddr*>(&listener.address),
                        listener.length);
    }
    const uint16_t port = ntohs(reinterpret_cast<sockaddr_in*>(&listener.address)->sin_port);
    std::string headers;
    std::string body;
    EXPECT_EQ(CWebClient::DownloadHTTPURL("http://127.0.0.1/", false, "", port, headers, body, 1,
                                          AF_INET),
              SWG_SOCKET_TIMEOUT);
    EXPECT_EQ(m_trace.Count(ERR, "WebClient : Failed to Connect. Error: 60"), 1);
}

// Through an explicit peer the request line carries the whole URL, and the Host header the
// URL's host, not the peer's.
TEST_F(WebClientTest, ExplicitPeerGetsProxyFormRequest) {
    ScriptedHttpServer server(AF_INET, "HTTP/1.1 200 OK\r\n\r\n", After::Close);
    std::string headers;
    std::string body;
    EXPECT_EQ(CWebClient::DownloadHTTPURL("http://origin.example/a/b", true, "127.0.0.1",
                                          server.Port(), headers, body, 2, AF_INET),
              0);
    EXPECT_EQ(server.Request(),
              "GET http://origin.example/a/b HTTP/1.1\r\nHost: origin.example\r\n"
              "Connection: close\r\n\r\n");
}

// A URL without a path after the host cannot be fetched and says why.
TEST_F(WebClientTest, UnparsableUrlIsRefusedBeforeConnecting) {
    std::string headers;
    std::string body;
    EXPECT_EQ(CWebClient::DownloadHTTPURL("http://127.0.0.1", headers, body, 1, AF_INET),
              SWG_E_HTTP_BAD_URL);
    EXPECT_EQ(m_trace.Count(ERR, "Failed to parse URL http://127.0.0.1"), 1);
}

// Host names go through the system resolver (here /etc/hosts), literals do not; bad input
// is refused before any socket is made.
TEST_F(WebClientTest, ConnectByNameLiteralAndAddress) {
    {
        ScriptedHttpServer server(AF_INET, "", After::Close);
        CWebClient client;
        EXPECT_EQ(client.Connect("localhost", server.Port(), 2, AF_INET), 0);
    }
    {
        ScriptedHttpServer server(AF_INET6, "", After::Close);
        ASSERT_TRUE(server.Ok());
        CWebClient client;
        EXPECT_EQ(client.Connect("::1", server.Port(), 2, AF_INET6), 0);
        EXPECT_EQ(m_trace.Count(THREAD, "WebClient : Connected to IPv6 socket"), 1);
    }
    {
        ScriptedHttpServer server(AF_INET, "", After::Close);
        CWebClient client;
        EXPECT_EQ(
            client.Connect(static_cast<unsigned long>(::inet_addr("127.0.0.1")), server.Port(), 2),
            0);
    }
    CWebClient client;
    EXPECT_EQ(client.Connect(nullptr, 80, 2, AF_INET), SWG_E_INVALIDARG);
    EXPECT_EQ(client.Connect("127.0.0.1", 0, 2, AF_INET), SWG_E_INVALIDARG);
    EXPECT_EQ(client.Connect("127.0.0.1", 80, 2, AF_INET6), SWG_E_FAIL);
    EXPECT_EQ(m_trace.Count(ERR, "WebClient : Not in presentation format"), 1);
}

// Without the mark the agent's own diversion would take the probe back into the agent.
TEST_F(WebClientTest, EverySocketCarriesTheAgentMark) {
    if (::geteuid() != 0) GTEST_SKIP() << "setting SO_MARK needs CAP_NET_ADMIN";
    ScriptedHttpServer server(AF_INET, "", After::WaitForClientClose);
    InspectableWebClient client;
    ASSERT_EQ(client.Connect("127.0.0.1", server.Port(), 2, AF_INET), 0);
    uint32_t mark = 0;
    socklen_t length = sizeof mark;
    ASSERT_EQ(::getsockopt(client.Fd(), SOL_SOCKET, SO_MARK, &mark, &length), 0);
    EXPECT_EQ(mark, SWG_SOCKET_MARK);
    int noDelay = 0;
    length = sizeof noDelay;
    ASSERT_EQ(::getsockopt(client.Fd(), IPPROTO_TCP, TCP_NODELAY, &noDelay, &length), 0);
    EXPECT_NE(noDelay, 0);
    client.Disconnect();
    EXPECT_EQ(client.Fd(), -1);
}

// The header lines each method type writes, as the peer receives them.
TEST_F(WebClientTest, SendHeaderWritesEachTypeAndTerminates) {
    ScriptedHttpServer server(AF_INET, "line one\r\nline two\n", After::Close);
    CWebClient client;
    ASSERT_EQ(client.Connect("127.0.0.1", server.Port(), 2, AF_INET), 0);
    EXPECT_EQ(client.SendHeader(HTTP_METHOD_GET, "index.html", false), 26);
    EXPECT_GT(client.SendHeader(HTTP_METHOD_CONNECT, "a.example:443", false), 0);
    EXPECT_GT(client.SendHeader(HTTP_METHOD_HOST, "a.example", false), 0);
    EXPECT_GT(client.SendHeader(HTTP_METHOD_IF_NONE_MATCH, "\"e1\"", true), 0);
    EXPECT_EQ(client.SendHeader(static_cast<eHTTP_METHOD_TYPE>(5), "x", true), SWG_E_INVALIDARG);
    EXPECT_EQ(server.Request(),
              "GET /index.html HTTP/1.1\r\nCONNECT: a.example:443 HTTP/1.1\r\n"
              "Host: a.example\r\nIf-None-Match: \"e1\"\r\n\r\n");

    std::string line;
    EXPECT_EQ(client.ReceiveLine(line), 0);
    EXPECT_EQ(line, "line one\r\n");
    EXPECT_EQ(client.ReceiveLine(line), 0);
    EXPECT_EQ(line, "line two\n");
    EXPECT_EQ(client.ReceiveLine(line), 1);  // the server closed
}

// Every send and receive without a connection fails the same way, with one log line each.
TEST_F(WebClientTest, OperationsWithoutSocketFail) {
    CWebClient client;
    std::string text;
    char buffer[8];
    int value = 1;
    EXPECT_EQ(client.SendHeader("x", true), -1);
    EXPECT_EQ(client.SendData("x", 1), -1);
    EXPECT_EQ(client.ReceiveLine(text), -1);
    EXPECT_EQ(client.ReceiveHeaders(text), -1);
    EXPECT_EQ(client.ReceiveData(buffer, sizeof buffer), -1);
    EXPECT_EQ(m_trace.Count(ERR, "Socket was not initialized"), 5);
    EXPECT_EQ(client.SetOptions(SO_RCVTIMEO, &value, sizeof value), SWG_E_INVALIDARG);
    client.Disconnect();  // nothing to do, nothing to crash on
}

// Header lookup on CONNECT replies and portal redirects: any case in, lower case out; the
// name must start the line; a line with nothing behind the name is passed over.
TEST(WebClientHeaderValueTest, FindsHeaderInAnyCaseAndGivesLowerCaseValue) {
    const std::string reply =
        "HTTP/1.1 302 Found\r\n"
        "Content-Location: http://wrong.example/\r\n"
        "LOCATION:   http://Portal.Example/Login?A=1 \t\r\n"
        "Location: http://second.example/\r\n"
        "\r\n";
    EXPECT_EQ(CWebClient::GetHeaderValue(reply, "location:"), "http://portal.example/login?a=1");
    EXPECT_EQ(CWebClient::GetHeaderValue(reply, "content-location:"), "http://wrong.example/");
    EXPECT_EQ(CWebClient::GetHeaderValue(reply, "via:"), "");
    EXPECT_EQ(CWebClient::GetHeaderValue("", "via:"), "");

    EXPECT_EQ(CWebClient::GetHeaderValue("HTTP/1.1 200 OK\nVia:\nVia: 1.1 S_Proxy_01\n", "via:"),
              "1.1 s_proxy_01");
    EXPECT_EQ(CWebClient::GetHeaderValue("Via: 1.1 e_proxy_2", "via:"), "1.1 e_proxy_2");
}

// Runs `body` on a thread of its own inside a new network namespace with only loopback, up.
// Returns why that could not be done, or "" when `body` ran.
std::string RunInOwnNetworkNamespace(const std::function<void()>& body) {
    if (::geteuid() != 0) return "needs root for a network namespace";
    std::string failure;
    std::thread inNamespace([&] {
        // Only this thread enters the new namespace; the test's other threads stay out.
        if (::unshare(CLONE_NEWNET) != 0) {
            failure = std::string("unshare: ") + std::strerror(errno);
            return;
        }
        swg_test::UniqueFd control(::socket(AF_INET, SOCK_DGRAM, 0));
        ifreq lo{};
        std::strncpy(lo.ifr_name, "lo", IFNAMSIZ - 1);
        if (::ioctl(control.Get(), SIOCGIFFLAGS, &lo) != 0) {
            failure = "cannot read the flags of lo";
            return;
        }
        lo.ifr_flags = static_cast<short>(lo.ifr_flags | IFF_UP);
        if (::ioctl(control.Get(), SIOCSIFFLAGS, &lo) != 0) {
            failure = "cannot bring lo up";
            return;
        }
        body();
    });
    inNamespace.join();
    return failure;
}

// The short form goes to port 80 of the URL's host. Port 80 on loopback is shared with the
// rest of the machine, so the server lives in a network namespace of this test's own.
TEST(WebClientNamespaceTest, ShortFormFetchesFromPort80OfTheUrlHost) {
    Download d;
    std::string request;
    bool listening = false;
    const std::string skip = RunInOwnNetworkNamespace([&] {
        swg_test::UniqueFd listener(::socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(80);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener.Get(), 4) != 0)
            return;
        listening = true;
        ScriptedHttpServer server(std::move(listener), "HTTP/1.1 204 No Content\r\n\r\n",
                                  After::Close);
        d.result = CWebClient::DownloadHTTPURL("http://127.0.0.1/generate_204", d.headers, d.body,
                                               2, AF_INET);
        request = server.Request();
    });
    if (!skip.empty()) GTEST_SKIP() << skip;
    ASSERT_TRUE(listening);
    EXPECT_EQ(d.result, 0);
    EXPECT_EQ(d.headers, "HTTP/1.1 204 No Content\r\n\r\n");
    EXPECT_EQ(request,
              "GET /generate_204 HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
}

// A name the resolver cannot answer fails the connect with the resolver's reason. The
// namespace has no route out, so the query never leaves this host.
TEST(WebClientNamespaceTest, UnresolvableNameFailsBeforeAnySocket) {
    long result = 0;
    const std::string skip = RunInOwnNetworkNamespace([&] {
        CWebClient client;
        result = client.Connect("no-such-host.invalid", 80, 1, AF_INET);
        EXPECT_EQ(client.ReceiveData(nullptr, 0), -1);  // no socket was kept
    });
    if (!skip.empty()) GTEST_SKIP() << skip;
    EXPECT_NE(result, 0);
    EXPECT_NE(result, SWG_E_POINTER);
}

}  // namespace
