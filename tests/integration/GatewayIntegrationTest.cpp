// SPDX-License-Identifier: Apache-2.0
// Through the gateway and around it: real clients, the agent's listener, the test gateway and
// origin servers on test hosts, each in network namespaces of the test's own.
//
// Peers, per test:
//   agent namespace (the test's main thread, unshared): lo with the listener on 127.0.0.1:5002,
//     an nftables rule that diverts curl's connections to the origin there (the agent's own
//     marked sockets pass), curl; routes 198.18.1.0/24 to the gateway and 198.18.2.0/24 to the
//     origin, forwards between them, and has 198.18.3.0/24 unreachable. Its own /etc/hosts (mount
//     namespace): gateway.swg.test 198.18.1.2, gateway-down.swg.test 198.18.3.9, origin.swg.test
//     198.18.2.2; no DNS.
//   gateway namespace: swg-test-gateway on 198.18.1.2 and 198.18.1.3, ports 443 and 80.
//   origin namespace: openssl s_server -WWW on 198.18.2.2:443, a small HTTP server on :80.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "core/SWGAgent.h"
#include "foundation/MsgCatalog.h"
#include "proxy/ListenThread.h"
#include "support/GatewayProcess.h"
#include "support/SocketPeers.h"
#include "support/TempFolder.h"
#include "support/TestServers.h"
#include "support/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using swg_test::UniqueFd;

constexpr const char* kGateway = "198.18.1.2";
constexpr const char* kOrigin = "198.18.2.2";
constexpr const char* kUnreachable = "198.18.3.9";

const std::string kGatewayBinary =
    std::string(SWG_BINARY_DIR) + "/tools/test-gateway/swg-test-gateway";
const std::string kSample = std::string(SWG_SOURCE_DIR) + "/packaging/sample/licence-test-";

// Files only: a name that is not in the hosts file fails at once and no query leaves the host.
const std::map<std::string, std::string> kEtc = {
    {"hosts",
     "127.0.0.1 localhost\n::1 localhost\n198.18.1.2 gateway.swg.test\n"
     "198.18.3.9 gateway-down.swg.test\n198.18.2.2 origin.swg.test\n"},
    {"nsswitch.conf", "hosts: files\n"},
    {"resolv.conf", "nameserver 127.0.0.1\n"}};
const char* const kEnvironment[] = {"LC_ALL", "LC_MESSAGES", "LANG", "SWG_DATA_ROOT"};

const std::string kHttpsBody = "<html><body>origin over TLS</body></html>\n";
const std::string kHttpBody = "plain origin page\n";
const char kLicenceOk[] =
    "licence ok org=org-4711 device=device-9f1c user=Hjane.doe@corp.test "
    "overlay=Hoverlay-user key-id=sample-key-1";
const char kConnectFailed[] = "Connection : Failed to connect externally. Code : ";
const char kBypassRetry[] = "Connection : Retrying in bypass mode. CMode : 2 TMode : 0";
const char kFailClosePage[] = "HTTP/1.1 499 Fail close\r\n";

int Shell(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str());
}

std::string ReadFile(const std::string& path) { return swg_test::ReadTextFile(path); }

std::string IpProgram() {
    return ::access("/usr/sbin/ip", X_OK) == 0 ? "/usr/sbin/ip" : "/sbin/ip";
}

// Runs `body` on a thread that has entered the network namespace /run/netns/`name`; sockets it
// creates belong there.
bool InNamespace(const std::string& name, const std::function<void()>& body) {
    bool entered = false;
    std::thread helper([&] {
        const int fd = ::open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return;
        entered = ::setns(fd, CLONE_NEWNET) == 0;
        ::close(fd);
        if (entered) body();
    });
    helper.join();
    return entered;
}

struct CurlResult {
    int exit = -1;
    std::string out;  // what curl wrote: with -i the status line and headers too
    std::string err;
    Clock::duration took{};
};

enum class Policy { FailOpen, FailClose, Portal };
const char* const kPolicyNames[] = {"FailOpen", "FailClose", "CaptivePortal"};

std::string HttpBodyOf(const std::string& response) {
    const std::size_t end = response.find("\r\n\r\n");
    return end == std::string::npos ? std::string() : response.substr(end + 4);
}

class GatewayIntegrationTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root: the agent, gateway and origin run in network namespaces";
        if (::unshare(CLONE_NEWNS | CLONE_NEWNET) != 0)
            GTEST_SKIP() << "unshare(CLONE_NEWNS|CLONE_NEWNET) failed: " << std::strerror(errno);
        // Without this the bind mounts below would reach the host's /etc.
        ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        for (const auto& file : kEtc) {
            std::ofstream(Path(file.first), std::ios::binary) << file.second;
            const std::string target = "/etc/" + file.first;
            ASSERT_EQ(::mount(Path(file.first).c_str(), target.c_str(), nullptr, MS_BIND, nullptr),
                      0)
                << target << ": " << std::strerror(errno);
            m_bound = true;
        }
        static int s_serial = 0;
        const std::string suffix = std::to_string(::getpid()) + "x" + std::to_string(++s_serial);
        m_gatewayNs = "swggw" + suffix;
        m_originNs = "swgor" + suffix;
        ASSERT_NO_FATAL_FAILURE(BuildNetwork());

        m_savedOrgInfo = g_pSWGAgent->GetOrgInfo();
        g_pSWGAgent->SetCaptivePortalMode(false);
        g_pSWGAgent->SetCaptivePortalDownloader(nullptr);
        for (const char* name : kEnvironment) {
            if (const char* value = ::getenv(name)) m_savedEnvironment[name] = value;
            ::unsetenv(name);
        }
        ::setenv("LANG", "C", 1);
        ::setenv("SWG_DATA_ROOT", m_folder.Path().c_str(), 1);
        MsgCatalog::Uninitialize();
        Configure([](CSWGAgent::ORGINFO&) {});

        ASSERT_NO_FATAL_FAILURE(StartOrigin());
        m_listener = std::make_unique<CDnListenThread>();
        ASSERT_TRUE(m_listener->Initialize(false));
        ASSERT_EQ(m_listener->StartThread(), 0);
        ASSERT_TRUE(swg_test::WaitUntil([&] { return m_listener->IsListening(); }));
    }

    void TearDown() override {
        if (m_listener) m_listener->Deinitialize();
        m_listener.reset();
        m_gatewayProcess.reset();
        m_tlsOrigin.reset();
        m_httpOrigin.reset();
        if (!m_gatewayNs.empty()) {
            g_pSWGAgent->SetOrgInfo(m_savedOrgInfo);
            g_pSWGAgent->SetCaptivePortalMode(false);
            g_pSWGAgent->SetCaptivePortalDownloader(nullptr);
            for (const char* name : kEnvironment) ::unsetenv(name);
            for (const auto& entry : m_savedEnvironment)
                ::setenv(entry.first.c_str(), entry.second.c_str(), 1);
            MsgCatalog::Uninitialize();
            Shell("ip netns del " + m_gatewayNs);
            Shell("ip netns del " + m_originNs);
        }
        // The files behind the binds go with the temporary folder; a later test binds anew.
        for (const auto& file : kEtc) {
            if (m_bound) ::umount2(("/etc/" + file.first).c_str(), MNT_DETACH);
        }
        m_bound = false;
    }

    std::string Path(const std::string& name) const { return m_folder.Path() + "/" + name; }

    // Veth pair i joins this namespace (198.18.<i+1>.1) to the peer's (198.18.<i+1>.2).
    void BuildNetwork() {
        std::vector<std::string> commands = {"ip link set lo up",
                                             "sysctl -qw net.ipv4.ip_forward=1",
                                             "ip route add unreachable 198.18.3.0/24"};
        const std::string peers[] = {m_gatewayNs, m_originNs};
        for (int i = 0; i < 2; ++i) {
            const std::string in = "ip -n " + peers[i] + " ",
                              net = "198.18." + std::to_string(i + 1);
            const std::string a = "swga" + std::to_string(i), b = "swgb" + std::to_string(i);
            for (const std::string& command :
                 {"ip netns add " + peers[i],
                  "ip link add " + a + " type veth peer name " + b + " netns " + peers[i],
                  "ip addr add " + net + ".1/24 dev " + a, "ip link set " + a + " up",
                  in + "link set lo up", in + "addr add " + net + ".2/24 dev " + b,
                  in + "link set " + b + " up", in + "route add default via " + net + ".1"})
                commands.push_back(command);
        }
        commands.push_back("ip -n " + m_gatewayNs + " addr add 198.18.1.3/24 dev swgb0");
        commands.push_back(
            "nft add table ip swgdivert && nft add chain ip swgdivert out '{ type "
            "nat hook output priority -100; }' && nft add rule ip swgdivert out "
            "ip daddr 198.18.2.2 meta mark != 0x5347 tcp dport '{ 80, 443 }' "
            "redirect to :5002");
        for (const std::string& command : commands) ASSERT_EQ(Shell(command), 0) << command;
    }

    // s_server -WWW serves files of its working folder, so it starts from the temporary one.
    void StartOrigin() {
        std::ofstream(Path("index.html"), std::ios::binary) << kHttpsBody;
        const std::string cd = "cd " + m_folder.Path() + " && ";
        ASSERT_EQ(Shell(cd + "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 "
                             "-nodes -keyout origin-key.pem -out origin-cert.pem -days 2 "
                             "-subj /CN=origin.swg.test -addext "
                             "subjectAltName=DNS:origin.swg.test"),
                  0);
        std::string error;
        m_tlsOrigin = std::make_unique<swg_test::CGatewayProcess>();
        ASSERT_TRUE(m_tlsOrigin->Start(
            "/bin/sh",
            {"-c", cd + "exec " + IpProgram() + " netns exec " + m_originNs +
                       " openssl s_server -accept 443 -WWW -cert origin-cert.pem -key "
                       "origin-key.pem </dev/null"},
            Path("s_server.out"), 10s, error, "ACCEPT"))
            << error;
        ASSERT_TRUE(InNamespace(m_originNs, [&] {
            m_httpOrigin = std::make_unique<swg_test::TestServer>(
                swg_test::Endpoint(kOrigin, 80), [this](int fd) { ServeHttp(fd); });
        }));
        ASSERT_TRUE(m_httpOrigin->Ok());
    }

    // The origin's plain HTTP server: keeps the header block it was sent, answers kHttpBody.
    void ServeHttp(int fd) {
        std::string request;
        char buffer[4096];
        while (request.find("\r\n\r\n") == std::string::npos && swg_test::WaitReadable(fd, 5s)) {
            const ssize_t count = ::recv(fd, buffer, sizeof(buffer), 0);
            if (count <= 0) break;
            request.append(buffer, static_cast<std::size_t>(count));
        }
        {
            std::lock_guard<std::mutex> hold(m_requestsLock);
            m_requests.push_back(request);
        }
        (void)swg_test::WriteAll(fd,
                                 "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
                                     std::to_string(kHttpBody.size()) +
                                     "\r\nConnection: close\r\n\r\n" + kHttpBody,
                                 5s);
    }

    // Starts the gateway with `faults` for every request.
    void StartGateway(const std::vector<std::string>& faults = {}) {
        std::vector<std::string> args = {
            "netns",       "exec",      m_gatewayNs,  kGatewayBinary, "--listen",
            "0.0.0.0:443", "--listen",  "0.0.0.0:80", "--key",        kSample + "private.pem",
            "--log",       GatewayLog()};
        for (const std::string& fault : faults) {
            args.push_back("--fault");
            args.push_back(fault);
        }
        m_gatewayProcess = std::make_unique<swg_test::CGatewayProcess>();
        std::string error;
        ASSERT_TRUE(m_gatewayProcess->Start(IpProgram(), args, Path("gateway.out"), 10s, error))
            << error;
    }
    std::string GatewayLog() const { return Path("gateway.log"); }
    int GatewayLines(const std::string& text) {
        return swg_test::CountLinesWith(GatewayLog(), text);
    }

    // The configuration: the sample organisation's identity and key, the gateway by name.
    void Configure(const std::function<void(CSWGAgent::ORGINFO&)>& edit) {
        CSWGAgent::ORGINFO info;
        info.strOrgId = "org-4711";
        info.strDeviceId = "device-9f1c";
        info.strPstrUserId = "Hjane.doe@corp.test";
        info.strOverlayUser = "Hoverlay-user";
        info.strHostname = "unused.swg.test";
        info.strpKeyPem = ReadFile(kSample + "public.pem");
        info.strpKeyId = "sample-key-1";
        info.strSWGDomain = "gateway.swg.test";
        info.bFailOpen = false;
        edit(info);
        g_pSWGAgent->SetOrgInfo(info);
    }

    // `policy` in force, with the gateway named `domain`.
    void ApplyPolicy(Policy policy, const std::string& domain = "gateway.swg.test") {
        Configure([&](CSWGAgent::ORGINFO& info) {
            info.strSWGDomain = domain;
            info.bFailOpen = policy == Policy::FailOpen;
            info.strSWGEchoService = "http://echo.swg.test/echo";
        });
        // The probe's answer: a portal's redirect, or the echo service's own text.
        const bool portal = policy == Policy::Portal;
        g_pSWGAgent->SetCaptivePortalDownloader(
            [portal](const std::string&, std::string& headers, std::string& body, long, uint16_t) {
                headers = portal ? "HTTP/1.1 302 Found\r\nLocation: http://portal.swg.test/\r\n\r\n"
                                 : "HTTP/1.1 200 OK\r\n\r\n";
                body = portal ? "" : "Success";
                return 0L;
            });
    }

    CurlResult Curl(const std::string& url, bool headers) {
        const std::string command = "curl -sS --noproxy '*' --max-time 30 " +
                                    std::string(headers ? "-i " : "") + "--cacert " +
                                    Path("origin-cert.pem") + " " + url + " -o " +
                                    Path("curl.out") + " 2>" + Path("curl.err");
        ::unlink(Path("curl.out").c_str());
        CurlResult result;
        const auto started = Clock::now();
        const int status = std::system(command.c_str());
        result.took = Clock::now() - started;
        result.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.out = ReadFile(Path("curl.out"));
        result.err = ReadFile(Path("curl.err"));
        return result;
    }
    CurlResult Https() { return Curl("https://origin.swg.test/index.html", false); }
    CurlResult Http() { return Curl("http://origin.swg.test/page.html", true); }

    // How many times a failed gateway step at `stage` was turned to bypass by `policy`.
    int TurnedToBypass(Policy policy, const std::string& stage) {
        const std::string why =
            policy == Policy::Portal ? "Since CP detected . " : "Since fail open policy set. ";
        return m_trace.CountPrefix(
            WARN, why + "TCP handshake to SWG Proxy URL was successful [Failure: " + stage +
                      "], try connection in bypass mode");
    }

    swg_test::TempFolder m_folder;
    swg_test::RecordingTrace m_trace;
    bool m_bound = false;
    std::string m_gatewayNs;
    std::string m_originNs;
    CSWGAgent::ORGINFO m_savedOrgInfo;
    std::map<std::string, std::string> m_savedEnvironment;
    std::unique_ptr<swg_test::CGatewayProcess> m_tlsOrigin;
    std::unique_ptr<swg_test::TestServer> m_httpOrigin;
    std::mutex m_requestsLock;
    std::vector<std::string> m_requests;  // header blocks the HTTP origin was sent
    std::unique_ptr<swg_test::CGatewayProcess> m_gatewayProcess;
    std::unique_ptr<CDnListenThread> m_listener;
};

// ---- through the gateway --------------------------------------------------------------------

// A TLS client's bytes altered in the CONNECT tunnel, or a CONNECT without the licence that
// the gateway opens to the configured identity.
TEST_F(GatewayIntegrationTest, HttpsThroughTheGatewayDeliversTheOriginsContent) {
    StartGateway();
    const CurlResult result = Https();
    EXPECT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(result.out, kHttpsBody);
    EXPECT_TRUE(swg_test::WaitForLines(GatewayLog(), "result tunnel", 1, 5s));
    EXPECT_EQ(GatewayLines("CONNECT 198.18.2.2:443"), 1);
    EXPECT_EQ(GatewayLines("result tunnel no-via"), 0);
    EXPECT_EQ(GatewayLines(kLicenceOk), 1) << ReadFile(GatewayLog());
    EXPECT_EQ(m_trace.Count(THREAD, "Connection : Success in converting domain name to IP"), 1);
}

// An HTTP client's header block not sent to the gateway's port 80 with the licence added, or
// the licence leaking on to the origin named in Host.
TEST_F(GatewayIntegrationTest, HttpThroughTheGatewayDeliversTheOriginsContent) {
    StartGateway();
    const CurlResult result = Http();
    EXPECT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(HttpBodyOf(result.out), kHttpBody);
    EXPECT_TRUE(swg_test::WaitForLines(GatewayLog(), "result forward", 1, 5s));
    EXPECT_EQ(GatewayLines("HTTP GET origin.swg.test/page.html"), 1);
    EXPECT_EQ(GatewayLines(kLicenceOk), 1) << ReadFile(GatewayLog());
    m_httpOrigin->Stop();  // its handlers are done with m_requests
    ASSERT_EQ(m_requests.size(), 1u);
    EXPECT_EQ(m_requests[0].rfind("GET /page.html HTTP/1.1\r\n", 0), 0u) << m_requests[0];
    EXPECT_EQ(m_requests[0].find("X-SWG-Licence"), std::string::npos);
}

// ---- the failure table ----------------------------------------------------------------------

class FailureRowTest : public GatewayIntegrationTest, public ::testing::WithParamInterface<Policy> {
protected:
    bool Bypasses() const { return GetParam() != Policy::FailClose; }
};

// Connecting to the gateway fails twice: fail open and a portal must retry in bypass, fail
// close must answer with the refusal page.
TEST_P(FailureRowTest, GatewayConnectFailsTwice) {
    StartGateway();
    ApplyPolicy(GetParam(), kUnreachable);
    const CurlResult result = Http();
    EXPECT_GE(result.took, 1s);  // the pause between the two attempts
    EXPECT_EQ(m_trace.CountPrefix(ERR, kConnectFailed), 2);
    if (Bypasses()) {
        EXPECT_EQ(result.exit, 0) << result.err;
        EXPECT_EQ(HttpBodyOf(result.out), kHttpBody);
        EXPECT_EQ(m_httpOrigin->Accepted(), 1);
        EXPECT_EQ(m_trace.Count(TRACE, kBypassRetry), 1);
    } else {
        EXPECT_EQ(result.out.rfind("HTTP/1.1 499 Fail close\r\nContent-Length: 317\r\n", 0), 0u)
            << result.out;
        EXPECT_NE(result.out.find("Could not establish a connection. Fail close policy set."),
                  std::string::npos);
        EXPECT_EQ(m_httpOrigin->Accepted(), 0);
    }
    EXPECT_EQ(g_pSWGAgent->IsCaptivePortalMode(), GetParam() == Policy::Portal);
    EXPECT_EQ(GatewayLines("HTTP "), 0);
}

// The header block cannot be written to the destination either (it resets): the one bypass
// retry is all there is, and the client is closed, not left to a loop of connects.
TEST_P(FailureRowTest, HttpHeaderBlockCannotBeWrittenToTheDestinationEither) {
    StartGateway({"refuse"});
    ApplyPolicy(GetParam());
    const auto started = Clock::now();
    // Nothing listens on the origin's port 81.
    UniqueFd client = swg_test::ListenerClient(
        swg_test::Endpoint(kOrigin, 81), "GET / HTTP/1.1\r\nHost: origin.swg.test:81\r\n\r\n");
    EXPECT_EQ(swg_test::ReadToEnd(client.Get(), 5s), "");
    EXPECT_LT(Clock::now() - started, 3s);
    // Once to the gateway, once to the destination under fail open or a portal.
    EXPECT_EQ(m_trace.CountPrefix(BRIDGE, "Connection : Connecting to "), Bypasses() ? 2 : 1);
}

// The portal's rows of the policy table are FailureTableTest's (proxy); here the bypass under a
// portal is the step row's below.
INSTANTIATE_TEST_SUITE_P(Policies, FailureRowTest,
                         ::testing::Values(Policy::FailOpen, Policy::FailClose),
                         [](const ::testing::TestParamInfo<Policy>& param) {
                             return kPolicyNames[static_cast<int>(param.param)];
                         });

// Fail open with neither the gateway nor the destination in reach: the one bypass retry fails
// too, and the client must see only the close, no page.
TEST_F(GatewayIntegrationTest, FailOpenRetryThatFailsTooJustCloses) {
    StartGateway();
    ApplyPolicy(Policy::FailOpen, kUnreachable);
    UniqueFd client =
        swg_test::ListenerClient(swg_test::Endpoint(kUnreachable, 80),
                                 "GET / HTTP/1.1\r\nHost: gateway-down.swg.test\r\n\r\n");
    EXPECT_EQ(swg_test::ReadToEnd(client.Get(), 10s), "");
    EXPECT_EQ(m_trace.Count(TRACE, kBypassRetry), 1);
    EXPECT_EQ(m_trace.CountPrefix(ERR, "Connection : Retry failed. Code : "), 1);
}

// A gateway step that fails after the connect was made: the gateway resets (so the CONNECT or
// the HTTP header block cannot be written), or its answer to CONNECT fails the check (no Via,
// a close, bytes that are not HTTP). Fail open and a portal must go to the origin in bypass,
// fail close must close with the row's error and no page.
struct StepRow {
    const char* name;
    const char* fault;
    bool https;
    const char* stage;       // as the bypass warning names it
    const char* closeError;  // what fail close logs at ERR
};
const StepRow kStepRows[] = {
    {"ConnectCannotBeWritten", "refuse", true, "Writing HTTPs Headers",
     "Connection : Failed to connect to tower 198.18.1.2:443"},
    {"HttpHeaderBlockCannotBeWritten", "refuse", false, "Writing HTTP Headers",
     "Connection : Failed to write back headers. Code : "},
    {"AnswerWithoutVia", "no-via", true, "Reading HTTPs Headers",
     "Connection : Failed to process response from tower 198.18.1.2:443."},
    {"CloseAfterConnect", "close-after-connect", true, "Reading HTTPs Headers",
     "Connection : Failed to process response from tower 198.18.1.2:443."},
    {"GarbageAnswer", "garbage", true, "Reading HTTPs Headers",
     "Connection : Failed to process response from tower 198.18.1.2:443."},
};

void PrintTo(const StepRow& row, std::ostream* out) { *out << row.name; }
void PrintTo(Policy policy, std::ostream* out) { *out << kPolicyNames[static_cast<int>(policy)]; }

class StepRowTest : public GatewayIntegrationTest,
                    public ::testing::WithParamInterface<std::tuple<Policy, StepRow>> {};

TEST_P(StepRowTest, FailedGatewayStepBypassesOrCloses) {
    const Policy policy = std::get<0>(GetParam());
    const StepRow& row = std::get<1>(GetParam());
    const bool bypasses = policy != Policy::FailClose;
    ApplyPolicy(policy);
    StartGateway({row.fault});
    const CurlResult result = row.https ? Https() : Http();
    EXPECT_EQ(m_trace.CountPrefix(ERR, kConnectFailed), 0);
    EXPECT_EQ(TurnedToBypass(policy, row.stage), bypasses ? 1 : 0);
    EXPECT_EQ(m_trace.CountPrefix(ERR, row.closeError), bypasses ? 0 : 1);
    if (bypasses) {
        EXPECT_EQ(result.exit, 0) << result.err;
        EXPECT_EQ(row.https ? result.out : HttpBodyOf(result.out),
                  row.https ? kHttpsBody : kHttpBody);
    } else {
        EXPECT_NE(result.exit, 0);
        EXPECT_EQ(result.out, "");
    }
    if (!row.https) {
        EXPECT_EQ(m_httpOrigin->Accepted(), bypasses ? 1 : 0);
        m_httpOrigin->Stop();  // its handlers are done with m_requests
        // The licence lines are for the gateway alone, also when the retry goes to the origin.
        for (const std::string& request : m_requests)
            EXPECT_EQ(request.find("X-SWG-Licence"), std::string::npos) << request;
    }
    if (std::string(row.fault) != "refuse") {
        EXPECT_TRUE(swg_test::WaitForLines(GatewayLog(), "CONNECT 198.18.2.2:443", 1, 5s));
    }
}

std::string StepRowName(const ::testing::TestParamInfo<std::tuple<Policy, StepRow>>& param) {
    return std::string(kPolicyNames[static_cast<int>(std::get<0>(param.param))]) + "_" +
           std::get<1>(param.param).name;
}
INSTANTIATE_TEST_SUITE_P(Rows, StepRowTest,
                         ::testing::Combine(::testing::Values(Policy::FailOpen, Policy::FailClose),
                                            ::testing::ValuesIn(kStepRows)),
                         StepRowName);
// Every step turns to bypass through the same portal test: one row shows it under a portal.
INSTANTIATE_TEST_SUITE_P(Portal, StepRowTest,
                         ::testing::Combine(::testing::Values(Policy::Portal),
                                            ::testing::Values(kStepRows[1])),
                         StepRowName);

// ---- the gateway's own pages ----------------------------------------------------------------

// A block page answering a CONNECT or an HTTP request that does not reach the client byte for
// byte, or a blocked request that reaches the origin anyway.
TEST_F(GatewayIntegrationTest, BlockPageReachesTheClient) {
    StartGateway({"status=403"});
    UniqueFd client = swg_test::ListenerClient(swg_test::Endpoint(kOrigin, 443), "");
    const std::string page = swg_test::ReadToEnd(client.Get(), 10s);
    EXPECT_EQ(page.rfind("HTTP/1.1 403 ", 0), 0u) << page;
    EXPECT_NE(page.find("\r\nVia: 1.1 s_proxy_"), std::string::npos);
    const std::size_t lengthAt = page.find("Content-Length: ");
    ASSERT_NE(lengthAt, std::string::npos);
    EXPECT_EQ(HttpBodyOf(page).size(),
              static_cast<std::size_t>(std::atoi(page.c_str() + lengthAt + 16)));
    EXPECT_EQ(m_trace.Count(TRACE, "Connection : Proxy response status code 403"), 1);

    const CurlResult result = Http();
    EXPECT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(result.out.rfind("HTTP/1.1 403 ", 0), 0u) << result.out;
    EXPECT_EQ(m_httpOrigin->Accepted(), 0);
}

// ---- anycast --------------------------------------------------------------------------------

// A name that does not resolve sends the agent to the anycast list; a front that cannot be
// reached must go to the back, and the retry use the next address.
TEST_F(GatewayIntegrationTest, AnycastListTurnsAfterAFailedConnectWhenTheNameDidNotResolve) {
    StartGateway();
    Configure([](CSWGAgent::ORGINFO& info) {
        info.strSWGDomain = "nothere.swg.test";
        info.qstrSWGAnycastListV4 = {kUnreachable, kGateway};
    });
    const CurlResult result = Https();
    EXPECT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(result.out, kHttpsBody);
    EXPECT_EQ(g_pSWGAgent->GetOrgInfo().qstrSWGAnycastListV4,
              (std::deque<std::string>{kGateway, kUnreachable}));
    EXPECT_EQ(m_trace.Count(TRACE,
                            "Connection : Marking Anycast IP 198.18.3.9 as bad due to connection "
                            "failure."),
              1);
    EXPECT_EQ(m_trace.Count(TRACE, "Connection : Using new Anycast IP 198.18.1.2 instead"), 1);
    EXPECT_EQ(m_trace.Count(BRIDGE, "Connection : IP not found for host (nothere.swg.test)"), 2);
}

// The anycast list turned although the name resolved.
TEST_F(GatewayIntegrationTest, AnycastListStaysWhenTheNameResolves) {
    StartGateway();
    Configure([](CSWGAgent::ORGINFO& info) {
        info.strSWGDomain = "gateway-down.swg.test";
        info.qstrSWGAnycastListV4 = {"198.18.1.3", kGateway};
    });
    const CurlResult result = Http();
    EXPECT_EQ(result.out.rfind(kFailClosePage, 0), 0u) << result.out;
    EXPECT_EQ(g_pSWGAgent->GetOrgInfo().qstrSWGAnycastListV4,
              (std::deque<std::string>{"198.18.1.3", kGateway}));
    EXPECT_EQ(m_trace.CountPrefix(TRACE, "Connection : Marking Anycast IP"), 0);
    EXPECT_EQ(m_trace.CountPrefix(TRACE, "Connection : Domain resolution failed."), 0);
}

// A gateway that drops SYNs: two connects of 4 s each and the 1 s pause between them, then the
// page; about 9 s, never more than 10.
TEST_F(GatewayIntegrationTest, GatewayDroppingSynsGivesThePageWithinTenSeconds) {
    StartGateway();
    ASSERT_EQ(Shell("nft add table ip swgdrop && nft add chain ip swgdrop out '{ type filter "
                    "hook output priority 0; }' && nft add rule ip swgdrop out ip daddr "
                    "198.18.1.2 tcp flags syn drop"),
              0);
    const CurlResult result = Http();
    EXPECT_EQ(result.out.rfind(kFailClosePage, 0), 0u) << result.out;
    EXPECT_GE(result.took, 8500ms);
    EXPECT_LE(result.took, 10s);
    EXPECT_EQ(m_trace.Count(ERR, "Connection : Failed to connect to 198.18.1.2:80. Code : 60"), 2);
}

}  // namespace
