// SPDX-License-Identifier: Apache-2.0
// swg-test-gateway as tests see it: tunnels, forwarding, licence log lines, fault modes, stop.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <thread>

#include "support/GatewayProcess.h"
#include "support/SocketPeers.h"
#include "support/TempFolder.h"
#include "support/TestServers.h"
#include "upstream/LicenceHeader.h"

namespace {

using namespace std::chrono_literals;
using swg_test::UniqueFd;

const std::string kGatewayBinary =
    std::string(SWG_BINARY_DIR) + "/tools/test-gateway/swg-test-gateway";
const std::string kPrivateKey =
    std::string(SWG_SOURCE_DIR) + "/packaging/sample/licence-test-private.pem";
const std::string kConnected = "HTTP/1.1 200 Connection established\r\n";
const std::string kVia = "Via: 1.1 s_proxy_test-gw\r\n";

std::string ConnectRequest(const std::string& target, const std::string& extraLines = "") {
    return "CONNECT " + target + " HTTP/1.1\r\nContent-Length: 0\r\nHost: " + target + "\r\n" +
           extraLines + "\r\n";
}
std::string LoopbackTarget(const swg_test::TestServer& server) {
    return "127.0.0.1:" + std::to_string(swg_test::EndpointPort(server.Address()));
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

class TestGatewayTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_org.strOrgId = "org-4711";
        m_org.strDeviceId = "device-9f1c";
        m_org.strPstrUserId = "Hjane doe@corp.example";
        m_org.strOverlayUser = "Hoverlay";
        m_org.strpKeyId = "sample-key-1";
        m_org.strpKeyPem = swg_test::ReadTextFile(std::string(SWG_SOURCE_DIR) +
                                                  "/packaging/sample/licence-test-public.pem");
    }
    void TearDown() override { m_gateway.Stop(SIGKILL, 5s); }

    // Starts the gateway on an IPv4 loopback port with `extra` flags.
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

    // A connection to the gateway that has sent `request`.
    UniqueFd Send(const std::string& request) {
        UniqueFd fd = swg_test::ConnectTo(swg_test::Endpoint("127.0.0.1", m_gateway.Port(0)));
        EXPECT_GE(fd.Get(), 0) << "cannot connect to the gateway";
        EXPECT_TRUE(swg_test::WriteAll(fd.Get(), request, 5s));
        return fd;
    }
    // Sends `request`; returns the reply up to the close.
    std::string Exchange(const std::string& request, Ending expected = Ending::Closed) {
        UniqueFd client = Send(request);
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

    swg_test::TempFolder m_folder;
    const std::string m_dir = m_folder.Path();
    OrgInfoRecord m_org;
    swg_test::CGatewayProcess m_gateway;
};

// Guards tunnel with Via, forwarding without licence lines, the licence log line.
TEST_F(TestGatewayTest, TunnelsForwardsAndLogsLicences) {
    swg_test::TestServer echo(swg_test::Endpoint("127.0.0.1", 0), swg_test::EchoHandler);
    std::string received;  // by the origin; read after it stopped
    swg_test::TestServer origin(swg_test::Endpoint("127.0.0.1", 0), [&received](int fd) {
        std::string byte;
        while (received.find("\r\n\r\n") == std::string::npos &&
               swg_test::ReadExactly(fd, 1, byte, 5s)) {
            received += byte;
        }
        swg_test::WriteAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", 5s);
    });
    ASSERT_TRUE(echo.Ok() && origin.Ok());
    ASSERT_NO_FATAL_FAILURE(StartGateway({"--key", kPrivateKey}));

    const std::string target = LoopbackTarget(echo);
    UniqueFd client = Send(ConnectRequest(target, LicenceLines("198.18.0.2")));
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
    const std::string licenceOk =
        "licence ok org=org-4711 device=device-9f1c user=Hjane%20doe@corp.example "
        "overlay=Hoverlay key-id=sample-key-1 ip=198.18.0.2";
    ASSERT_TRUE(LogHas("result tunnel"));
    EXPECT_NE(swg_test::ReadTextFile(LogPath()).find("CONNECT " + target + "\n" + licenceOk + "\n"),
              std::string::npos);
    EXPECT_EQ(swg_test::CountLinesWith(OutputPath(), licenceOk), 1);

    const std::string host = LoopbackTarget(origin);
    const std::string head =
        "GET /index.html?token=secret HTTP/1.1\r\nHost: " + host + "\r\nAccept: */*\r\n";
    EXPECT_EQ(Exchange(head + LicenceLines() + "\r\n"),
              "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
    origin.Stop();
    EXPECT_EQ(received, head + "\r\n");
    EXPECT_TRUE(LogHas("HTTP GET " + host + "/index.html"));
    EXPECT_TRUE(LogHas("result forward"));
    EXPECT_EQ(swg_test::CountLinesWith(LogPath(), "secret"), 0);
}

}  // namespace
