// SPDX-License-Identifier: Apache-2.0
// CDnHttpHeaders over real sockets: split reads, bare newlines, the body behind the block, exit.
// The body's way on through the relay is checked with whole connection jobs.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "foundation/GlobalConst.h"
#include "proxy/DnSocket.h"
#include "proxy/HttpHeaders.h"
#include "proxy/ProxyLimits.h"
#include "support/SocketPeers.h"
#include "support/ThreadTestSupport.h"

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
class HttpHeadersTest : public swg_test::SocketPeerTest {
protected:
    void SetUp() override {
        SocketPeerTest::SetUp();
        m_headers.Reset();
    }

    long Read() { return m_headers.Read(m_sock.get(), m_exit, kHeaderBlockLimit); }

    std::atomic<bool> m_exit{false};
    CDnHttpHeaders m_headers{256};
};

// A header block may arrive in any number of pieces; the lines, the byte count and the
// completion must not depend on where the cut falls, and the body must stay unread.
TEST_F(HttpHeadersTest, BlockSplitAtEveryByteReadsTheSame) {
    const std::string block = kRequestBlock;
    const std::string body = "BODY";
    for (std::size_t cut = 1; cut < block.size(); ++cut) {
        SCOPED_TRACE("cut after byte " + std::to_string(cut));
        SetUp();
        std::thread client([&] {
            EXPECT_TRUE(swg_test::WriteAll(m_peer.Get(), block.substr(0, cut), 1s));
            // The second piece goes only after the reader has taken the first one.
            EXPECT_TRUE(swg_test::WaitUntil(
                [&] { return swg_test::PendingBytes(m_sock->GetSocket()) == 0; }));
            EXPECT_TRUE(swg_test::WriteAll(m_peer.Get(), block.substr(cut) + body, 1s));
        });
        const long result = Read();
        client.join();
        ASSERT_EQ(result, 0);
        EXPECT_TRUE(m_headers.m_bComplete);
        ASSERT_EQ(m_headers.m_lines.size(), 4u);
        EXPECT_EQ(m_headers.m_lines.front(), "GET http://a.example/index.html HTTP/1.1\r\n");
        EXPECT_EQ(m_headers.m_lines.back(), "Accept: */*\r\n");
        EXPECT_EQ(m_headers.m_bytes, static_cast<int>(block.size()));
        std::string rest(body.size(), '\0');
        int got = 0;
        while (got < static_cast<int>(body.size())) {
            const int n = m_sock->Receive(&rest[got], static_cast<int>(body.size()) - got, 0);
            if (n < 1) break;
            got += n;
        }
        EXPECT_EQ(rest, body);
    }
}

// The first of two Host lines decides; the second must still reach the gateway unchanged.
// Names match whole and in any case; names like the licence header's are passed on.
TEST_F(HttpHeadersTest, SecondHostIsIgnoredByHeaderValueButWrittenOut) {
    const std::string block =
        "GET / HTTP/1.1\r\nHost:   first.example \t\r\nhost: second.example\r\nX-Empty:\r\n"
        "X-SWG-Licence-Id: abc\r\nx-swg-licence : def\r\n\r\n";
    PeerSends(block);
    ASSERT_EQ(Read(), 0);
    EXPECT_EQ(m_headers.HeaderValue("HOST"), "first.example");
    EXPECT_EQ(m_headers.HeaderValue("X-Empty"), "");
    EXPECT_EQ(m_headers.HeaderValue("Hos"), "");
    EXPECT_EQ(m_headers.HeaderValue("X-SWG-Licence-Id"), "abc");
    EXPECT_EQ(m_headers.m_lines.size(), 6u);
    ASSERT_EQ(m_headers.Write(m_sock.get(), m_exit), 0);
    std::string written;
    ASSERT_TRUE(swg_test::ReadExactly(m_peer.Get(), block.size(), written, 2s));
    EXPECT_EQ(written, block);
}

// A line ended by a bare newline is joined with what follows, so a block ended that way never
// completes (the reader waits until the client closes) and cannot be written; a client that
// closes halfway ends the read with 1 too. With the exit flag set a read ends at the next line
// and nothing is written.
TEST_F(HttpHeadersTest, BareNewlineEndingsAndTheExitFlagNeverComplete) {
    PeerSends("GET / HTTP/1.1\r\nX-Folded: a\nb\r\nHost: a.example\n\n");
    ::shutdown(m_peer.Get(), SHUT_WR);
    EXPECT_EQ(Read(), 1);
    EXPECT_FALSE(m_headers.m_bComplete);
    ASSERT_EQ(m_headers.m_lines.size(), 2u);
    EXPECT_EQ(m_headers.m_lines.back(), "X-Folded: a\nb\r\n");
    EXPECT_EQ(m_headers.Write(m_sock.get(), m_exit), SWG_E_INVALIDARG);

    SetUp();
    m_exit = true;
    PeerSends(kRequestBlock);
    EXPECT_EQ(Read(), 1);
    EXPECT_FALSE(m_headers.m_bComplete);
    m_headers.m_lines.push_back("HTTP/1.1 200 OK\r\n");
    m_headers.m_bComplete = true;
    EXPECT_EQ(m_headers.Write(m_sock.get(), m_exit), 0);
    EXPECT_EQ(swg_test::PendingBytes(m_peer.Get()), 0);
}

}  // namespace
