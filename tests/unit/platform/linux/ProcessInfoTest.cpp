// SPDX-License-Identifier: Apache-2.0
// Executable paths and TCP socket owners read from /proc.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/ProcessInfo.h"
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

}  // namespace
