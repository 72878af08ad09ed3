// SPDX-License-Identifier: Apache-2.0
// CWebClient against scripted HTTP servers on loopback (port 80 only in a namespace of its own).
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>

#include "foundation/GlobalConst.h"
#include "netaware/WebClient.h"
#include "platform/SocketMark.h"
#include "proxy/VSocket.h"
#include "support/NetnsScope.h"
#include "support/ScriptedHttpServer.h"
#include "support/SocketPeers.h"
#include "support/TestServers.h"

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

// The long form, as the probes call it, to 127.0.0.1 on the server's port.
Download Fetch(const ScriptedHttpServer& server, const std::string& url, long timeout,
               bool explicitPeer = false) {
    Download d;
    d.result = CWebClient::DownloadHTTPURL(url, explicitPeer, "127.0.0.1", server.Port(), d.headers,
                                           d.body, timeout, AF_INET);
    return d;
}

// A request other than the one-shot GET, or a reply split anywhere but at the empty line.
TEST(WebClientTest, SendsOneShotGetInOriginOrProxyForm) {
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nX-Probe: yes\r\n\r\n";
    ScriptedHttpServer origin(AF_INET, head + "hello", After::Close);
    ASSERT_TRUE(origin.Ok());
    const Download d = Fetch(origin, "http://127.0.0.1/probe/index.html?x=1", 2);
    EXPECT_EQ(d.result, 0);
    EXPECT_EQ(d.headers, head);
    EXPECT_EQ(d.body, "hello");
    EXPECT_EQ(origin.Request(),
              "GET /probe/index.html?x=1 HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");

    // Through an explicit peer the request line carries the whole URL, Host the URL's host.
    ScriptedHttpServer proxy(AF_INET, "HTTP/1.1 200 OK\r\n\r\n", After::Close);
    EXPECT_EQ(Fetch(proxy, "http://origin.example/a/b", 2, true).result, 0);
    EXPECT_EQ(proxy.Request(),
              "GET http://origin.example/a/b HTTP/1.1\r\nHost: origin.example\r\n"
              "Connection: close\r\n\r\n");
}

// A status taken for a failure, a body cut at Content-Length or decoded, a close-delimited
// body cut short, a timeout taken for an answer, or an early close taken for an error.
TEST(WebClientTest, RepliesComeBackAsReceived) {
    const std::string big = swg_test::PatternBytes(200000, 3);
    const std::string chunked = "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n";
    const struct {
        const char* name;
        std::string reply;
        After after;
        long result;
        std::string headers;
        std::string body;
    } cases[] = {
        {"204", "HTTP/1.1 204 No Content\r\n\r\n", After::Close, 0,
         "HTTP/1.1 204 No Content\r\n\r\n", ""},
        {"302 not followed", "HTTP/1.1 302 Found\r\nLocation: http://a.example/\r\n\r\n",
         After::Close, 0, "HTTP/1.1 302 Found\r\nLocation: http://a.example/\r\n\r\n", ""},
        {"404 with length", "HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\n\r\nnot found",
         After::Close, 0, "HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\n\r\n", "not found"},
        {"close-delimited", "HTTP/1.0 500 Oops\r\n\r\n" + big, After::Close, 0,
         "HTTP/1.0 500 Oops\r\n\r\n", big},
        {"chunked kept", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked,
         After::Close, 0, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", chunked},
        {"bare newlines", "HTTP/1.1 200 OK\nX-A: b\n\nbody\n", After::Close, 0,
         "HTTP/1.1 200 OK\nX-A: b\n\n", "body\n"},
        {"closed in headers", "HTTP/1.1 200 OK\r\nX-Cut", After::Close, 0,
         "HTTP/1.1 200 OK\r\nX-Cut", ""},
        {"closed at once", "", After::Close, 0, "", ""},
        // A half-loaded portal page must not pass for an answer.
        {"stalled body", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart",
         After::WaitForClientClose, -1, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n", "part"},
        {"silent server", "", After::WaitForClientClose, -1, "", "stale"},
        // A portal must not be able to make the probe hold without bound what it streams.
        {"body past the limit", "HTTP/1.1 200 OK\r\n\r\n" + big + big, After::WaitForClientClose, 0,
         "HTTP/1.1 200 OK\r\n\r\n", (big + big).substr(0, CWebClient::kBodyLimit)},
        {"headers past the limit", "HTTP/1.1 200 OK\r\nX: " + std::string(big.size(), 'x'),
         After::WaitForClientClose, -1,
         ("HTTP/1.1 200 OK\r\nX: " + std::string(big.size(), 'x'))
             .substr(0, CWebClient::kHeaderLimit),
         "stale"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedHttpServer server(AF_INET, c.reply, c.after);
        ASSERT_TRUE(server.Ok());
        const Download d = Fetch(server, "http://127.0.0.1/generate_204", 1);
        EXPECT_EQ(d.result, c.result);
        EXPECT_EQ(d.headers, c.headers);
        EXPECT_TRUE(d.body == c.body) << d.body.size() << " bytes";
    }
}

// A peer that drips its body a byte at a time passes every per-read timeout; the answer as a
// whole must still end at the timeout.
TEST(WebClientTest, DrippingAnswerEndsAtTheTimeout) {
    swg_test::TestServer peer(swg_test::Endpoint("127.0.0.1", 0), [](int fd) {
        (void)swg_test::ReadToEnd(fd, std::chrono::milliseconds(200));
        bool open = swg_test::WriteAll(fd, "HTTP/1.1 200 OK\r\n\r\n", std::chrono::seconds(1));
        for (int i = 0; open && i < 200; ++i) {  // 10 s at most
            open = swg_test::WriteAll(fd, "x", std::chrono::seconds(1)) &&
                   !swg_test::WaitReadable(fd, std::chrono::milliseconds(50));
        }
    });
    Download d;
    d.result = CWebClient::DownloadHTTPURL("http://127.0.0.1/e", false, "",
                                           swg_test::EndpointPort(peer.Address()), d.headers,
                                           d.body, 1, AF_INET);
    EXPECT_EQ(d.result, -1);
    EXPECT_EQ(d.headers, "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_LT(d.body.size(), 40u);  // about 20 bytes in the second allowed
}

// Connect failures and bad input must come back as codes, never as a fetch that succeeded.
TEST(WebClientTest, FailuresBeforeTheRequestReturnTheirCode) {
    swg_test::LoopbackListener closed = swg_test::ListenOnLoopback(AF_INET, 1);
    const uint16_t port = ntohs(reinterpret_cast<sockaddr_in&>(closed.address).sin_port);
    closed.fd.Reset();
    std::string headers;
    std::string body;
    EXPECT_EQ(CWebClient::DownloadHTTPURL("http://127.0.0.1/", false, "", port, headers, body, -1,
                                          AF_INET),
              ECONNREFUSED);
    EXPECT_EQ(CWebClient::DownloadHTTPURL("http://127.0.0.1", headers, body, 1, AF_INET),
              SWG_E_HTTP_BAD_URL);

    CWebClient client;
    EXPECT_EQ(client.Connect(nullptr, 80, 2, AF_INET), SWG_E_INVALIDARG);
    EXPECT_EQ(client.Connect("127.0.0.1", 80, 2, AF_INET6), SWG_E_FAIL);
}

// Without the mark the agent's own diversion would take the probe back into the agent.
TEST(WebClientTest, EverySocketCarriesTheAgentMark) {
    if (::geteuid() != 0) GTEST_SKIP() << "setting SO_MARK needs CAP_NET_ADMIN";
    ScriptedHttpServer server(AF_INET, "", After::WaitForClientClose);
    InspectableWebClient client;
    ASSERT_EQ(client.Connect("localhost", server.Port(), 2, AF_INET), 0);
    uint32_t mark = 0;
    socklen_t length = sizeof mark;
    ASSERT_EQ(::getsockopt(client.Fd(), SOL_SOCKET, SO_MARK, &mark, &length), 0);
    EXPECT_EQ(mark, SWG_SOCKET_MARK);
    client.Disconnect();
}

// Header lookup on CONNECT replies and portal redirects: any case in, lower case out, the name
// must start the line, and a line with nothing behind the name is passed over.
TEST(WebClientTest, GetHeaderValueFindsTheNameInAnyCase) {
    const std::string reply =
        "HTTP/1.1 302 Found\r\nContent-Location: http://wrong.example/\r\n"
        "LOCATION:   http://Portal.Example/Login?A=1 \t\r\nLocation: "
        "http://second.example/\r\n\r\n";
    EXPECT_EQ(CWebClient::GetHeaderValue(reply, "location:"), "http://portal.example/login?a=1");
    EXPECT_EQ(CWebClient::GetHeaderValue(reply, "via:"), "");
    EXPECT_EQ(CWebClient::GetHeaderValue("HTTP/1.1 200 OK\nVia:\nVia: 1.1 S_Proxy_01\n", "via:"),
              "1.1 s_proxy_01");
}

// Runs `body` on a thread of its own inside a new network namespace with only loopback, up.
// Returns why that could not be done, or "" when `body` ran.
std::string RunInOwnNetworkNamespace(const std::function<void()>& body) {
    if (::geteuid() != 0) return "needs root for a network namespace";
    std::string failure;
    std::thread inNamespace([&] {  // the test's other threads stay where they are
        const swg_test::NetnsScope scope;
        if (!scope.Entered() || !scope.Run("ip link set lo up")) {
            failure = scope.Entered() ? "cannot bring lo up" : scope.Why();
            return;
        }
        body();
    });
    inNamespace.join();
    return failure;
}

// The short form must go to port 80 of the URL's host, and a name nobody can resolve must fail.
// Port 80 on loopback is shared with the machine, so the server lives in a namespace of its own,
// which also has no route out for the name query.
TEST(WebClientTest, ShortFormFetchesFromPort80OfTheUrlHost) {
    Download d;
    std::string request;
    long unresolved = 0;
    const std::string skip = RunInOwnNetworkNamespace([&] {
        swg_test::UniqueFd listener(::socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(80);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(::bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(::listen(listener.Get(), 4), 0);
        ScriptedHttpServer server(std::move(listener), "HTTP/1.1 204 No Content\r\n\r\n",
                                  After::Close);
        d.result = CWebClient::DownloadHTTPURL("http://127.0.0.1/generate_204", d.headers, d.body,
                                               2, AF_INET);
        request = server.Request();
        CWebClient client;
        unresolved = client.Connect("no-such-host.invalid", 80, 1, AF_INET);
    });
    if (!skip.empty()) GTEST_SKIP() << skip;
    EXPECT_EQ(d.result, 0);
    EXPECT_EQ(d.headers, "HTTP/1.1 204 No Content\r\n\r\n");
    EXPECT_EQ(request,
              "GET /generate_204 HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    EXPECT_NE(unresolved, 0);
}

}  // namespace
