// SPDX-License-Identifier: Apache-2.0
// swg-test-gateway as tests see it: tunnels, forwarding, licence log lines, fault modes, stop.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "support/GatewayProcess.h"
#include "support/SocketPeers.h"
#include "upstream/LicenceHeader.h"

namespace {

using namespace std::chrono_literals;
using swg_test::UniqueFd;

const std::string kGatewayBinary =
    std::string(SWG_BINARY_DIR) + "/tools/test-gateway/swg-test-gateway";
const std::string kPrivateKey =
    std::string(SWG_SOURCE_DIR) + "/packaging/sample/licence-test-private.pem";
const std::string kPublicKey =
    std::string(SWG_SOURCE_DIR) + "/packaging/sample/licence-test-public.pem";
const std::string kConnected = "HTTP/1.1 200 Connection established\r\n";
const std::string kVia = "Via: 1.1 s_proxy_test-gw\r\n";

unsigned short PortOf(const swg_test::LoopbackListener& listener) {
    const auto& address = listener.address;
    return ntohs(address.ss_family == AF_INET6
                     ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                     : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

UniqueFd ConnectTcp(int family, unsigned short port) {
    UniqueFd fd(socket(family, SOCK_STREAM, 0));
    sockaddr_storage address{};
    socklen_t length = 0;
    if (family == AF_INET6) {
        auto& v6 = reinterpret_cast<sockaddr_in6&>(address);
        v6.sin6_family = AF_INET6;
        v6.sin6_addr = in6addr_loopback;
        v6.sin6_port = htons(port);
        length = sizeof(v6);
    } else {
        auto& v4 = reinterpret_cast<sockaddr_in&>(address);
        v4.sin_family = AF_INET;
        v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        v4.sin_port = htons(port);
        length = sizeof(v4);
    }
    if (connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0) fd.Reset();
    return fd;
}

// How a read to the end of a connection finished.
enum class Ending { Closed, Reset, Timeout };

// Reads until the peer closes, resets, or `timeout` passes; what came is in `out`.
Ending ReadToEnd(int fd, std::string& out, std::chrono::milliseconds timeout = 5s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    out.clear();
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !swg_test::WaitReadable(fd, left)) return Ending::Timeout;
        char buffer[4096];
        const ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
        if (got == 0) return Ending::Closed;
        if (got < 0) return errno == ECONNRESET ? Ending::Reset : Ending::Timeout;
        out.append(buffer, static_cast<std::size_t>(got));
    }
}

// Echoes every connection it accepts, one at a time, until destroyed.
class CEchoServer {
public:
    explicit CEchoServer(int family) : m_listener(swg_test::ListenOnLoopback(family, 8)) {
        if (m_listener.fd.Get() >= 0) m_thread = std::thread(&CEchoServer::Serve, this);
    }
    ~CEchoServer() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
    }
    bool Ok() const { return m_listener.fd.Get() >= 0; }
    unsigned short Port() const { return PortOf(m_listener); }

private:
    void Serve() {
        while (!m_stop) {
            if (!swg_test::WaitReadable(m_listener.fd.Get(), 50ms)) continue;
            UniqueFd peer(accept(m_listener.fd.Get(), nullptr, nullptr));
            while (!m_stop && peer.Get() >= 0) {
                if (!swg_test::WaitReadable(peer.Get(), 50ms)) continue;
                char buffer[8192];
                const ssize_t got = recv(peer.Get(), buffer, sizeof(buffer), 0);
                if (got <= 0 ||
                    !swg_test::WriteAll(peer.Get(),
                                        std::string(buffer, static_cast<std::size_t>(got)), 5s)) {
                    break;
                }
            }
        }
    }

    swg_test::LoopbackListener m_listener;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// Accepts one connection, hands over the header block it received and answers with "ok".
class COriginServer {
public:
    COriginServer() : m_listener(swg_test::ListenOnLoopback(AF_INET, 1)) {
        m_thread = std::thread([this] {
            std::string block;
            if (swg_test::WaitReadable(m_listener.fd.Get(), 5s)) {
                UniqueFd peer(accept(m_listener.fd.Get(), nullptr, nullptr));
                std::string byte;
                while (block.find("\r\n\r\n") == std::string::npos &&
                       swg_test::ReadExactly(peer.Get(), 1, byte, 5s)) {
                    block += byte;
                }
                swg_test::WriteAll(peer.Get(), "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok",
                                   5s);
            }
            m_block.set_value(block);
        });
    }
    ~COriginServer() { m_thread.join(); }
    unsigned short Port() const { return PortOf(m_listener); }
    std::string Received() {
        auto future = m_block.get_future();
        return future.wait_for(10s) == std::future_status::ready ? future.get() : "";
    }

private:
    swg_test::LoopbackListener m_listener;
    std::promise<std::string> m_block;
    std::thread m_thread;
};

class TestGatewayTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/swg-test-gateway-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_dir = pattern;
        m_org.strOrgId = "org-4711";
        m_org.strDeviceId = "device-9f1c";
        m_org.strPstrUserId = "Hjane doe@corp.example";
        m_org.strOverlayUser = "Hoverlay";
        m_org.strpKeyId = "sample-key-1";
        m_org.strpKeyPem = swg_test::ReadTextFile(kPublicKey);
    }
    void TearDown() override {
        m_gateway.Stop(SIGKILL, 5s);
        std::filesystem::remove_all(m_dir);
    }

    // Starts the gateway on an IPv4 loopback port with the sample key and `extra` flags.
    void StartGateway(std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {
            "--listen", "127.0.0.1:0",       "--log", LogPath(), "--timeout",
            "3000",     "--max-connections", "4"};
        args.insert(args.end(), extra.begin(), extra.end());
        std::string error;
        ASSERT_TRUE(m_gateway.Start(kGatewayBinary, args, OutputPath(), 10s, error)) << error;
        ASSERT_FALSE(m_gateway.Addresses().empty());
    }
    std::string LogPath() const { return m_dir + "/gateway.log"; }
    std::string OutputPath() const { return m_dir + "/stdout.txt"; }

    UniqueFd Client(std::size_t listener = 0) {
        UniqueFd fd = ConnectTcp(AF_INET, m_gateway.Port(listener));
        EXPECT_GE(fd.Get(), 0) << "cannot connect to the gateway";
        return fd;
    }
    // Sends `request`; returns the reply up to the close.
    std::string Exchange(const std::string& request, Ending expected = Ending::Closed) {
        UniqueFd client = Client();
        EXPECT_TRUE(swg_test::WriteAll(client.Get(), request, 5s));
        std::string reply;
        EXPECT_EQ(ReadToEnd(client.Get(), reply), expected) << reply;
        return reply;
    }
    std::string LicenceLines(const std::string& address = "") {
        std::vector<std::string> lines;
        std::string error;
        EXPECT_TRUE(BuildLicenceHeaderLines(m_org, address, lines, error)) << error;
        std::string text;
        for (const std::string& line : lines) text += line + "\r\n";
        return text;
    }
    bool LogHas(const std::string& text, int count = 1) {
        return swg_test::WaitForLines(LogPath(), text, count, 5s);
    }

    std::string m_dir;
    OrgInfoRecord m_org;
    swg_test::CGatewayProcess m_gateway;
};

std::string ConnectRequest(const std::string& target, const std::string& extraLines = "") {
    return "CONNECT " + target + " HTTP/1.1\r\nContent-Length: 0\r\nHost: " + target + "\r\n" +
           extraLines + "\r\n";
}

// A CONNECT answers 200 with the Via line and then carries a large stream both ways, with the
// client's half-close passed on.
TEST_F(TestGatewayTest, ConnectTunnelsBytesBothWaysWithVia) {
    CEchoServer echo(AF_INET);
    ASSERT_TRUE(echo.Ok());
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--key", kPrivateKey}));
    UniqueFd client = Client();
    const std::string target = "127.0.0.1:" + std::to_string(echo.Port());
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), ConnectRequest(target), 5s));
    std::string reply;
    ASSERT_TRUE(
        swg_test::ReadExactly(client.Get(), kConnected.size() + kVia.size() + 2, reply, 5s));
    EXPECT_EQ(reply, kConnected + kVia + "\r\n");

    const std::string payload = swg_test::PatternBytes(300 * 1024, 7);
    std::thread writer([&] { EXPECT_TRUE(swg_test::WriteAll(client.Get(), payload, 10s)); });
    std::string echoed;
    EXPECT_TRUE(swg_test::ReadExactly(client.Get(), payload.size(), echoed, 10s));
    writer.join();
    EXPECT_TRUE(echoed == payload) << "echoed stream differs";
    shutdown(client.Get(), SHUT_WR);
    EXPECT_EQ(ReadToEnd(client.Get(), reply), Ending::Closed);

    EXPECT_TRUE(LogHas("CONNECT " + target));
    EXPECT_TRUE(LogHas("licence missing"));
    EXPECT_TRUE(LogHas("result tunnel"));
}

// A bracketed IPv6 target reaches an IPv6 destination, through an IPv6 listener.
TEST_F(TestGatewayTest, ConnectToBracketedIPv6Destination) {
    CEchoServer echo(AF_INET6);
    if (!echo.Ok()) GTEST_SKIP() << "no IPv6 loopback on this host";
    std::string error;
    const std::vector<std::string> args = {"--listen", "[::1]:0", "--log", LogPath()};
    ASSERT_TRUE(m_gateway.Start(kGatewayBinary, args, OutputPath(), 10s, error)) << error;
    ASSERT_EQ(m_gateway.Addresses().size(), 1u);
    EXPECT_EQ(m_gateway.Addresses()[0].rfind("[::1]:", 0), 0u) << m_gateway.Addresses()[0];
    UniqueFd client = ConnectTcp(AF_INET6, m_gateway.Port(0));
    ASSERT_GE(client.Get(), 0);
    const std::string target = "[::1]:" + std::to_string(echo.Port());
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), ConnectRequest(target) + "ping", 5s));
    std::string reply;
    ASSERT_TRUE(
        swg_test::ReadExactly(client.Get(), kConnected.size() + kVia.size() + 6, reply, 5s));
    EXPECT_EQ(reply, kConnected + kVia + "\r\nping");
    EXPECT_TRUE(LogHas("CONNECT " + target));
}

// The lines the agent's component builds are opened with the private key and logged with the
// identity; standard output carries the same lines as the log file.
TEST_F(TestGatewayTest, LicenceHeaderIsDecodedAndLogged) {
    CEchoServer echo(AF_INET);
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--key", kPrivateKey}));
    const std::string target = "127.0.0.1:" + std::to_string(echo.Port());
    UniqueFd client = Client();
    ASSERT_TRUE(
        swg_test::WriteAll(client.Get(), ConnectRequest(target, LicenceLines("198.18.0.2")), 5s));
    std::string reply;
    ASSERT_TRUE(swg_test::ReadExactly(client.Get(), kConnected.size(), reply, 5s));
    EXPECT_EQ(reply, kConnected);

    const std::string expected =
        "licence ok org=org-4711 device=device-9f1c user=Hjane%20doe@corp.example "
        "overlay=Hoverlay key-id=sample-key-1 ip=198.18.0.2";
    ASSERT_TRUE(LogHas(expected)) << swg_test::ReadTextFile(LogPath());
    EXPECT_EQ(swg_test::CountLinesWith(OutputPath(), expected), 1);
    // The request line comes right before its licence line.
    const std::string log = swg_test::ReadTextFile(LogPath());
    EXPECT_NE(log.find("CONNECT " + target + "\n" + expected + "\n"), std::string::npos) << log;
}

// Each way a licence can be wrong gives its own line, and the request is still served.
TEST_F(TestGatewayTest, LicenceProblemsAreLogged) {
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--key", kPrivateKey, "--fault", "status=403"}));
    std::string lines = LicenceLines();
    const std::size_t payloadAt = lines.find(std::string(kLicencePayloadHeader) + ": ") +
                                  std::string(kLicencePayloadHeader).size() + 20;
    std::string tampered = lines;
    tampered[payloadAt] = tampered[payloadAt] == 'A' ? 'B' : 'A';
    const std::string idOnly = lines.substr(0, lines.find("\r\n") + 2);

    Exchange(ConnectRequest("a.test:443", tampered));
    EXPECT_TRUE(LogHas("licence bad: "));
    Exchange(ConnectRequest("a.test:443", idOnly));
    EXPECT_TRUE(LogHas("licence bad: X-SWG-Licence-Id alone"));
    // Header names match in any letter case.
    std::string lowered = lines;
    lowered.replace(0, std::string(kLicenceKeyIdHeader).size(), "x-swg-licence-id");
    Exchange(ConnectRequest("a.test:443", lowered));
    EXPECT_TRUE(LogHas("licence ok org=org-4711"));
    EXPECT_EQ(swg_test::CountLinesWith(LogPath(), "licence bad: "), 2);
}

// Without --key the gateway says it cannot check, rather than calling the licence good.
TEST_F(TestGatewayTest, LicenceWithoutPrivateKeyIsNotAccepted) {
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--fault", "status=403"}));
    Exchange(ConnectRequest("a.test:443", LicenceLines()));
    EXPECT_TRUE(LogHas("licence bad: gateway has no private key"));
    EXPECT_EQ(swg_test::CountLinesWith(LogPath(), "licence ok"), 0);
}

// A plain HTTP header block goes to the host of its Host line without the licence lines, the
// origin's answer comes back, and the log leaves out the query.
TEST_F(TestGatewayTest, HttpRequestIsForwardedWithoutLicenceLines) {
    COriginServer origin;
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--key", kPrivateKey}));
    const std::string host = "127.0.0.1:" + std::to_string(origin.Port());
    const std::string request = "GET /index.html?token=secret HTTP/1.1\r\nHost: " + host +
                                "\r\nAccept: */*\r\n" + LicenceLines() + "\r\n";
    const std::string reply = Exchange(request);
    EXPECT_EQ(reply, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
    EXPECT_EQ(origin.Received(),
              "GET /index.html?token=secret HTTP/1.1\r\nHost: " + host + "\r\nAccept: */*\r\n\r\n");
    EXPECT_TRUE(LogHas("HTTP GET " + host + "/index.html"));
    EXPECT_EQ(swg_test::CountLinesWith(LogPath(), "secret"), 0);
    EXPECT_TRUE(LogHas("licence ok org=org-4711"));
    EXPECT_TRUE(LogHas("result forward"));
}

class TestGatewayStatusTest : public TestGatewayTest, public ::testing::WithParamInterface<int> {};

// A status fault answers with that status, the Via line and an HTML body whose length matches
// Content-Length; 407 also asks for credentials.
TEST_P(TestGatewayStatusTest, StatusFaultAnswersWithHtmlBody) {
    const int status = GetParam();
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--fault", "status=" + std::to_string(status)}));
    const std::string reply = Exchange(ConnectRequest("blocked.test:443"));
    ASSERT_EQ(reply.rfind("HTTP/1.1 " + std::to_string(status) + " ", 0), 0u) << reply;
    EXPECT_NE(reply.find(kVia), std::string::npos) << reply;
    const std::size_t bodyAt = reply.find("\r\n\r\n");
    ASSERT_NE(bodyAt, std::string::npos);
    const std::string body = reply.substr(bodyAt + 4);
    EXPECT_NE(reply.find("Content-Length: " + std::to_string(body.size()) + "\r\n"),
              std::string::npos)
        << reply;
    EXPECT_EQ(body.rfind("<html>", 0), 0u) << body;
    EXPECT_EQ(reply.find("Proxy-Authenticate: Basic") != std::string::npos, status == 407) << reply;
    EXPECT_TRUE(LogHas("result status " + std::to_string(status)));
}

INSTANTIATE_TEST_SUITE_P(Statuses, TestGatewayStatusTest, ::testing::Values(403, 407, 502));

// no-via: the tunnel opens and works, but the 200 has no Via line.
TEST_F(TestGatewayTest, NoViaFaultTunnelsWithoutVia) {
    CEchoServer echo(AF_INET);
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--fault", "no-via"}));
    UniqueFd client = Client();
    ASSERT_TRUE(swg_test::WriteAll(
        client.Get(), ConnectRequest("127.0.0.1:" + std::to_string(echo.Port())) + "x", 5s));
    std::string reply;
    ASSERT_TRUE(swg_test::ReadExactly(client.Get(), kConnected.size() + 3, reply, 5s));
    EXPECT_EQ(reply, kConnected + "\r\nx");
    EXPECT_TRUE(LogHas("result tunnel no-via"));
}

// close-after-connect: the request is read and the connection closed with no reply at all.
TEST_F(TestGatewayTest, CloseAfterConnectClosesWithoutReply) {
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--fault", "close-after-connect"}));
    EXPECT_EQ(Exchange(ConnectRequest("a.test:443")), "");
    EXPECT_TRUE(LogHas("CONNECT a.test:443"));
    EXPECT_TRUE(LogHas("result closed"));
}

// garbage: the reply is not HTTP.
TEST_F(TestGatewayTest, GarbageFaultAnswersNonHttp) {
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--fault", "garbage"}));
    const std::string reply = Exchange(ConnectRequest("a.test:443"));
    EXPECT_FALSE(reply.empty());
    EXPECT_NE(reply.rfind("HTTP/", 0), 0u) << reply;
}

// slow: nothing arrives before the delay; the answer does come afterwards.
TEST_F(TestGatewayTest, SlowFaultDelaysTheAnswer) {
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--fault", "slow=1500", "--fault", "status=403"}));
    UniqueFd client = Client();
    ASSERT_TRUE(swg_test::WriteAll(client.Get(), ConnectRequest("a.test:443"), 5s));
    EXPECT_FALSE(swg_test::WaitReadable(client.Get(), 500ms));
    std::string reply;
    EXPECT_EQ(ReadToEnd(client.Get(), reply, 10s), Ending::Closed);
    EXPECT_EQ(reply.rfind("HTTP/1.1 403 ", 0), 0u) << reply;
}

// refuse: the port is bound but not listening, so a connect is refused outright.
TEST_F(TestGatewayTest, RefuseFaultRefusesConnects) {
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--fault", "refuse"}));
    EXPECT_TRUE(LogHas("refusing 127.0.0.1:"));
    ASSERT_NE(m_gateway.Port(0), 0);
    UniqueFd fd(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(m_gateway.Port(0));
    EXPECT_NE(connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(errno, ECONNREFUSED);
}

// The control file picks faults per request by a glob over the target, is read again for each
// request, and falls back to the command line's faults when no rule matches.
TEST_F(TestGatewayTest, ControlFileChoosesFaultsPerRequest) {
    CEchoServer echo(AF_INET);
    const std::string control = m_dir + "/control";
    std::ofstream(control) << "# per-request faults\n"
                           << "*.blocked.test:* status=403\n"
                           << "reset.test:443 refuse\n"
                           << "127.0.0.1:* pass\n"
                           << "bad.test:* status=99\n";
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--control", control, "--fault", "status=407"}));
    const std::string echoTarget = "127.0.0.1:" + std::to_string(echo.Port());

    EXPECT_EQ(Exchange(ConnectRequest("www.blocked.test:443")).rfind("HTTP/1.1 403 ", 0), 0u);
    Exchange(ConnectRequest("reset.test:443"), Ending::Reset);
    EXPECT_EQ(Exchange(ConnectRequest("other.test:443")).rfind("HTTP/1.1 407 ", 0), 0u);
    EXPECT_TRUE(LogHas("control bad: line 5"));
    {
        UniqueFd client = Client();
        ASSERT_TRUE(swg_test::WriteAll(client.Get(), ConnectRequest(echoTarget), 5s));
        std::string reply;
        ASSERT_TRUE(swg_test::ReadExactly(client.Get(), kConnected.size(), reply, 5s));
        EXPECT_EQ(reply, kConnected);
    }
    std::ofstream(control, std::ios::trunc) << "* close-after-connect\n";
    EXPECT_EQ(Exchange(ConnectRequest("www.blocked.test:443")), "");
    EXPECT_TRUE(LogHas("result closed"));
}

// A destination that cannot be reached gets a 502 from the gateway; one outside loopback and
// the test networks is never contacted.
TEST_F(TestGatewayTest, UnreachableDestinationsGet502) {
    ASSERT_NO_FATAL_FAILURE(StartGateway());
    unsigned short closedPort = 0;
    {
        swg_test::LoopbackListener gone = swg_test::ListenOnLoopback(AF_INET, 1);
        closedPort = PortOf(gone);
    }
    std::string reply = Exchange(ConnectRequest("127.0.0.1:" + std::to_string(closedPort)));
    EXPECT_EQ(reply.rfind("HTTP/1.1 502 Bad Gateway\r\n", 0), 0u) << reply;
    EXPECT_NE(reply.find(kVia), std::string::npos);
    EXPECT_TRUE(LogHas("result upstream-failed: connect: Connection refused"));

    reply = Exchange(ConnectRequest("192.0.2.1:443"));
    EXPECT_EQ(reply.rfind("HTTP/1.1 502 ", 0), 0u) << reply;
    EXPECT_TRUE(LogHas("result upstream-failed: destination outside the test networks"));
}

// A block that is not a request is answered 400 and logged.
TEST_F(TestGatewayTest, MalformedRequestGets400) {
    ASSERT_NO_FATAL_FAILURE(StartGateway());
    EXPECT_EQ(Exchange("\x16\x03\x01 not a request\r\n\r\n").rfind("HTTP/1.1 400 ", 0), 0u);
    EXPECT_EQ(Exchange("CONNECT a.test HTTP/1.1\r\n\r\n").rfind("HTTP/1.1 400 ", 0), 0u);
    EXPECT_TRUE(LogHas("request bad: bad request line"));
    EXPECT_TRUE(LogHas("request bad: CONNECT target is not host:port"));
}

class TestGatewayStopTest : public TestGatewayTest, public ::testing::WithParamInterface<int> {};

// SIGTERM and SIGINT end the process with status 0 even with a tunnel open and a request
// being slowed; the tunnel's client sees the close.
TEST_P(TestGatewayStopTest, SignalEndsOpenTunnelsAndExitsCleanly) {
    CEchoServer echo(AF_INET);
    const std::string control = m_dir + "/control";
    std::ofstream(control) << "slow.test:* slow=600000 status=403\n";
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--control", control}));
    UniqueFd tunnel = Client();
    ASSERT_TRUE(swg_test::WriteAll(tunnel.Get(),
                                   ConnectRequest("127.0.0.1:" + std::to_string(echo.Port())), 5s));
    std::string reply;
    ASSERT_TRUE(swg_test::ReadExactly(tunnel.Get(), kConnected.size(), reply, 5s));
    UniqueFd slowed = Client();
    ASSERT_TRUE(swg_test::WriteAll(slowed.Get(), ConnectRequest("slow.test:443"), 5s));
    ASSERT_TRUE(LogHas("CONNECT slow.test:443"));

    EXPECT_EQ(m_gateway.Stop(GetParam(), 10s), 0);
    EXPECT_NE(ReadToEnd(tunnel.Get(), reply), Ending::Timeout);
    EXPECT_TRUE(LogHas(GetParam() == SIGINT ? "stopped on SIGINT" : "stopped on SIGTERM"));
}

INSTANTIATE_TEST_SUITE_P(Signals, TestGatewayStopTest, ::testing::Values(SIGTERM, SIGINT));

// Bad command lines end with status 2 and the usage; a missing key file is status 1.
TEST_F(TestGatewayTest, BadArgumentsAreRefused) {
    const struct {
        std::vector<std::string> args;
        int status;
        const char* text;
    } cases[] = {
        {{}, 2, "at least one --listen"},
        {{"--listen", "127.0.0.1"}, 2, "bad --listen"},
        {{"--listen", "127.0.0.1:0", "--fault", "explode"}, 2, "unknown fault"},
        {{"--listen", "127.0.0.1:0", "--fault", "status=200"}, 2, "status wants"},
        {{"--listen", "127.0.0.1:0", "--key", m_dir + "/absent.pem"}, 1, "cannot read key"},
        {{"--listen", "host.test:0"}, 1, "not a numeric address"},
    };
    for (const auto& item : cases) {
        swg_test::CGatewayProcess process;
        std::string error;
        EXPECT_FALSE(process.Start(kGatewayBinary, item.args, OutputPath(), 10s, error));
        EXPECT_NE(error.find("status " + std::to_string(item.status)), std::string::npos) << error;
        EXPECT_NE(error.find(item.text), std::string::npos) << error;
    }
}

}  // namespace
