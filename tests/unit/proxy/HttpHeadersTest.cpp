// SPDX-License-Identifier: Apache-2.0
// CDnHttpHeaders over real sockets: split reads, bare newlines, the body behind the block, exit.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <boost/function.hpp>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "foundation/GlobalConst.h"
#include "proxy/DnSocket.h"
#include "proxy/HttpHeaders.h"
#include "proxy/SocketPair.h"
#include "support/SocketPeers.h"

namespace {

using namespace std::chrono_literals;
using swg_test::UniqueFd;

// A proxy-form request as a browser sends it to an explicit proxy.
constexpr char kRequestBlock[] =
    "GET http://a.example/index.html HTTP/1.1\r\n"
    "Host: a.example\r\n"
    "User-Agent: test/1.0\r\n"
    "Accept: */*\r\n"
    "\r\n";

// The header reader on one end of a stream socketpair; the test plays the client.
class HttpHeadersTest : public ::testing::Test {
protected:
    void SetUp() override {
        int fds[2] = {-1, -1};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        m_peer.Reset(fds[0]);
        m_sock = std::make_unique<CDnSocket>(fds[1]);
    }

    void PeerSends(const std::string& bytes) {
        ASSERT_TRUE(swg_test::WriteAll(m_peer.Get(), bytes, 2s));
    }

    std::string Buffered() {
        std::string out;
        m_sock->PeekDataFromBuffer(out);
        return out;
    }

    UniqueFd m_peer;
    std::unique_ptr<CDnSocket> m_sock;
    std::atomic<bool> m_exit{false};
    CDnHttpHeaders m_headers{256};
};

// A header block may arrive in any number of pieces; the lines, the byte count and the
// completion must not depend on where the cut falls, and the body must stay unread.
TEST_F(HttpHeadersTest, BlockSplitAtEveryByteReadsTheSame) {
    const std::string block = kRequestBlock;
    const std::string body = "BODY";
    for (std::size_t cut = 1; cut < block.size(); ++cut) {
        SetUp();
        m_headers.Reset();
        std::thread client([&] {
            EXPECT_TRUE(swg_test::WriteAll(m_peer.Get(), block.substr(0, cut), 1s));
            // The second piece goes only after the reader has taken the first one.
            for (int i = 0; i < 2000 && swg_test::PendingBytes(m_sock->GetSocket()) > 0; ++i)
                std::this_thread::sleep_for(1ms);
            EXPECT_TRUE(swg_test::WriteAll(m_peer.Get(), block.substr(cut) + body, 1s));
        });
        const long result = m_headers.Read(m_sock.get(), m_exit, 64000);
        client.join();

        ASSERT_EQ(result, 0) << "cut after byte " << cut;
        EXPECT_TRUE(m_headers.m_bComplete);
        ASSERT_EQ(m_headers.m_lines.size(), 4u) << "cut after byte " << cut;
        EXPECT_EQ(m_headers.m_lines.front(), "GET http://a.example/index.html HTTP/1.1\r\n");
        EXPECT_EQ(m_headers.m_lines.back(), "Accept: */*\r\n");
        EXPECT_EQ(m_headers.m_bytes, static_cast<int>(block.size()));
        std::string rest = Buffered();
        std::string fromSocket;
        if (rest.size() < body.size()) {
            EXPECT_TRUE(swg_test::ReadExactly(m_sock->GetSocket(), body.size() - rest.size(),
                                              fromSocket, 1s));
        }
        EXPECT_EQ(rest + fromSocket, body) << "cut after byte " << cut;
    }
}

// The first of two Host lines decides; the second must still reach the gateway unchanged.
TEST_F(HttpHeadersTest, SecondHostIsIgnoredByHeaderValueButWrittenOut) {
    const std::string block =
        "GET / HTTP/1.1\r\n"
        "Host:   first.example \t\r\n"
        "host: second.example\r\n"
        "X-Empty:\r\n"
        "\r\n";
    PeerSends(block);
    ASSERT_EQ(m_headers.Read(m_sock.get(), m_exit, 64000), 0);

    EXPECT_EQ(m_headers.HeaderValue("Host"), "first.example");
    EXPECT_EQ(m_headers.HeaderValue("HOST"), "first.example");
    EXPECT_EQ(m_headers.HeaderValue("X-Empty"), "");
    EXPECT_EQ(m_headers.HeaderValue("Hos"), "");  // a name, not a prefix of one
    EXPECT_EQ(m_headers.HeaderValue("Cookie"), "");

    auto second = m_headers.LeftFind(
        "HOST:", std::next(m_headers.LeftFind("host:", m_headers.m_lines.begin(), false)), false);
    ASSERT_NE(second, m_headers.m_lines.end());
    EXPECT_EQ(*second, "host: second.example\r\n");

    ASSERT_EQ(m_headers.Write(m_sock.get(), m_exit), 0);
    std::string written;
    ASSERT_TRUE(swg_test::ReadExactly(m_peer.Get(), block.size(), written, 2s));
    EXPECT_EQ(written, block);
}

// The request line takes part in LeftFind like any header, with or without case.
TEST_F(HttpHeadersTest, LeftFindMatchesRequestLineAndHonoursCase) {
    PeerSends("CONNECT a.example:443 HTTP/1.1\r\nHost: a.example:443\r\n\r\n");
    ASSERT_EQ(m_headers.Read(m_sock.get(), m_exit, 64000), 0);
    const auto begin = m_headers.m_lines.begin();
    EXPECT_EQ(m_headers.LeftFind("CONNECT ", begin, true), begin);
    EXPECT_EQ(m_headers.LeftFind("connect ", begin, true), m_headers.m_lines.end());
    EXPECT_EQ(m_headers.LeftFind("connect ", begin, false), begin);
    EXPECT_EQ(m_headers.LeftFind("CONNECT a.example:443 HTTP/1.1\r\nX", begin, true),
              m_headers.m_lines.end());
    EXPECT_EQ(m_headers.LeftFind("Host:", std::next(begin), true), std::next(begin));
}

// A line ended by a bare newline is not a header line: it is joined with what follows, and
// a block ended that way never completes (the reader waits until the client closes).
TEST_F(HttpHeadersTest, BareNewlineEndingsNeverComplete) {
    PeerSends("GET / HTTP/1.1\nHost: a.example\n\n");
    ::shutdown(m_peer.Get(), SHUT_WR);
    EXPECT_EQ(m_headers.Read(m_sock.get(), m_exit, 64000), 1);
    EXPECT_FALSE(m_headers.m_bComplete);
    EXPECT_TRUE(m_headers.m_lines.empty());
    EXPECT_EQ(m_headers.Write(m_sock.get(), m_exit), SWG_E_INVALIDARG);
}

// Bare newlines inside a CRLF block stay inside the entry they were joined into.
TEST_F(HttpHeadersTest, BareNewlineIsJoinedIntoTheNextLine) {
    PeerSends("GET / HTTP/1.1\r\nX-Folded: a\nb\r\n\n\r\n");
    ::shutdown(m_peer.Get(), SHUT_WR);
    EXPECT_EQ(m_headers.Read(m_sock.get(), m_exit, 64000), 1);
    ASSERT_EQ(m_headers.m_lines.size(), 3u);
    auto line = m_headers.m_lines.begin();
    EXPECT_EQ(*++line, "X-Folded: a\nb\r\n");
    // A lone newline is doubled before it is joined, so the block's end is never seen.
    EXPECT_EQ(*++line, "\n\n\r\n");
    EXPECT_FALSE(m_headers.m_bComplete);
}

// Headers named like the licence header are passed on: the reserved-name test never matches.
TEST_F(HttpHeadersTest, LicenceHeaderNamesFromTheClientArePassedOn) {
    PeerSends(
        "GET / HTTP/1.1\r\nX-SWG-Licence-Id: abc\r\nx-swg-licence : def\r\n"
        "X-SWG-LICENCE: ghi\r\n\r\n");
    ASSERT_EQ(m_headers.Read(m_sock.get(), m_exit, 64000), 0);
    EXPECT_EQ(m_headers.m_lines.size(), 4u);
    EXPECT_EQ(m_headers.HeaderValue("X-SWG-Licence-Id"), "abc");
}

// The body behind the block must reach the gateway right after the headers, through the
// relay's flush of the line buffer, before any byte read later from the client.
TEST_F(HttpHeadersTest, BodyBehindTheBlockReachesTheRelayFirst) {
    swg_test::TcpPair near = swg_test::MakeTcpPair(AF_INET);
    swg_test::TcpPair far = swg_test::MakeTcpPair(AF_INET);
    ASSERT_NE(near.a.Get(), -1);
    ASSERT_NE(far.a.Get(), -1);
    CDnSocket local(near.b.Release());
    CDnSocket remote(far.a.Release());

    const std::string block = "POST /upload HTTP/1.1\r\nHost: a.example\r\n\r\n";
    const std::string body = swg_test::PatternBytes(5000, 7);  // beyond one 1024-byte read
    const std::string late = swg_test::PatternBytes(3000, 8);
    ASSERT_TRUE(swg_test::WriteAll(near.a.Get(), block + body, 2s));
    ASSERT_TRUE(swg_test::WaitReadable(local.GetSocket(), 2s));

    ASSERT_EQ(m_headers.Read(&local, m_exit, 64000), 0);
    ASSERT_EQ(m_headers.Write(&remote, m_exit), 0);
    std::string buffered;
    local.PeekDataFromBuffer(buffered);
    ASSERT_FALSE(buffered.empty());  // part of the body came in with the last header line

    auto relay = std::async(std::launch::async, [&] {
        boost::function<bool()> callback = [] { return true; };
        CSocketPair pair(remote, local, m_exit, callback);
        return pair.ProxyLoop();
    });
    ASSERT_TRUE(swg_test::WriteAll(near.a.Get(), late, 2s));
    std::string atGateway;
    EXPECT_TRUE(swg_test::ReadExactly(far.b.Get(), block.size() + body.size() + late.size(),
                                      atGateway, 5s));
    EXPECT_TRUE(atGateway == block + body + late) << atGateway.size() << " bytes";

    near.a.Reset();  // the client closes: the relay ends
    m_exit = true;
    EXPECT_EQ(relay.wait_for(5s), std::future_status::ready);
}

// Large cookies make blocks longer than the limit callers pass; the block must be read whole.
TEST_F(HttpHeadersTest, LimitDoesNotCutALargeBlock) {
    std::string block = "GET / HTTP/1.1\r\n";
    for (int i = 0; i < 100; ++i)
        block += "Cookie: c" + std::to_string(i) + "=" + std::string(1000, 'v') + "\r\n";
    block += "\r\n";
    std::thread client([&] { EXPECT_TRUE(swg_test::WriteAll(m_peer.Get(), block, 5s)); });
    const long result = m_headers.Read(m_sock.get(), m_exit, 64000);
    client.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(m_headers.m_lines.size(), 101u);
    EXPECT_EQ(m_headers.m_bytes, static_cast<int>(block.size()));
}

// With the exit flag set a read ends at the next line and nothing is written.
TEST_F(HttpHeadersTest, ExitFlagEndsReadAndStopsWrite) {
    m_exit = true;
    PeerSends(kRequestBlock);
    EXPECT_EQ(m_headers.Read(m_sock.get(), m_exit, 64000), 1);
    EXPECT_FALSE(m_headers.m_bComplete);
    EXPECT_TRUE(m_headers.m_lines.empty());

    m_headers.m_lines.push_back("HTTP/1.1 200 OK\r\n");
    m_headers.m_bComplete = true;
    EXPECT_EQ(m_headers.Write(m_sock.get(), m_exit), 0);
    EXPECT_EQ(swg_test::PendingBytes(m_peer.Get()), 0);
}

// A client that closes halfway ends the read with 1 and an incomplete block.
TEST_F(HttpHeadersTest, PeerClosingMidBlockEndsRead) {
    PeerSends("GET / HTTP/1.1\r\nHost: a.exa");
    m_peer.Reset();
    EXPECT_EQ(m_headers.Read(m_sock.get(), m_exit, 64000), 1);
    EXPECT_FALSE(m_headers.m_bComplete);
    EXPECT_EQ(m_headers.m_lines.size(), 1u);
}

// A hand-built block, as the refusal page makes, goes out with the ending CRLF added.
TEST_F(HttpHeadersTest, HandBuiltBlockIsWrittenWithEndingCrlfAndNullSocketsRefused) {
    m_headers.m_lines.push_back("HTTP/1.1 499 Fail close\r\nContent-Length: 3\r\n");
    m_headers.m_lines.push_back("Connection: Keep-Alive\r\n");
    EXPECT_EQ(m_headers.Write(m_sock.get(), m_exit), SWG_E_INVALIDARG);  // not complete yet
    m_headers.m_bComplete = true;
    EXPECT_EQ(m_headers.Write(nullptr, m_exit), SWG_E_INVALIDARG);
    EXPECT_EQ(m_headers.Read(nullptr, m_exit, 64000), SWG_E_POINTER);
    ASSERT_EQ(m_headers.Write(m_sock.get(), m_exit), 0);

    const std::string expected =
        "HTTP/1.1 499 Fail close\r\nContent-Length: 3\r\nConnection: Keep-Alive\r\n\r\n";
    std::string written;
    ASSERT_TRUE(swg_test::ReadExactly(m_peer.Get(), expected.size(), written, 2s));
    EXPECT_EQ(written, expected);

    m_headers.Reset();
    EXPECT_TRUE(m_headers.m_lines.empty());
    EXPECT_FALSE(m_headers.m_bComplete);
    EXPECT_EQ(m_headers.m_bytes, 0);
}

// A write to a client that has gone fails with -1 rather than claiming success.
TEST_F(HttpHeadersTest, WriteToClosedPeerFails) {
    m_peer.Reset();
    m_headers.m_lines.push_back("HTTP/1.1 200 OK\r\n");
    m_headers.m_bComplete = true;
    EXPECT_EQ(m_headers.Write(m_sock.get(), m_exit), -1);
}

}  // namespace
