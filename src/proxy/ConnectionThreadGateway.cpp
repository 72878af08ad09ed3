// SPDX-License-Identifier: Apache-2.0
// CDnConnectionThread: the outgoing connection, the choice of gateway address and the CONNECT
// exchange.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <regex>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "core/SWGAgent.h"
#include "foundation/GlobalConst.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Token.h"
#include "foundation/Trace.h"
#include "netaware/WebClient.h"
#include "platform/SocketMark.h"
#include "proxy/ConnectionThread.h"
#include "proxy/DnSocket.h"
#include "proxy/HttpHeaders.h"
#include "proxy/ProxyLimits.h"
#include "resolve/DnsLookup.h"

namespace {

constexpr int kIPv6ReceiveBuffer = 65536;
constexpr unsigned int kLookupTimeoutMs = 5000;
constexpr unsigned short kGatewayTlsPort = 443;
constexpr unsigned short kGatewayHttpPort = 80;
// The piece in which the body of a gateway's 200 is read and dropped.
constexpr long long kDropChunk = 16384;

// Thrown when no gateway address can be had; the catch-all handler turns it into -1.
struct NoGatewayAddress {};

#define SWG_IPV6_FORMAT "%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x"
#define SWG_IPV6_BYTES(a)                                                                    \
    (a)[0], (a)[1], (a)[2], (a)[3], (a)[4], (a)[5], (a)[6], (a)[7], (a)[8], (a)[9], (a)[10], \
        (a)[11], (a)[12], (a)[13], (a)[14], (a)[15]

void LogConnecting(const sockaddr_storage& target) {
    if (target.ss_family == AF_INET) {
        const auto& in4 = reinterpret_cast<const sockaddr_in&>(target);
        DNTRACE(BRIDGE, "Connection : Connecting to %s:%d", InaddrToAddress(in4.sin_addr).c_str(),
                ntohs(in4.sin_port));
        return;
    }
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(target);
    DNTRACE(TRACE, "Connection : Connecting to: " SWG_IPV6_FORMAT " (%.4x)",
            SWG_IPV6_BYTES(in6.sin6_addr.s6_addr), ntohs(in6.sin6_port));
}

void LogConnectFailed(const sockaddr_storage& target, int code) {
    if (target.ss_family == AF_INET) {
        const auto& in4 = reinterpret_cast<const sockaddr_in&>(target);
        DNTRACE(ERR, "Connection : Failed to connect to %s:%d. Code : %d",
                InaddrToAddress(in4.sin_addr).c_str(), ntohs(in4.sin_port), code);
        return;
    }
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(target);
    DNTRACE(ERR, "Connection : Failed to connect to: " SWG_IPV6_FORMAT " (%.4x) Code: %d",
            SWG_IPV6_BYTES(in6.sin6_addr.s6_addr), ntohs(in6.sin6_port), code);
}

// Marks the outgoing socket so that the diversion lets it pass. A failure is logged once per
// process: without CAP_NET_ADMIN every socket would fail alike.
void MarkOutgoingSocket(int fd) {
    static std::atomic<bool> s_reported{false};
    const int result = ApplyAgentSocketMark(fd);
    if (result != 0 && !s_reported.exchange(true))
        DNTRACE(WARN, "Connection : Failed to set the agent's mark on outgoing sockets. Code : %d",
                result);
}

// A TCP socket of the family with the options of the outgoing side. Throws errno when no
// socket can be had; failed options are only logged.
int OpenOutgoingDescriptor(bool ipv4) {
    const int fd = ::socket(ipv4 ? AF_INET : AF_INET6, SOCK_STREAM, 0);
    if (fd == -1) {
        const int error = errno;
        DNTRACE(ERR, "Connection : failed to create external socket. Code : %d", error);
        throw static_cast<unsigned int>(error);
    }
    MarkOutgoingSocket(fd);
    if (!ipv4) {
        const int receiveBuffer = kIPv6ReceiveBuffer;
        if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer)) != 0)
            DNTRACE(WARN, "Connection: setsockopt SO_RCVBUF for ipv6 socket failed");
        const int v6Only = 0;
        if (::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &v6Only, sizeof(v6Only)) != 0)
            DNTRACE(WARN, "Connection: setsockopt IPV6_V6ONLY for ipv6 socket failed");
    }
    const int noDelay = 1;
    // The text names another option; it is the line the logs have always carried.
    if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay)) != 0)
        DNTRACE(WARN, "Connection : setsockopt SO_RCVBUF socket failed");
    return fd;
}

std::string Ipv4Text(unsigned long address) {
    in_addr in{};
    in.s_addr = static_cast<in_addr_t>(address);
    return InaddrToAddress(in);
}

// The gateway proves itself by the host it names in Via; a captive portal or another proxy
// answering in its place does not carry such a name.
bool IsGatewayVia(const std::string& via) {
    static const std::regex pattern("(s|m|e)_proxy_", std::regex::ECMAScript);
    return std::regex_search(via, pattern);
}

}  // namespace

// ---- outgoing connection --------------------------------------------------------------------

long CDnConnectionThread::GetExternalConnection() {
    int fd = -1;  // held here until the socket object owns it
    try {
        const bool ipv4Socket = !m_bIPv6 && (!m_bIPv6ViaIPv4 || TMode != 0);
        fd = OpenOutgoingDescriptor(ipv4Socket);

        sockaddr_storage target{};
        socklen_t targetLength = 0;
        if (TMode == 0 || TMode == 2) {
            targetLength = OriginalTarget(target, m_bIPv6 || m_bIPv6ViaIPv4);
        } else {
            targetLength = GatewayTarget(target);
        }

        {
            // Made before the old one goes: a failed allocation must not leave
            // m_pExternalSocket pointing at a deleted socket for the retry to delete again.
            auto* created = new CDnSocket(fd);
            fd = -1;
            std::lock_guard<std::mutex> hold(m_socketLock);
            // A socket still left from an earlier step of this job would leak here.
            delete m_pExternalSocket;
            m_pExternalSocket = created;
        }
        CDnVSocket::m_dwTimeout = kConnectTimeoutSeconds;

        const auto* targetAddress = reinterpret_cast<const sockaddr*>(&target);
        LogConnecting(target);
        (void)MakeNoRedirectKdfException(*targetAddress);

        // The bound is passed as such rather than through the shared m_dwTimeout, which the
        // web client of a concurrent captive portal probe sets to 0 (no bound) at any time.
        const int result = m_pExternalSocket->Connect(targetAddress, static_cast<int>(targetLength),
                                                      static_cast<long>(kConnectTimeoutSeconds));
        if (result == 0) return 0;
        LogConnectFailed(target, result);
        if (m_bAnycastFallback) handleAnycastFailure();
        throw static_cast<unsigned int>(result);
    } catch (unsigned int code) {
        DeleteExternalSocket();
        if (fd != -1) ::close(fd);
        DNTRACE(ERR, "Connection : Caught exception. Code : %d", static_cast<int>(code));
        return static_cast<long>(code);
    } catch (const std::bad_alloc&) {
        if (fd != -1) ::close(fd);
        DNTRACE(ERR, "Connection : System Out Of Memory!!!");
        return SWG_E_OUTOFMEMORY;
    } catch (...) {
        DeleteExternalSocket();
        if (fd != -1) ::close(fd);
        DNTRACE(ERR, "Connection : Caught unknown exception");
        return -1;
    }
}

socklen_t CDnConnectionThread::GatewayTarget(sockaddr_storage& target) {
    target = sockaddr_storage{};
    const unsigned short port = CMode == 2 ? kGatewayHttpPort : kGatewayTlsPort;
    std::string name = g_pSWGAgent->GetSWGProxyName(m_bIPv6);

    if (!m_bIPv6) {
        auto& in4 = reinterpret_cast<sockaddr_in&>(target);
        in4.sin_family = AF_INET;
        in4.sin_port = htons(port);
        unsigned long address = 0;
        if (resolveToIPV4(name, address)) {
            DNTRACE(THREAD, "Connection : Success in converting domain name to IP");
        } else {
            const CSWGAgent::ORGINFO info = g_pSWGAgent->GetOrgInfo();
            if (!info.qstrSWGAnycastListV4.empty()) {
                DNTRACE(TRACE,
                        "Connection : Domain resolution failed. Using Anycast IPv4 List instead. "
                        "IP: %s",
                        info.qstrSWGAnycastListV4.front().c_str());
                m_anycastIP = info.qstrSWGAnycastListV4.front();
                address = ::inet_addr(m_anycastIP.c_str());
                m_bAnycastFallback = true;
            } else if (!info.strSWGAnycast.empty()) {
                DNTRACE(TRACE, "Connection : No Anycast List. Using Anycast IP instead.");
                address = ::inet_addr(info.strSWGAnycast.c_str());
            } else {
                DNTRACE(ERR,
                        "Connection : Failed to convert domain name to IP. No fallback Anycast "
                        "IP present.");
                throw NoGatewayAddress{};
            }
        }
        in4.sin_addr.s_addr = static_cast<in_addr_t>(address);
        m_towerIP = Ipv4Text(address);
        return sizeof(sockaddr_in);
    }

    auto& in6 = reinterpret_cast<sockaddr_in6&>(target);
    in6.sin6_family = AF_INET6;
    in6.sin6_port = htons(port);
    unsigned char address[16] = {};
    if (resolveToIPV6(name, address)) {
        DNTRACE(THREAD, "Connection : Success in converting domain name to IP");
        std::memcpy(&in6.sin6_addr, address, sizeof(address));
        m_towerIP = Inaddr6ToAddress(in6.sin6_addr);
        return sizeof(sockaddr_in6);
    }
    const CSWGAgent::ORGINFO info = g_pSWGAgent->GetOrgInfo();
    if (!info.qstrSWGAnycastListV6.empty()) {
        DNTRACE(TRACE,
                "Connection : Domain resolution failed. Using Anycast IPv6 List instead. IP: %s",
                info.qstrSWGAnycastListV6.front().c_str());
        m_anycastIP = info.qstrSWGAnycastListV6.front();
        (void)::inet_pton(AF_INET6, m_anycastIP.c_str(), &in6.sin6_addr);
        m_bAnycastFallback = true;
    }
    // With no list the address stays all zero: the connect goes there and fails.
    return sizeof(sockaddr_in6);
}

// ---- gateway address ----------------------------------------------------------------------

bool CDnConnectionThread::resolveToIPV4(std::string& name, unsigned long& address) {
    if (name.empty()) return false;
    if (IsIPAddress(name)) {
        DNTRACE(BRIDGE, "Connection: Stringified version of IPV4 is given hence not resolving (%s)",
                name.c_str());
        address = ::inet_addr(name.c_str());
        return true;
    }
    if (IsIPv6Address(name)) {
        DNTRACE(BRIDGE, "Connection: Stringified version of IPV6 is given, fallback to Anycast IP");
        return false;
    }

    std::vector<unsigned int> addresses = g_pSWGAgent->GetCachedResolvedIPList(name);
    if (!addresses.empty()) {
        DNTRACE(BRIDGE, "Connection: Using cached DNS response for %s", name.c_str());
    } else {
        CDnsLookupThread* resolver = CDnsLookupThread::Instance(nullptr);
        const int error = resolver != nullptr
                              ? resolver->LookupIp(name, kLookupTimeoutMs, AF_INET, &addresses)
                              : static_cast<int>(SWG_E_FAIL);
        if (error != 0 || addresses.empty()) {
            DNTRACE(BRIDGE, "Connection : IP not found for host (%s)", name.c_str());
            return false;
        }
        g_pSWGAgent->CacheResolvedIPList(name, addresses);
    }

    const unsigned int index = static_cast<unsigned int>(sm_usNextIPIndex++) % addresses.size();
    address = addresses[index];
    const auto* bytes = reinterpret_cast<const unsigned char*>(&addresses[index]);
    DNTRACE(BRIDGE, "Connection : Resolved IP from '%s' is %d.%d.%d.%d, using index = %d",
            name.c_str(), bytes[0], bytes[1], bytes[2], bytes[3], static_cast<int>(index));
    return true;
}

bool CDnConnectionThread::resolveToIPV6(std::string& name, unsigned char* address) {
    if (name.empty()) return false;
    if (IsIPv6Address(name)) {
        DNTRACE(BRIDGE, "Connection: Stringified version of IPv6 is given hence not resolving (%s)",
                name.c_str());
        return ::inet_pton(AF_INET6, name.c_str(), address) == 1;
    }

    std::vector<unsigned char> addresses = g_pSWGAgent->GetCachedResolvedIPv6List(name);
    if (!addresses.empty()) {
        DNTRACE(BRIDGE, "Connection: Using IPV6 cached DNS response for %s", name.c_str());
    } else if (!LookupIPv6List(name, addresses)) {
        DNTRACE(BRIDGE, "Connection : Address not found for the host (%s)", name.c_str());
        return false;
    }

    // The pick starts at byte `index`, not at entry `index`: with several addresses every
    // index but 0 takes a run of bytes across two entries. Kept as it has always worked.
    const std::size_t count = addresses.size() / 16;
    const unsigned int index = static_cast<unsigned int>(sm_usNextIPV6Index++) % count;
    std::memcpy(address, addresses.data() + index, 16);
    DNTRACE(TRACE,
            "Connection : Connection : Resolved IPv6 from '%s' is " SWG_IPV6_FORMAT
            ", using index = %d",
            name.c_str(), SWG_IPV6_BYTES(address), static_cast<int>(index));
    return true;
}

bool CDnConnectionThread::LookupIPv6List(const std::string& name,
                                         std::vector<unsigned char>& ipv6) {
    CDnsLookupThread* resolver = CDnsLookupThread::Instance(nullptr);
    if (resolver == nullptr) return false;
    DnIPAddress* raw = nullptr;
    if (resolver->LookupIp(name, kLookupTimeoutMs, AF_INET6, &raw) != 0) {
        delete[] raw;
        return false;
    }
    std::unique_ptr<DnIPAddress[]> results(raw);
    std::vector<unsigned int> ipv4;
    for (const DnIPAddress* entry = results.get(); entry != nullptr && entry->family != 0;
         ++entry) {
        if (entry->family == AF_INET) {
            ipv4.push_back(entry->ipv4);
        } else {
            ipv6.insert(ipv6.end(), entry->ipv6, entry->ipv6 + 16);
        }
    }
    g_pSWGAgent->CacheResolvedIPList(name, ipv4);
    if (ipv6.empty()) return false;
    g_pSWGAgent->CacheResolvedIPV6List(name, ipv6);
    return true;
}

void CDnConnectionThread::handleAnycastFailure() {
    CSWGAgent::ORGINFO info = g_pSWGAgent->GetOrgInfo();
    std::deque<std::string>& list = m_bIPv6 ? info.qstrSWGAnycastListV6 : info.qstrSWGAnycastListV4;
    if (list.size() < 2) return;
    // Another thread may have turned the list already; then the front is no longer ours.
    if (list.front() != m_anycastIP) return;
    DNTRACE(TRACE, "Connection : Marking Anycast IP %s as bad due to connection failure.",
            list.front().c_str());
    const std::string bad = list.front();
    list.push_back(bad);
    list.pop_front();
    DNTRACE(TRACE, "Connection : Using new Anycast IP %s instead", list.front().c_str());
    g_pSWGAgent->SetOrgInfo(info);
}

// ---- CONNECT exchange ------------------------------------------------------------------------

long CDnConnectionThread::DoProxyConnect(std::string host, unsigned short port,
                                         std::string /*reserved*/, bool addLicence) {
    const std::string hostPart = m_bIPv6ViaIPv4 ? "[" + host + "]" : host;
    const std::string target = hostPart + ":" + std::to_string(port);

    CDnHttpHeaders request(kHeaderBlockLimit);
    request.m_lines.push_back("CONNECT " + target + " HTTP/1.1\r\n");
    request.m_lines.push_back("Content-Length: 0\r\n");
    request.m_lines.push_back("Host: " + target + "\r\n");
    if (addLicence) (void)ModifyHttpHeaders(&request);
    request.m_bComplete = true;
    return request.Write(m_pExternalSocket, exit_requested);
}

long CDnConnectionThread::ProcessProxyResponse(bool& connectionLost, int& status, bool noForward) {
    connectionLost = false;
    status = 0;
    CDnHttpHeaders response(kHeaderBlockLimit);
    long code = response.Read(m_pExternalSocket, exit_requested, kHeaderBlockLimit);
    if (exit_requested) {
        DNTRACE(BRIDGE, "Connection : Exit event set, exiting from ProcessProxyResponse ...");
        return 0;
    }
    if (code != 0) {
        connectionLost = true;
        DNTRACE(ERR, "Connection : Read failed in ProcessProxyResponse. Code : %d",
                static_cast<int>(code));
        return code;
    }

    std::string joined;
    for (const std::string& line : response.m_lines) joined += line;
    if (!IsGatewayVia(CWebClient::GetHeaderValue(joined, "via:"))) {
        DNTRACE(ERR, "Connection : Unable to validate proxy response");
        return SWG_E_FAIL;
    }

    CToken statusLine(response.m_lines.empty() ? std::string() : response.m_lines.front(), " ");
    (void)statusLine.GetNextToken();
    status = std::atoi(statusLine.GetNextToken().c_str());

    if (status == 200) {
        code = 0;
    } else if (!ForwardProxyStatus(response, status, noForward, code)) {
        return code;
    }
    return ReadProxyResponseBody(response, connectionLost, status, code);
}

bool CDnConnectionThread::ForwardProxyStatus(CDnHttpHeaders& response, int status, bool noForward,
                                             long& code) {
    DNTRACE(TRACE, "Connection : Proxy response status code %d", status);
    code = 0;
    if (noForward) {
        DNTRACE(BRIDGE, "Connection: ProcessProxyResponse code %d and canretry", status);
        return false;
    }
    const long written = response.Write(m_pKdfSocket, exit_requested);
    if (exit_requested) return false;
    if (written != 0) {
        DNTRACE(ERR, "Connection : Write failed in ProcessProxyResponse. Code : %d",
                static_cast<int>(written));
        code = written;
        return false;
    }
    // The client has the gateway's answer; the job still fails, whatever the status says.
    code = SWG_E_FAIL;
    return true;
}

long CDnConnectionThread::ReadProxyResponseBody(CDnHttpHeaders& response, bool& connectionLost,
                                                int status, long code) {
    const std::string lengthText = response.HeaderValue("Content-Length");
    const long long length = std::strtoll(lengthText.c_str(), nullptr, 10);
    if (lengthText.empty() || length == 0) return code;

    // The body of a 200 is dropped as it comes, in pieces of a fixed size; a page for the
    // client is held whole, up to a bound. A length beyond what can be held (or a negative
    // one) is refused as a body that cannot be allocated.
    const bool drop = status == 200;
    if (length < 0 || (!drop && length > kGatewayPageLimit)) {
        DNTRACE(ERR, "Connection : ProcessProxyResponse failed, System Out Of Memory!!!");
        return SWG_E_OUTOFMEMORY;
    }
    const std::size_t held = drop ? std::min<long long>(length, kDropChunk) : length;
    std::unique_ptr<char[]> body(new (std::nothrow) char[held]);
    if (!body) {
        DNTRACE(ERR, "Connection : ProcessProxyResponse failed, System Out Of Memory!!!");
        return SWG_E_OUTOFMEMORY;
    }

    long long received = 0;
    while (received < length && !exit_requested) {
        const std::size_t at = drop ? 0 : static_cast<std::size_t>(received);
        const long long want =
            std::min<long long>(length - received, static_cast<long long>(held - at));
        const int count = m_pExternalSocket->Receive(body.get() + at, static_cast<int>(want), 0);
        const int error = errno;
        if (count >= 1) {
            received += count;
            continue;
        }
        connectionLost = true;
        if (count == -1) {
            code = error;
            DNTRACE(ERR, "Connection : Error in receive. Code : %d", static_cast<int>(code));
        } else {
            code = SWG_E_FAIL;
            DNTRACE(ERR, "Connection : Connection closed by peer");
        }
        break;
    }
    if (exit_requested) return 0;
    if (received < length) {
        DNTRACE(ERR,
                "Connection : Failed to read complete response in ProcessProxyResponse. Code : %d",
                static_cast<int>(code));
        return SWG_E_FAIL;
    }

    if (drop) return code;  // the body of a 200 is not the client's
    if (m_pKdfSocket->SendComplete(body.get(), static_cast<int>(length), 0, exit_requested) == -1) {
        DNTRACE(ERR, "Connection : SendComplete failed in ProcessProxyResponse.");
        return -1;
    }
    return code;
}

// ---- gateway steps ---------------------------------------------------------------------------

bool CDnConnectionThread::TunnelThroughGateway(bool failOpen) {
    EndSetConnectTime();
    long code = DoProxyConnect(m_host, ntohs(m_origDstPort), std::string(), true);
    if (ExitRequested()) return false;
    if (code != 0) {
        if (GatewayStepFailed("Writing HTTPs Headers", true, failOpen)) return true;
        g_pSWGAgent->SendSWGState("cloud_service_unavailable", SWG_STATE_UPDATE_NORMAL);
        DNTRACE(ERR, "Connection : Failed to connect to tower %s:%d. Code : %d", m_towerIP.c_str(),
                static_cast<int>(kGatewayTlsPort), static_cast<int>(code));
        throw static_cast<unsigned int>(code);
    }
    bool connectionLost = false;
    int status = 0;
    code = ProcessProxyResponse(connectionLost, status, false);
    if (ExitRequested() || code == 0) return false;
    const bool again = GatewayStepFailed("Reading HTTPs Headers", true, failOpen);
    if (m_bAnycastFallback) handleAnycastFailure();
    if (again) return true;
    DNTRACE(ERR, "Connection : Failed to process response from tower %s:%d. Code : %d",
            m_towerIP.c_str(), static_cast<int>(kGatewayTlsPort), static_cast<int>(code));
    throw static_cast<unsigned int>(code);
}

bool CDnConnectionThread::SendHeaderBlock(bool failOpen) {
    const bool onGateway = TMode != 0;
    long code = 0;
    if (onGateway) {
        EndSetConnectTime();
        // The licence lines are for the gateway alone: they go on a copy, so that a bypass
        // after a failed write sends the block to the destination as the client wrote it.
        CDnHttpHeaders licensed = m_headers;
        (void)ModifyHttpHeaders(&licensed);
        code = licensed.Write(m_pExternalSocket, exit_requested);
    } else {
        code = m_headers.Write(m_pExternalSocket, exit_requested);
    }
    if (ExitRequested() || code == 0) return false;
    // Only the gateway leg has a bypass to fall back to: going round again after a failed
    // write to the destination itself would connect and fail for ever.
    if (GatewayStepFailed("Writing HTTP Headers", onGateway, failOpen)) return true;
    DNTRACE(ERR, "Connection : Failed to write back headers. Code : %d", static_cast<int>(code));
    throw static_cast<unsigned int>(code);
}

// ---- timing ------------------------------------------------------------------------------

void CDnConnectionThread::StartSetConnectTime() {
    m_connectStart = boost::posix_time::microsec_clock::universal_time();
}

void CDnConnectionThread::EndSetConnectTime() {
    const boost::posix_time::time_duration elapsed =
        boost::posix_time::microsec_clock::universal_time() - m_connectStart;
    m_connectMillis = elapsed.total_milliseconds();
    DNTRACE(BRIDGE, "CDnConnectionThread::EndSetConnectTime %d", static_cast<int>(m_connectMillis));
}
