// SPDX-License-Identifier: Apache-2.0
// Host facts the diversion depends on, read from this process's own sockets and /proc.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "platform/ServiceUtils.h"
#include "platform/linux/NftHostFacts.h"
#include "support/SocketPeers.h"

namespace {

using swg_test::UniqueFd;

// A TCP socket bound to port 0 of `address`; listening when asked. Port in host order.
UniqueFd BoundSocket(int family, bool listening, uint16_t& port) {
    UniqueFd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_storage where{};
    socklen_t length = 0;
    if (family == AF_INET) {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&where);
        v4->sin_family = AF_INET;
        v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        length = sizeof(*v4);
    } else {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&where);
        v6->sin6_family = AF_INET6;
        v6->sin6_addr = in6addr_loopback;
        length = sizeof(*v6);
    }
    if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&where), length) != 0) return UniqueFd();
    if (listening && listen(fd.Get(), 4) != 0) return UniqueFd();
    getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&where), &length);
    port = ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in*>(&where)->sin_port
                                   : reinterpret_cast<sockaddr_in6*>(&where)->sin6_port);
    return fd;
}

// Guards the listener check that holds rules back: only a listening socket counts, and
// only in its own family; from sock_diag, and from /proc where netlink is refused.
TEST(NftHostFactsTest, OnlyAListeningLoopbackSocketCounts) {
    const auto check = [] {
        for (const int family : {AF_INET, AF_INET6}) {
            SCOPED_TRACE(family);
            const int other = family == AF_INET ? AF_INET6 : AF_INET;
            uint16_t port = 0;
            UniqueFd listener = BoundSocket(family, true, port);
            if (listener.Get() < 0 && family == AF_INET6) return;  // no IPv6 loopback here
            ASSERT_GE(listener.Get(), 0);
            EXPECT_TRUE(IsLoopbackPortListening(family, port));
            EXPECT_FALSE(IsLoopbackPortListening(other, port));
            listener.Reset();
            EXPECT_FALSE(IsLoopbackPortListening(family, port));
            UniqueFd bound = BoundSocket(family, false, port);
            ASSERT_GE(bound.Get(), 0);
            EXPECT_FALSE(IsLoopbackPortListening(family, port)) << "bound but not listening";
        }
    };
    check();
    std::thread refused([&check] {
        if (!swg_test::RefuseNetlinkOnThisThread()) {
            ADD_FAILURE() << "seccomp: " << std::strerror(errno);
            return;
        }
        check();
    });
    refused.join();
}

// Guards address literals in the host lists: they resolve to themselves without a lookup.
TEST(NftHostFactsTest, LiteralsResolveToThemselvesOnce) {
    const std::vector<NftAddress> v4 = ResolveNftHostAddresses("198.18.0.1");
    ASSERT_EQ(v4.size(), 1u);
    EXPECT_EQ(v4[0].family, AF_INET);
    EXPECT_EQ(v4[0].bytes[0], 198);
    EXPECT_EQ(v4[0].bytes[3], 1);
    const std::vector<NftAddress> v6 = ResolveNftHostAddresses("2001:2::5");
    ASSERT_EQ(v6.size(), 1u);
    EXPECT_EQ(v6[0].family, AF_INET6);
    EXPECT_EQ(v6[0].bytes[15], 5);
}

// Guards the look-up of the VPN daemon by command name.
TEST(NftHostFactsTest, ProcessIsFoundByItsCommandName) {
    std::ifstream comm("/proc/self/comm");
    std::string name;
    ASSERT_TRUE(std::getline(comm, name));
    const int pid = ServiceUtils::GetPIDFromProcessName(name);
    ASSERT_GT(pid, 0);
    std::ifstream found("/proc/" + std::to_string(pid) + "/comm");
    std::string foundName;
    ASSERT_TRUE(std::getline(found, foundName));
    EXPECT_EQ(foundName, name);
    EXPECT_EQ(ServiceUtils::GetPIDFromProcessName("no-such-process"), -1);
    EXPECT_EQ(ServiceUtils::GetPIDFromProcessName(""), -1);
}

// Guards the cgroup look-up: a process that does not exist has no cgroup, with a reason.
TEST(NftHostFactsTest, MissingProcessHasNoCgroup) {
    std::string why;
    EXPECT_EQ(CgroupV2PathOf(0x7ffffff0, why), "");
    EXPECT_FALSE(why.empty());
}

}  // namespace
