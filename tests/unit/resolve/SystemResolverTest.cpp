// SPDX-License-Identifier: Apache-2.0
// The lookup service on the C library's own resolver, in private mount and network namespaces.
//
// A child process (this test binary, started again for this one test) unshares its mount and
// network namespaces, bind-mounts its own hosts, resolv.conf and nsswitch.conf over those in /etc,
// brings up its private loopback and binds a name server on 127.0.0.1:53 that never answers. Names
// in the hosts file resolve from the file; any other name goes to that silent server and nowhere
// else: the namespace has no other interface. Checks run in the child and their failures come back
// over a pipe.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "FakeAddressResolver.h"
#include "resolve/DnsLookup.h"
#include "unit/foundation/ThreadTestSupport.h"

namespace {

using swg_test::Ipv4;
using swg_test::Ipv6;

constexpr int kChildSkipped = 77;
// Set in the child's environment: the folder of its files, and the descriptor of the pipe.
const char kChildDirVariable[] = "SWG_RESOLVE_NAMESPACE_DIR";
const char kChildPipeVariable[] = "SWG_RESOLVE_NAMESPACE_PIPE";
constexpr unsigned int kChildAlarmSeconds = 60;

const char kHosts[] =
    "127.0.0.1 localhost\n"
    "::1 localhost\n"
    "198.18.0.10 gateway.swg.test\n"
    "2001:db8::10 gateway.swg.test\n";
// One try of two seconds: a name that is not in the hosts file takes that long to fail.
const char kResolvConf[] =
    "nameserver 127.0.0.1\n"
    "options timeout:2 attempts:1\n";
const char kNsswitch[] = "hosts: files dns\n";
// The name the silent server is asked for, as it appears in the query (RFC 1035 labels).
const char kSlowName[] = "slow.swg.test";
const char kSlowQname[] = "\x04slow\x03swg\x04test";

std::string Errno(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

// Failures of the checks in the child, one per line.
class ChildChecks {
public:
    void Expect(bool ok, const std::string& what) {
        if (!ok) m_failures += what + "\n";
    }
    const std::string& Failures() const { return m_failures; }

private:
    std::string m_failures;
};

// Binds `source` over `target`; a missing target is left alone (nothing there to hide).
bool BindOver(const std::string& source, const char* target, std::string& why) {
    struct stat info {};
    if (stat(target, &info) != 0) return true;
    if (mount(source.c_str(), target, nullptr, MS_BIND, nullptr) != 0) {
        why = Errno(target);
        return false;
    }
    return true;
}

bool BringUpLoopback(std::string& why) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        why = Errno("socket");
        return false;
    }
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    ok = ok && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    if (!ok) why = Errno("lo up");
    close(fd);
    return ok;
}

// A UDP socket on 127.0.0.1:53 that is never read until the test looks at what arrived.
int BindSilentNameServer(std::string& why) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(53);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        why = Errno("bind 127.0.0.1:53");
        if (fd >= 0) close(fd);
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

// Sets up the namespaces. Returns "" or why not; `skip` tells a missing privilege.
std::string EnterPrivateNamespaces(const std::string& dir, bool& skip, int& nameServer) {
    skip = false;
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
        skip = true;
        return Errno("unshare(CLONE_NEWNS|CLONE_NEWNET)");
    }
    // Without this the bind mounts would propagate back to the host's /etc.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return Errno("make mounts private");
    }
    std::string why;
    if (!BindOver(dir + "/hosts", "/etc/hosts", why) ||
        !BindOver(dir + "/resolv.conf", "/etc/resolv.conf", why) ||
        !BindOver(dir + "/nsswitch.conf", "/etc/nsswitch.conf", why) || !BringUpLoopback(why)) {
        return why;
    }
    nameServer = BindSilentNameServer(why);
    return why;
}

void CheckHostsFileLookups(CDnsLookupThread& service, ChildChecks& checks) {
    std::vector<unsigned int> v4;
    checks.Expect(service.LookupIp("gateway.swg.test", 5000, AF_INET, &v4) == 0,
                  "IPv4 lookup of gateway.swg.test failed");
    checks.Expect(v4 == std::vector<unsigned int>{Ipv4("198.18.0.10")},
                  "gateway.swg.test is not 198.18.0.10");

    DnIPAddress* array = nullptr;
    checks.Expect(service.LookupIp("gateway.swg.test", 5000, AF_INET6, &array) == 0,
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
    checks.Expect(sawV4 && sawV6, "all-families lookup lacks 198.18.0.10 or 2001:db8::10");

    unsigned int error = 99;
    checks.Expect(
        service.LookupHostname(Ipv4("198.18.0.10"), 5000, AF_INET, &error) == "gateway.swg.test",
        "198.18.0.10 does not resolve back to gateway.swg.test");
    checks.Expect(error == 0, "reverse lookup reported an error");
}

// A lookup that only the silent server could answer gives 60 at its timeout, while its worker
// stays in the resolver until the resolver gives up, and then comes back.
void CheckAbandonedLookup(CDnsLookupThread& service, int nameServer, ChildChecks& checks) {
    CDnLookupThreadPool& pool = *service.Pool();
    swg_test::WaitUntil([&] {
        pool.PurgeIdleThreads();
        return pool.ActiveCount() == 0;
    });
    std::vector<unsigned int> v4;
    checks.Expect(service.LookupIp(kSlowName, 200, AF_INET, &v4) == SWG_DNS_LOOKUP_TIMEOUT,
                  "lookup of an unanswered name did not time out with 60");
    pool.PurgeIdleThreads();
    checks.Expect(pool.ActiveCount() == 1,
                  "the abandoned worker came back before its lookup ended");
    checks.Expect(QueryArrived(nameServer), "no query for slow.swg.test reached 127.0.0.1:53");
    checks.Expect(swg_test::WaitUntil([&] {
                      pool.PurgeIdleThreads();
                      return pool.ActiveCount() == 0;
                  }),
                  "the abandoned worker never came back");
}

// The child's whole run; returns its exit code and writes failures to `out`.
int RunChild(const std::string& dir, int out) {
    alarm(kChildAlarmSeconds);
    bool skip = false;
    int nameServer = -1;
    std::string report = EnterPrivateNamespaces(dir, skip, nameServer);
    if (report.empty()) {
        ChildChecks checks;
        long error = 0;
        CDnsLookupThread* service = CDnsLookupThread::Instance(&error);
        checks.Expect(service != nullptr, "Instance failed");
        if (service != nullptr) {
            checks.Expect(CDnsLookupThread::Instance(0, 2, 5, nullptr) == service,
                          "a second Instance call made another object");
            checks.Expect(service->Pool()->Minimum() == 1 && service->Pool()->Maximum() == 30,
                          "the instance's pool is not 1 to 30 workers");
            CheckHostsFileLookups(*service, checks);
            CheckAbandonedLookup(*service, nameServer, checks);
        }
        report = checks.Failures();
    }
    if (!report.empty() && write(out, report.data(), report.size()) < 0) report = "?";
    if (skip) return kChildSkipped;
    return report.empty() ? 0 : 1;
}

void WriteFile(const std::string& path, const char* text) {
    std::ofstream file(path);
    file << text;
}

class SystemResolverTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (getenv(kChildDirVariable) != nullptr) return;  // the child uses its parent's folder
        char pattern[] = "/tmp/swg-resolve-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        WriteFile(dir + "/hosts", kHosts);
        WriteFile(dir + "/resolv.conf", kResolvConf);
        WriteFile(dir + "/nsswitch.conf", kNsswitch);
    }
    void TearDown() override {
        if (dir.empty()) return;
        for (const char* name : {"/hosts", "/resolv.conf", "/nsswitch.conf"}) {
            unlink((dir + name).c_str());
        }
        rmdir(dir.c_str());
    }

    std::string dir;
};

// Starts this binary again, running only the current test, as the namespace child. A fresh
// process rather than a plain fork: the child starts threads, which is not safe after forking a
// process that has threads of its own (as the sanitizers' runtimes do).
pid_t SpawnChild(const std::string& dir, int pipeWrite, int pipeRead) {
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter =
        std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
    environment.push_back(std::string(kChildDirVariable) + "=" + dir);
    environment.push_back(std::string(kChildPipeVariable) + "=" + std::to_string(pipeWrite));
    std::vector<char*> envp;
    for (std::string& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::string program = "/proc/self/exe";
    std::vector<char*> argv = {program.data(), const_cast<char*>(filter.c_str()), nullptr};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addclose(&actions, pipeRead);
    // The child's own test report would only repeat what comes back over the pipe.
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    if (posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), envp.data()) != 0) {
        child = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return child;
}

// Guards the real path end to end: names from a hosts file resolve forward and back through
// getaddrinfo and getnameinfo on the pool, and a name the resolver cannot answer in time gives
// 60 while its worker waits out the resolver.
TEST_F(SystemResolverTest, HostsFileNamesResolveAndUnansweredNameTimesOut) {
    if (const char* childDir = getenv(kChildDirVariable)) {
        const char* pipeText = getenv(kChildPipeVariable);
        _exit(RunChild(childDir, pipeText != nullptr ? atoi(pipeText) : -1));
    }
    if (geteuid() != 0) GTEST_SKIP() << "needs root to create mount and network namespaces";

    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    const pid_t child = SpawnChild(dir, pipeEnds[1], pipeEnds[0]);
    close(pipeEnds[1]);
    if (child < 0) close(pipeEnds[0]);
    ASSERT_GT(child, 0) << "cannot start the child";
    std::string report;
    char chunk[256];
    ssize_t length = 0;
    while ((length = read(pipeEnds[0], chunk, sizeof chunk)) > 0) {
        report.append(chunk, static_cast<size_t>(length));
    }
    close(pipeEnds[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "child ended by signal " << WTERMSIG(status);
    if (WEXITSTATUS(status) == kChildSkipped) GTEST_SKIP() << report;
    EXPECT_EQ(WEXITSTATUS(status), 0) << report;
    EXPECT_EQ(report, "");
}

}  // namespace
