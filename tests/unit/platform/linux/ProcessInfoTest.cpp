// SPDX-License-Identifier: Apache-2.0
// Executable paths, and the owners of TCP sockets among many others.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/ProcessInfo.h"
#include "support/NetnsScope.h"
#include "support/SocketPeers.h"

namespace {

std::string OwnExecutable() {
    char path[4096] = {};
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : std::string();
}

// The path comes whole, and a buffer too small is reported rather than cut silently.
TEST(ProcessFilePathTest, GivesTheWholePathOrSaysWhyNot) {
    char path[2048];
    ASSERT_EQ(
        ServiceUtils::GetProcessFilePath(static_cast<unsigned>(::getpid()), path, sizeof(path)), 0);
    EXPECT_EQ(std::string(path), OwnExecutable());
    char tiny[4];
    EXPECT_EQ(
        ServiceUtils::GetProcessFilePath(static_cast<unsigned>(::getpid()), tiny, sizeof(tiny)),
        ERANGE);
    EXPECT_EQ(ServiceUtils::GetProcessFilePath(0x7ffffffeu, path, sizeof(path)), ENOENT);
    EXPECT_EQ(ServiceUtils::GetProcessFilePath(1, nullptr, 10), EINVAL);
}

struct Ends {
    sockaddr_storage local{};
    sockaddr_storage remote{};
};

Ends EndsOf(int fd) {
    Ends ends;
    socklen_t length = sizeof(ends.local);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&ends.local), &length);
    length = sizeof(ends.remote);
    ::getpeername(fd, reinterpret_cast<sockaddr*>(&ends.remote), &length);
    return ends;
}

class SocketOwnerTest : public ::testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Families, SocketOwnerTest, ::testing::Values(AF_INET, AF_INET6),
                         [](const ::testing::TestParamInfo<int>& param) {
                             return std::string(param.param == AF_INET6 ? "IPv6" : "IPv4");
                         });

// The client end of a connection is found by its two addresses and names this process; ends
// that match no socket have no owner.
TEST_P(SocketOwnerTest, FindsTheProcessHoldingAConnection) {
    swg_test::TcpPair pair = swg_test::MakeTcpPair(GetParam());
    ASSERT_NE(pair.a.Get(), -1);
    Ends client = EndsOf(pair.a.Get());
    const auto owner = [&] {
        return FindTcpSocketOwner(reinterpret_cast<const sockaddr*>(&client.local),
                                  reinterpret_cast<const sockaddr*>(&client.remote));
    };
    EXPECT_EQ(owner(), ::getpid());
    auto* port = GetParam() == AF_INET6 ? &reinterpret_cast<sockaddr_in6&>(client.remote).sin6_port
                                        : &reinterpret_cast<sockaddr_in&>(client.remote).sin_port;
    *port = htons(static_cast<uint16_t>(ntohs(*port) ^ 0x4000));
    EXPECT_EQ(owner(), -1);
}

// An IPv6 socket that reached an IPv4 address holds it in the mapped form in tcp6.
TEST(SocketOwnerMappedTest, FindsAnIPv6SocketHoldingAnIPv4Connection) {
    swg_test::LoopbackListener listener = swg_test::ListenOnLoopback(AF_INET, 1);
    ASSERT_NE(listener.fd.Get(), -1);
    swg_test::UniqueFd client(::socket(AF_INET6, SOCK_STREAM, 0));
    const int off = 0;
    ASSERT_EQ(::setsockopt(client.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off)), 0);
    sockaddr_in6 mapped{};
    mapped.sin6_family = AF_INET6;
    mapped.sin6_port = reinterpret_cast<sockaddr_in&>(listener.address).sin_port;
    mapped.sin6_addr.s6_addr[10] = 0xff;
    mapped.sin6_addr.s6_addr[11] = 0xff;
    mapped.sin6_addr.s6_addr[12] = 127;
    mapped.sin6_addr.s6_addr[15] = 1;
    ASSERT_EQ(::connect(client.Get(), reinterpret_cast<sockaddr*>(&mapped), sizeof(mapped)), 0);
    swg_test::UniqueFd accepted(::accept(listener.fd.Get(), nullptr, nullptr));
    // The accepted IPv4 socket sees the client as an IPv4 peer: what the listener will ask.
    const Ends server = EndsOf(accepted.Get());
    EXPECT_EQ(FindTcpSocketOwner(reinterpret_cast<const sockaddr*>(&server.remote),
                                 reinterpret_cast<const sockaddr*>(&server.local)),
              ::getpid());
}

// A socket passed over on the way to another is remembered where it was; when it has moved
// to another process since, that process is its owner, not the one it was seen in.
TEST(SocketOwnerHintTest, ASocketHandedOnIsFoundWithItsNewHolder) {
    swg_test::LoopbackListener listener = swg_test::ListenOnLoopback(AF_INET, 8);
    ASSERT_NE(listener.fd.Get(), -1);
    const auto connect = [&] {
        swg_test::UniqueFd client(::socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(::connect(client.Get(), reinterpret_cast<sockaddr*>(&listener.address),
                            listener.length),
                  0);
        return client;
    };
    const auto ownerOf = [](const Ends& ends) {
        return FindTcpSocketOwner(reinterpret_cast<const sockaddr*>(&ends.local),
                                  reinterpret_cast<const sockaddr*>(&ends.remote));
    };
    // The lowest descriptor of the lot: every walk through this process passes it first.
    swg_test::UniqueFd handed = connect();
    const Ends handedEnds = EndsOf(handed.Get());
    std::vector<swg_test::UniqueFd> others;
    for (int i = 0; i < 3; ++i) others.push_back(connect());
    // At most one of them is where this process's last socket was found; the others need
    // a walk.
    for (auto it = others.rbegin(); it != others.rend(); ++it)
        ASSERT_EQ(ownerOf(EndsOf(it->Get())), ::getpid());

    int release[2];
    ASSERT_EQ(::pipe(release), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        char byte = 0;
        ::close(release[1]);
        (void)::read(release[0], &byte, 1);
        ::_exit(0);
    }
    ::close(release[0]);
    handed.Reset();
    EXPECT_EQ(ownerOf(handedEnds), child);
    ::close(release[1]);
    ::waitpid(child, nullptr, 0);
}

// In a namespace of its own, with thousands of other sockets (half of them in TIME_WAIT), the
// owner of one connection is found by its ends whether sock_diag answers or is refused.
class CrowdedSocketOwnerTest : public ::testing::Test {
protected:
    static constexpr int kTimeWait = 2000;
    static constexpr int kHeld = 400;  // pairs: 800 descriptors

    void SetUp() override {
        if (!m_netns.Entered()) GTEST_SKIP() << "no network namespace: " << m_netns.Why();
        ASSERT_TRUE(m_netns.Run("ip link set lo up"));
        m_listener = swg_test::ListenOnLoopback(AF_INET, 4096);
        ASSERT_NE(m_listener.fd.Get(), -1);
        for (int i = 0; i < kTimeWait + kHeld; ++i) {
            swg_test::UniqueFd client = Connect();
            swg_test::UniqueFd server(::accept(m_listener.fd.Get(), nullptr, nullptr));
            ASSERT_NE(server.Get(), -1);
            if (i < kHeld) {
                m_held.push_back(std::move(client));
                m_held.push_back(std::move(server));
            } else {
                // The client closes first, so its end goes to TIME_WAIT.
                if (i == kHeld) m_timeWait = EndsOf(client.Get());
                client.Reset();
            }
        }
        // Another process holds a connection of its own, made after the fork.
        ASSERT_EQ(::pipe(m_release), 0);
        m_child = ::fork();
        if (m_child == 0) {
            const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
            // The child cannot report; the parent's accept below is what sees the connection.
            (void)::connect(fd, reinterpret_cast<sockaddr*>(&m_listener.address),
                            m_listener.length);
            char byte = 0;
            ::close(m_release[1]);
            (void)::read(m_release[0], &byte, 1);
            ::_exit(0);
        }
        ::close(m_release[0]);
        swg_test::UniqueFd accepted(::accept(m_listener.fd.Get(), nullptr, nullptr));
        const Ends server = EndsOf(accepted.Get());
        m_childEnds.local = server.remote;
        m_childEnds.remote = server.local;
        m_held.push_back(std::move(accepted));
        m_own = Connect();
        m_ownEnds = EndsOf(m_own.Get());
    }

    void TearDown() override {
        if (m_child <= 0) return;
        ::close(m_release[1]);
        ::waitpid(m_child, nullptr, 0);
    }

    swg_test::UniqueFd Connect() {
        swg_test::UniqueFd client(::socket(AF_INET, SOCK_STREAM, 0));
        if (::connect(client.Get(), reinterpret_cast<sockaddr*>(&m_listener.address),
                      m_listener.length) != 0)
            ADD_FAILURE() << "connect: " << std::strerror(errno);
        return client;
    }

    static int32_t OwnerOf(const Ends& ends) {
        return FindTcpSocketOwner(reinterpret_cast<const sockaddr*>(&ends.local),
                                  reinterpret_cast<const sockaddr*>(&ends.remote));
    }

    void ExpectOwners() {
        EXPECT_EQ(OwnerOf(m_ownEnds), ::getpid());
        EXPECT_EQ(OwnerOf(m_childEnds), m_child);
        EXPECT_EQ(OwnerOf(m_timeWait), -1);
    }

    swg_test::NetnsScope m_netns;
    swg_test::LoopbackListener m_listener;
    std::vector<swg_test::UniqueFd> m_held;
    swg_test::UniqueFd m_own;
    Ends m_ownEnds;
    Ends m_childEnds;
    Ends m_timeWait;
    int m_release[2] = {-1, -1};
    pid_t m_child = -1;
};

TEST_F(CrowdedSocketOwnerTest, FindsTheRightProcessWithAndWithoutSockDiag) {
    ExpectOwners();
    // A thread started here shares the namespace; its filter stays with it.
    std::thread refused([this] {
        if (!swg_test::RefuseNetlinkOnThisThread()) {
            ADD_FAILURE() << "seccomp: " << std::strerror(errno);
            return;
        }
        ASSERT_EQ(::socket(AF_NETLINK, SOCK_DGRAM, 0), -1);
        ExpectOwners();
    });
    refused.join();
}

}  // namespace
