// SPDX-License-Identifier: Apache-2.0
// The lookup service on the C library's own resolver, in private mount and network namespaces.
//
// The checks run in a child process: this test started again as a death test of the
// thread-safe style (a fresh process rather than a fork: the child starts threads, which is not
// safe after forking a process that has threads of its own, as the sanitizers' runtimes do).
// The child unshares its mount and network namespaces, mounts a private tmpfs on /tmp, writes
// its own hosts, resolv.conf and nsswitch.conf there and binds them over those in /etc, brings
// up its private loopback and binds a name server on 127.0.0.1:53 that never answers. Names in
// the hosts file resolve from the file; any other name goes to that silent server and nowhere
// else: the namespace has no other interface. Failures come back on the child's standard error.
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "FakeAddressResolver.h"
#include "resolve/DnsLookup.h"
#include "support/NetnsScope.h"
#include "support/ThreadTestSupport.h"

namespace {

using swg_test::Ipv4;
using swg_test::Ipv6;

// The files put over those in /etc. One try of two seconds: a name that is not in the hosts
// file takes that long to fail.
const std::pair<const char*, const char*> kEtcFiles[] = {
    {"/etc/hosts",
     "127.0.0.1 localhost\n::1 localhost\n198.18.0.10 gateway.swg.test\n"
     "2001:db8::10 gateway.swg.test\n"},
    {"/etc/resolv.conf", "nameserver 127.0.0.1\noptions timeout:2 attempts:1\n"},
    {"/etc/nsswitch.conf", "hosts: files dns\n"},
};
// The name the silent server is asked for, as it appears in the query (RFC 1035 labels).
const char kSlowName[] = "slow.swg.test";
const char kSlowQname[] = "\x04slow\x03swg\x04test";

bool g_childFailed = false;

// Reports a failed check of the child on its standard error.
void Expect(bool ok, const std::string& what) {
    if (ok) return;
    std::fprintf(stderr, "%s\n", what.c_str());
    g_childFailed = true;
}

std::string Errno(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

// Sets up the namespaces and returns the silent name server's socket; -1 after reporting why.
int EnterPrivateNamespaces() {
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
        Expect(false, Errno("unshare(CLONE_NEWNS|CLONE_NEWNET)"));
        return -1;
    }
    // Without this the mounts would propagate back to the host.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0) {
        Expect(false, Errno("private mounts"));
        return -1;
    }
    for (const auto& [target, text] : kEtcFiles) {
        const std::string source = std::string("/tmp") + std::strrchr(target, '/');
        std::ofstream(source) << text;
        struct stat info {};
        // A missing target is left alone: nothing there to hide.
        if (stat(target, &info) == 0 &&
            mount(source.c_str(), target, nullptr, MS_BIND, nullptr) != 0) {
            Expect(false, Errno(target));
            return -1;
        }
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    up = up && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(53);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (!up || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        Expect(false, Errno("lo up and bind 127.0.0.1:53"));
        return -1;
    }
    return fd;
}

// Whether a query for the slow name reached the silent server within the hang guard.
bool QueryArrived(int fd) {
    pollfd waitFor{fd, POLLIN, 0};
    char datagram[512];
    while (poll(&waitFor, 1, 10000) == 1) {
        const ssize_t length = recv(fd, datagram, sizeof datagram, 0);
        if (length <= 0) return false;
        if (std::string(datagram, static_cast<size_t>(length)).find(kSlowQname) !=
            std::string::npos) {
            return true;
        }
    }
    return false;
}

bool AllWorkersIdle(CDnLookupThreadPool& pool) {
    return swg_test::WaitUntil([&] {
        pool.PurgeIdleThreads();
        return pool.ActiveCount() == 0;
    });
}

// The child's whole run: the process-wide instance resolves names of the hosts file forward
// and back, and a name only the silent server could answer gives 60 at its timeout while its
// worker stays in the resolver until the resolver gives up, and then comes back.
[[noreturn]] void RunChild() {
    alarm(60);
    const int nameServer = EnterPrivateNamespaces();
    CDnsLookupThread* service = nameServer >= 0 ? CDnsLookupThread::Instance(nullptr) : nullptr;
    if (service == nullptr) _exit(1);
    Expect(CDnsLookupThread::Instance(0, 2, 5, nullptr) == service,
           "a second Instance call made another object");
    CDnLookupThreadPool& pool = *service->Pool();
    Expect(pool.Minimum() == 1 && pool.Maximum() == 30, "the pool is not 1 to 30 workers");

    std::vector<unsigned int> v4;
    Expect(service->LookupIp("gateway.swg.test", 5000, AF_INET, &v4) == 0 &&
               v4 == std::vector<unsigned int>{Ipv4("198.18.0.10")},
           "gateway.swg.test is not 198.18.0.10");
    DnIPAddress* array = nullptr;
    Expect(service->LookupIp("gateway.swg.test", 5000, AF_INET6, &array) == 0,
           "all-families lookup of gateway.swg.test failed");
    bool sawV4 = false;
    bool sawV6 = false;
    for (DnIPAddress* entry = array; entry != nullptr && entry->family != 0; ++entry) {
        sawV4 = sawV4 || (entry->family == AF_INET && entry->ipv4 == Ipv4("198.18.0.10"));
        sawV6 =
            sawV6 || (entry->family == AF_INET6 &&
                      std::vector<uint8_t>(entry->ipv6, entry->ipv6 + 16) == Ipv6("2001:db8::10"));
    }
    delete[] array;
    Expect(sawV4 && sawV6, "all-families lookup lacks 198.18.0.10 or 2001:db8::10");
    unsigned int error = 99;
    Expect(
        service->LookupHostname(Ipv4("198.18.0.10"), 5000, AF_INET, &error) == "gateway.swg.test" &&
            error == 0,
        "198.18.0.10 does not resolve back to gateway.swg.test");

    AllWorkersIdle(pool);
    Expect(service->LookupIp(kSlowName, 200, AF_INET, &v4) == SWG_DNS_LOOKUP_TIMEOUT,
           "lookup of an unanswered name did not time out with 60");
    pool.PurgeIdleThreads();
    Expect(pool.ActiveCount() == 1, "the abandoned worker came back before its lookup ended");
    Expect(QueryArrived(nameServer), "no query for slow.swg.test reached 127.0.0.1:53");
    Expect(AllWorkersIdle(pool), "the abandoned worker never came back");
    _exit(g_childFailed ? 1 : 0);
}

// Guards the real resolver path: hosts-file names both ways, and 60 for an unanswered name.
TEST(SystemResolverTest, HostsFileNamesResolveAndUnansweredNameTimesOut) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to create mount and network namespaces";
    {
        const swg_test::NetnsScope probe;
        if (!probe.Entered()) GTEST_SKIP() << probe.Why();
    }
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunChild(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
