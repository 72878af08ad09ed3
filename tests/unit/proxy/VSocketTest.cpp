// SPDX-License-Identifier: Apache-2.0
// The line buffer, line readers and waits of CDnVSocket and the sends, close, receive prefix
// and connects of CDnSocket, over real socketpairs and loopback TCP.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "foundation/GlobalConst.h"
#include "proxy/DnSocket.h"
#include "proxy/VSocket.h"
#include "support/SocketPeers.h"
#include "support/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using swg_test::PendingBytes;
using swg_test::UniqueFd;

constexpr int kInvalidArg = static_cast<int>(SWG_E_INVALIDARG);

// The socket under test on one end of a stream socketpair; the test plays the peer.
class VSocketTest : public swg_test::SocketPeerTest {
protected:
    std::string Buffered() {
        std::string out;
        m_sock->PeekDataFromBuffer(out);
        return out;
    }
    std::string ReceiveOnce(int length) {
        std::string out(static_cast<size_t>(length), '\0');
        const int got = m_sock->Receive(out.data(), length, 0);
        out.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return out;
    }

    std::atomic<bool> m_exit{false};
};

// Receive mixing buffered and socket bytes in one call would reorder or duplicate sniffed bytes.
TEST_F(VSocketTest, ReceiveDrainsBufferBeforeSocketAndNeverMixesThem) {
    ASSERT_TRUE(m_sock->AppendDataToBuffer("abcd", 4));
    PeerSends("xyz");
    ASSERT_EQ(ReceiveOnce(2), "ab");
    ASSERT_EQ(ReceiveOnce(10), "cd");  // the rest of the buffer only, though the socket has more
    EXPECT_EQ(ReceiveOnce(10), "xyz");
}

// A request line split across TCP segments must still be found, and nothing read may be lost.
TEST_F(VSocketTest, PeekLineCollectsLineArrivingInPiecesAndKeepsEveryByte) {
    std::thread writer([this] {
        EXPECT_TRUE(swg_test::WriteAll(m_peer.Get(), "GET / HT", 1s));
        EXPECT_TRUE(swg_test::WaitUntil([this] { return PendingBytes(m_sock->GetSocket()) == 0; }));
        EXPECT_TRUE(swg_test::WriteAll(m_peer.Get(), "TP/1.1\r\nHost: a\r\n", 1s));
    });
    const std::string line = m_sock->PeekLine(8, 2000, m_exit);
    writer.join();
    EXPECT_EQ(line, "GET / HTTP/1.1\r\n");
    EXPECT_EQ(Buffered(), "GET / HTTP/1.1\r\nHost: a\r\n");
}

// A client streaming without a line end must not be buffered without bound; what is not
// looked at stays in the socket, in order.
TEST_F(VSocketTest, PeekLineStopsAt64KilobytesWithoutLineEnd) {
    const std::string stream(200000, 'x');
    std::thread writer([&] { EXPECT_TRUE(swg_test::WriteAll(m_peer.Get(), stream, 5s)); });
    EXPECT_EQ(m_sock->PeekLine(1024, 2000, m_exit).size(), 65536u);
    std::string all;  // the buffer's bytes first, then the socket's, all of them once
    char chunk[4096];
    while (all.size() < stream.size()) {
        const int received = m_sock->Receive(chunk, sizeof(chunk), 0);
        if (received < 1) break;
        all.append(chunk, static_cast<size_t>(received));
    }
    writer.join();
    EXPECT_EQ(all, stream);
}

// A client that never ends its line must not hold the sniffer past its wait, nor lose its
// bytes; a bad size and a set exit flag must consume nothing; an exit during the wait (Kill)
// must end it long before its timeout; a closed peer gives nothing.
TEST_F(VSocketTest, PeekLineEndsForTimeoutBadSizeExitOrClosedPeer) {
    PeerSends("GET /partial");
    const auto waited = Clock::now();
    EXPECT_EQ(m_sock->PeekLine(4, 60, m_exit), "GET /partial");
    EXPECT_GE(Clock::now() - waited, 50ms);
    EXPECT_EQ(Buffered(), "GET /partial");
    m_sock->ResetBuffer();

    PeerSends("abc\n");
    EXPECT_EQ(m_sock->PeekLine(0, 100, m_exit), "");
    m_exit = true;
    EXPECT_EQ(m_sock->PeekLine(4, 100, m_exit), "");
    EXPECT_EQ(PendingBytes(m_sock->GetSocket()), 4);
    m_exit = false;
    std::string line;
    ASSERT_EQ(m_sock->ReceiveLine(line), 0);

    PeerSends("no newline");
    std::thread killer([this] {  // once the wait has read what there is
        EXPECT_TRUE(swg_test::WaitUntil([this] { return PendingBytes(m_sock->GetSocket()) == 0; }));
        m_exit = true;
    });
    const auto start = Clock::now();
    EXPECT_EQ(m_sock->PeekLine(4, 20000, m_exit), "no newline");
    killer.join();
    EXPECT_LT(Clock::now() - start, 5s);

    m_exit = false;
    m_peer.Reset();
    EXPECT_EQ(m_sock->PeekLine(4, 100, m_exit), "");
}

// A partial line must stay buffered and be completed by the next read, not dropped or doubled;
// a close is 1 and a failed read its errno.
TEST_F(VSocketTest, ReceiveLineKeepsPartialLineAndAppendsNextRead) {
    ASSERT_TRUE(m_sock->AppendDataToBuffer("par", 3));
    PeerSends("tial\r\nnext");
    std::string line;
    ASSERT_EQ(m_sock->ReceiveLine(line), 0);
    EXPECT_EQ(line, "partial\r\n");
    EXPECT_EQ(Buffered(), "next");
    PeerSends(" one\na\n");
    m_peer.Reset();
    for (const char* expected : {"next one\n", "a\n"}) {
        ASSERT_EQ(m_sock->ReceiveLine(line), 0);
        EXPECT_EQ(line, expected);
    }
    EXPECT_EQ(m_sock->ReceiveLine(line), 1);
    EXPECT_EQ(line, "");
    ASSERT_EQ(m_sock->CloseSocket(), 0);
    EXPECT_EQ(m_sock->ReceiveLine(line), EBADF);
}

// Header blocks must stop at the empty line (CRLF or bare LF) and leave the body unread.
TEST_F(VSocketTest, ReceiveHeadersStopsAtEmptyLineAndLeavesBody) {
    const struct {
        const char* buffered;
        const char* sent;
        const char* headers;
        int bodyLeft;
    } cases[] = {
        {"", "HTTP/1.1 200 OK\r\nA: b\r\n\r\nBODY", "HTTP/1.1 200 OK\r\nA: b\r\n\r\n", 4},
        {"", "HTTP/1.0 200 OK\nA: b\n\nrest", "HTTP/1.0 200 OK\nA: b\n\n", 4},
        {"HTTP/1.1 2", "00 OK\r\n\r\n", "HTTP/1.1 200 OK\r\n\r\n", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sent);
        m_sock->ResetBuffer();
        (void)m_sock->AppendDataToBuffer(c.buffered, static_cast<int>(strlen(c.buffered)));
        PeerSends(c.sent);
        std::string headers;
        EXPECT_EQ(m_sock->ReceiveHeaders(headers), 1);
        EXPECT_EQ(headers, c.headers);
        std::string body;
        EXPECT_TRUE(
            swg_test::ReadExactly(m_sock->GetSocket(), static_cast<size_t>(c.bodyLeft), body, 1s));
        EXPECT_EQ(PendingBytes(m_sock->GetSocket()), 0);
    }
    PeerSends("HTTP/1.1 200 OK\r\nA");
    m_peer.Reset();
    std::string cut;
    EXPECT_EQ(m_sock->ReceiveHeaders(cut), 0);
    EXPECT_EQ(cut, "HTTP/1.1 200 OK\r\nA");
}

// ---- CDnSocket ----------------------------------------------------------------------------

using DnSocketTest = VSocketTest;

// A stop request or no length must send nothing; a short send must be continued, not
// reported as the whole; a gone peer must fail with EPIPE, not kill the process with SIGPIPE.
TEST_F(DnSocketTest, SendCompleteSendsAllOrNothing) {
    EXPECT_EQ(m_sock->SendComplete("data", 4, 0, true), 0);
    EXPECT_EQ(m_sock->SendComplete("data", 0, 0, false), 0);
    EXPECT_FALSE(swg_test::WaitReadable(m_peer.Get(), 50ms));

    const std::string payload = swg_test::PatternBytes(4 << 20, 7);
    std::string received;
    std::thread reader(
        [&] { EXPECT_TRUE(swg_test::ReadExactly(m_peer.Get(), payload.size(), received, 20s)); });
    EXPECT_EQ(m_sock->SendComplete(payload.data(), static_cast<int>(payload.size()), 0, false),
              static_cast<int>(payload.size()));
    reader.join();
    EXPECT_TRUE(received == payload);

    m_peer.Reset();
    EXPECT_EQ(m_sock->SendComplete("data", 4, 0, false), -1);
    EXPECT_EQ(errno, EPIPE);
}

// A double close, or a destructor that leaks, would close a reused descriptor or run out of them.
TEST_F(DnSocketTest, CloseIsIdempotentAndDestructorCloses) {
    const int fd = m_sock->GetSocket();
    EXPECT_EQ(m_sock->CloseSocket(), 0);
    EXPECT_EQ(m_sock->CloseSocket(), 0);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    auto owned = std::make_unique<CDnSocket>(m_peer.Release());
    const int ownedFd = owned->GetSocket();
    owned.reset();
    EXPECT_EQ(::fcntl(ownedFd, F_GETFD), -1);
}

// The record made on accept must come out of Recv first, alone (a peek leaves it), then the
// client's bytes; readiness counts it, so a sniffer waiting for bytes does not wait in vain.
TEST_F(DnSocketTest, RecvServesThePrefixBeforeTheDescriptorAndNeverMixesThem) {
    m_sock->SetReceivePrefix("ABC", 3);
    ASSERT_TRUE(swg_test::WriteAll(m_peer.Get(), "DEF", 1s));
    ASSERT_TRUE(swg_test::WaitReadable(m_sock->GetSocket(), 1s));
    unsigned long readable = 0;
    int error = -1;
    EXPECT_TRUE(m_sock->IsDataAvailable(readable, &error));
    EXPECT_EQ(readable, 6u);
    char buffer[16] = {};
    ASSERT_EQ(m_sock->Recv(buffer, 2, MSG_PEEK), 2);
    ASSERT_EQ(m_sock->Recv(buffer, 2, 0), 2);
    EXPECT_EQ(std::string(buffer, 2), "AB");
    ASSERT_EQ(m_sock->Recv(buffer, sizeof(buffer), 0), 1);
    EXPECT_EQ(buffer[0], 'C');
    ASSERT_EQ(m_sock->Recv(buffer, sizeof(buffer), 0), 3);
    EXPECT_EQ(std::string(buffer, 3), "DEF");
}

// ---- waits -------------------------------------------------------------------------------

// Out-of-range descriptors and modes must be refused before they reach a select set;
// readiness, timeout and a select failure must each give their own result, also on
// descriptors above FD_SETSIZE up to 8191, where glibc's fd_set would overflow.
TEST(IsSocketAvailableTest, RefusesBadInputAndServesDescriptorsUpTo8191) {
    const swg_test::SocketPairPeer pair = swg_test::MakeSocketPairPeer();
    ASSERT_NE(pair.agentSide, nullptr);
    const int a = pair.agentSide->GetSocket();
    const int b = pair.peer.Get();
    EXPECT_EQ(CDnVSocket::IsSocketAvailable(-1, 1, 0, 0), kInvalidArg);
    EXPECT_EQ(CDnVSocket::IsSocketAvailable(8192, 1, 0, 0), kInvalidArg);
    EXPECT_EQ(CDnVSocket::IsSocketAvailable(a, 0, 0, 0), kInvalidArg);
    EXPECT_EQ(CDnVSocket::IsSocketAvailable(a, 3, 0, 0), kInvalidArg);
    EXPECT_EQ(CDnVSocket::IsSocketAvailable(a, 2, 0, 20000), 0);
    const int closed = ::dup(a);
    ::close(closed);
    EXPECT_EQ(CDnVSocket::IsSocketAvailable(closed, 1, 0, 1000), EBADF);

    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit raised = saved;
    raised.rlim_cur = std::max<rlim_t>(raised.rlim_cur, 8192);
    raised.rlim_max = std::max(raised.rlim_max, raised.rlim_cur);
    if (::setrlimit(RLIMIT_NOFILE, &raised) != 0) GTEST_SKIP() << "cannot raise RLIMIT_NOFILE";
    for (const int fd : {a, 2000, 8191}) {
        SCOPED_TRACE(fd);
        UniqueFd moved(fd == a ? -1 : ::dup2(a, fd));
        EXPECT_EQ(CDnVSocket::IsSocketAvailable(fd, 1, 0, 20000), SWG_SOCKET_TIMEOUT);
        ASSERT_TRUE(swg_test::WriteAll(b, "x", 1s));
        EXPECT_EQ(CDnVSocket::IsSocketAvailable(fd, 1, 1, 0), 0);
        char byte = 0;
        ASSERT_EQ(::recv(fd, &byte, 1, 0), 1);
    }
    ::setrlimit(RLIMIT_NOFILE, &saved);
}

// ---- connects ----------------------------------------------------------------------------

// Restores the process-wide connect timeout that a test changed.
class ConnectTest : public ::testing::TestWithParam<int> {
protected:
    void TearDown() override { CDnVSocket::m_dwTimeout = 0; }

    int Family() const { return GetParam(); }

    // Fills the accept queue of a backlog-0 listener, so the next SYN is dropped and a
    // connect to it stays pending.
    void FillBacklog(swg_test::LoopbackListener& listener) {
        for (int i = 0; i < 8; ++i) {
            UniqueFd filler(::socket(Family(), SOCK_STREAM | SOCK_NONBLOCK, 0));
            // Non-blocking: it answers EINPROGRESS; the state below is what counts.
            (void)::connect(filler.Get(), reinterpret_cast<sockaddr*>(&listener.address),
                            listener.length);
            const int state = CDnVSocket::IsSocketAvailable(filler.Get(), 2, 0, 200000);
            m_fillers.push_back(std::move(filler));
            if (state == SWG_SOCKET_TIMEOUT) return;
        }
        FAIL() << "accept queue never filled";
    }

    int Connect(CDnSocket& sock, swg_test::LoopbackListener& listener, long timeout) {
        return sock.Connect(reinterpret_cast<sockaddr*>(&listener.address),
                            static_cast<int>(listener.length), timeout);
    }

    std::vector<UniqueFd> m_fillers;
};

INSTANTIATE_TEST_SUITE_P(Families, ConnectTest, ::testing::Values(AF_INET, AF_INET6),
                         [](const ::testing::TestParamInfo<int>& param) {
                             return param.param == AF_INET ? "IPv4" : "IPv6";
                         });

// A timed connect must leave the socket blocking, or later blocking reads would spin on EAGAIN.
TEST_P(ConnectTest, TimedConnectSucceedsAndRestoresBlockingMode) {
    swg_test::LoopbackListener listener = swg_test::ListenOnLoopback(Family(), 4);
    ASSERT_NE(listener.fd.Get(), -1);
    CDnSocket sock(Family(), SOCK_STREAM, 0);
    ASSERT_EQ(Connect(sock, listener, 2), 0);
    EXPECT_EQ(::fcntl(sock.GetSocket(), F_GETFL) & O_NONBLOCK, 0);
    std::string peer;
    sock.GetPeerAddress(peer);
    EXPECT_EQ(peer, Family() == AF_INET ? "127.0.0.1" : "::1");
}

// A destination that never answers must give 60 after the timeout, given or (-1) the shared
// one, not hang or fail early.
TEST_P(ConnectTest, TimedConnectToFullBacklogTimesOut) {
    swg_test::LoopbackListener listener = swg_test::ListenOnLoopback(Family(), 0);
    ASSERT_NE(listener.fd.Get(), -1);
    FillBacklog(listener);
    CDnVSocket::m_dwTimeout = 1;
    for (const long timeout : {1L, -1L}) {
        SCOPED_TRACE(timeout);
        CDnSocket sock(Family(), SOCK_STREAM, 0);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Connect(sock, listener, timeout), SWG_SOCKET_TIMEOUT);
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_GE(took, 900ms);
        EXPECT_LT(took, 5s);
    }
}

}  // namespace
