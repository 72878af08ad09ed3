// SPDX-License-Identifier: Apache-2.0
// CDnConnectionThread: what the client speaks (TLS, HTTP, HTTP to a proxy) and its header block.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "core/SWGAgent.h"
#include "foundation/GlobalConst.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Token.h"
#include "foundation/Trace.h"
#include "proxy/ConnectionThread.h"
#include "proxy/ProxyLimits.h"
#include "proxy/VSocket.h"
#include "upstream/LicenceHeader.h"
#include "upstream/ProxyInfo.h"
#include "upstream/PublicProxyManager.h"

namespace {

constexpr int kFirstBytesRoundMs = 10;
constexpr std::uint16_t kTlsPort = 443;
constexpr long kFirstBytesTimeout = 60;

// TLS record header (RFC 8446 5.1, RFC 5246 6.2.1) and the handshake header behind it:
//   byte 0      content type, 0x16 handshake
//   bytes 1-2   legacy record version, major byte 3 for every TLS version
//   bytes 3-4   record length
//   byte 5      handshake type, 1 ClientHello
// A major version byte of 2 or less is SSL 2 or older, which the gateway does not take.
constexpr unsigned char kTlsHandshake = 0x16;
constexpr unsigned char kTlsClientHello = 0x01;
constexpr unsigned char kTlsMinMajorVersion = 3;
constexpr std::size_t kTlsSniffBytes = 6;

bool IsTlsClientHello(const std::string& bytes) {
    if (bytes.size() < kTlsSniffBytes) return false;
    const auto byte = [&bytes](std::size_t at) { return static_cast<unsigned char>(bytes[at]); };
    return byte(0) == kTlsHandshake && byte(5) == kTlsClientHello && byte(1) >= kTlsMinMajorVersion;
}

// Method, request URI and version of a request line; a part that is missing stays empty.
struct RequestLine {
    std::string method;
    std::string uri;
    std::string version;
};

RequestLine SplitRequestLine(const std::string& line) {
    CToken token(line, " ");
    RequestLine parts;
    if (token.MoreTokens()) parts.method = token.GetNextToken();
    if (token.MoreTokens()) parts.uri = token.GetNextToken();
    if (token.MoreTokens()) parts.version = token.GetNextToken();
    return parts;
}

// An IPv6 address as a Host value gives it: bare, or bracketed with or without a port.
bool IsIPv6HostLiteral(const std::string& host) {
    if (IsIPv6Address(host)) return true;
    if (host.empty() || host[0] != '[') return false;
    const std::size_t close = host.find(']');
    if (close == std::string::npos) return false;
    const std::string rest = host.substr(close + 1);
    if (!rest.empty() && rest[0] != ':') return false;
    return IsIPv6Address(host.substr(1, close - 1));
}

}  // namespace

// ---- mode selection ----------------------------------------------------------------------

long CDnConnectionThread::SelectInitialMode() {
    if (ntohs(m_origDstPort) == kTlsPort) {
        // Nothing is read: the client's bytes, whatever they are, go through the tunnel.
        CMode = 1;
        TMode = 1;
        DNTRACE(BRIDGE, "Connection : Port = 443. CMode : %d, TMode : %d", CMode, TMode);
        return 0;
    }

    unsigned long readable = 0;
    int remainingMs = 0;
    const long code = WaitForFirstBytes(readable, remainingMs);
    if (code != 0 || exit_requested) return code;

    DNTRACE(TRACE_OFF, "Connection : Readable = %ld", static_cast<long>(readable));
    if (readable == 0) {
        DNTRACE(BRIDGE, "Connection : Timed out, nothing readable. CMode : %d, TMode : %d", CMode,
                TMode);
        return kFirstBytesTimeout;
    }

    // What PeekLine reads stays in the socket's line buffer, for the header reader or the
    // relay's first send.
    const std::string line =
        m_pKdfSocket->PeekLine(static_cast<int>(readable), remainingMs, exit_requested);
    if (line.size() > 4 && line.find("HTTP/") != std::string::npos) {
        const long httpCode = SelectHttpModes(line);
        if (httpCode != 0) return httpCode;
    } else if (line.size() < kTlsSniffBytes) {
        DNTRACE(TRACE, "Connection : HTTP/ *NOT* FOUND. CMode : %d TMode : %d", CMode, TMode);
    } else if (IsTlsClientHello(line)) {
        CMode = 1;
        TMode = 1;
        DNTRACE(BRIDGE, "Connection : TLS was detected. Port = %d. CMode : %d, TMode : %d",
                ntohs(m_origDstPort), CMode, TMode);
    }

    DNTRACE(BRIDGE, "Connection : Selected modes - CMode : %d, TMode : %d", CMode, TMode);
    return 0;
}

long CDnConnectionThread::WaitForFirstBytes(unsigned long& readable, int& remainingMs) {
    const int rounds = m_firstBytesWaitMs / kFirstBytesRoundMs;
    int error = 0;
    readable = 0;
    for (int round = 0;; ++round) {
        if (exit_requested) {
            DNTRACE(BRIDGE, "Connection : Exit event set, exiting from SelectInitialMode ...");
            return 0;
        }
        remainingMs = (rounds - round) * kFirstBytesRoundMs;
        if (m_pKdfSocket->IsDataAvailable(readable, &error) || error != 0 || round >= rounds) break;
        WaitOneRound();
    }
    if (error != 0) {
        DNTRACE(ERR, "Connection : Failed to check available data. Error Code : %d", error);
        return error;
    }
    return 0;
}

void CDnConnectionThread::WaitOneRound() {
    // The round ends as soon as the client's bytes arrive, rather than after a fixed sleep: a
    // client that sends at once is not kept waiting for the rest of the round. The round count
    // stays as it was, so a client that closed without a byte (readable at once, with nothing
    // to read) sleeps out the round and still times out as before.
    const auto start = std::chrono::steady_clock::now();
    const auto round = std::chrono::milliseconds(kFirstBytesRoundMs);
    pollfd entry{m_pKdfSocket->GetSocket(), POLLIN, 0};
    if (::poll(&entry, 1, kFirstBytesRoundMs) > 0 && m_pKdfSocket->GetReadable() > 0) return;
    const auto left = round - (std::chrono::steady_clock::now() - start);
    if (left > std::chrono::steady_clock::duration::zero()) std::this_thread::sleep_for(left);
}

long CDnConnectionThread::SelectHttpModes(const std::string& line) {
    const RequestLine request = SplitRequestLine(line);
    DNTRACE(BRIDGE, "Connection : HTTPVersion [%s] | Method [%s] | RequestURI [%s]",
            request.version.c_str(), request.method.c_str(), request.uri.c_str());
    const char* uri = request.uri.c_str();

    if (request.method == "CONNECT") {
        if (SetProxyDetails() != 0) {
            DNTRACE(BRIDGE, "Failed to set proxy");
            return -1;
        }
        CMode = 2;
        TMode = 1;
        DNTRACE(BRIDGE,
                "Connection : Method == CONNECT. Request made via Proxy %s:%d CMode : %d TMode : "
                "%d",
                m_proxyInfo.proxy_host.c_str(), m_proxyInfo.proxy_port, CMode, TMode);
        return 0;
    }
    if (request.method == "TRACE") {
        DNTRACE(BRIDGE,
                "Connection : Method == TRACE. Unknown request type, bypassing it CMode : %d, "
                "TMode : %d",
                CMode, TMode);
        return 0;
    }

    // Any other method: an origin-form URI ("/x", and "*" for OPTIONS) goes to the server
    // itself; anything else is the absolute form a client sends to a proxy.
    const bool options = request.method == "OPTIONS";
    const bool originForm = uri[0] == '/' || (options && uri[0] == '*');
    CMode = 2;
    if (originForm) {
        if (options) {
            TMode = 1;
            DNTRACE(BRIDGE,
                    "Connection :Method == OPTIONS. RequestURI == abs_path(%s). CMode : %d TMode "
                    ": %d",
                    uri, CMode, TMode);
        } else {
            // This line shows TMode as it was before the choice, unlike its siblings.
            DNTRACE(BRIDGE, "Connection : RequestURI == abs_path(%s). CMode : %d TMode : %d", uri,
                    CMode, TMode);
            TMode = 1;
        }
        CheckSystemProxy();
        return 0;
    }
    if (SetProxyDetails() != 0) {
        DNTRACE(BRIDGE, "Failed to set proxy");
        return -1;
    }
    TMode = 1;
    if (options) {
        DNTRACE(BRIDGE,
                "Connection :Method == OPTIONS. RequestURI == absoluteURI(%s). Request made via "
                "Proxy %s:%d CMode : %d TMode : %d",
                uri, m_proxyInfo.proxy_host.c_str(), m_proxyInfo.proxy_port, CMode, TMode);
    } else {
        DNTRACE(BRIDGE,
                "Connection : RequestURI == absoluteURI(%s). Request made via Proxy %s:%d CMode : "
                "%d TMode : %d",
                uri, m_proxyInfo.proxy_host.c_str(), m_proxyInfo.proxy_port, CMode, TMode);
    }
    return 0;
}

// A request in origin form shows that the client does not use a proxy now. When the record
// holds the system's proxy, the settings are read again so that a proxy turned off is
// forgotten; a changed proxy keeps its old record until it is turned off.
void CDnConnectionThread::CheckSystemProxy() {
    if (GetProxyInfo().proxy_mode != ProxyModeSystem) return;
    CSmartPtrInstance<PublicProxyManager> manager(PublicProxyManager::AcquireSingletonInstance());
    if (!manager) {
        DNTRACE(ERR, "Connection : Could not create public proxy instance");
        return;
    }
    std::string host;
    int port = 0;
    if (manager->ObtainProxySettings(host, port) == -1) {
        ResetProxyInfo();
        DNTRACE(TRACE, "Connection : Proxy is removed");
    }
}

// ---- upstream proxy ------------------------------------------------------------------------

long CDnConnectionThread::SetProxyDetails() {
    LOCAL_PROXY_INFO info;
    info.proxy_mode = ProxyModeObserved;
    // Proxies are recorded as IPv4 only: an IPv6 connection gives "0.0.0.0", which fails.
    in_addr address{};
    if (!m_bIPv6) std::memcpy(&address, &m_origDstV4, sizeof(address));
    const std::string host = InaddrToAddress(address);
    if (!IsIPAddress(host)) {
        DNTRACE(LISTEN, "Connection : Proxy inet_ntoa error");
        return -1;
    }
    info.proxy_host = host;
    info.proxy_port = ntohs(m_origDstPort);

    if (GetProxyState() == PROXY_STATE_UNSET) {
        CSmartPtrInstance<PublicProxyManager> manager(
            PublicProxyManager::AcquireSingletonInstance());
        std::string storedHost;
        std::string storedPort;
        if (manager) (void)manager->GetProxyHostData(storedHost, storedPort);
        if (manager && storedHost == host && storedPort == std::to_string(info.proxy_port)) {
            DNTRACE(TRACE, "Connection : Proxy is already set, using existing credentials.");
            info.proxy_type = static_cast<PROXY_TYPE>(manager->ReturnProxyType());
            info.proxy_state = PROXY_STATE_CREDENTIALS;
            SetProxyInfo(info);
            m_proxyInfo = info;
            return 0;
        }
    }

    // State "unset": stored credentials are looked for again when the proxy is next seen.
    info.proxy_type = PROXY_TYPE_OBSERVED;
    info.proxy_state = PROXY_STATE_UNSET;
    SetProxyInfo(info);
    m_proxyInfo = info;
    DNTRACE(LISTEN, "Connection : Proxy = %s : %d", info.proxy_host.c_str(), info.proxy_port);
    return 0;
}

void CDnConnectionThread::ResetProxyDetails() { ResetProxyInfo(); }

// ---- the client's header block -----------------------------------------------------------

long CDnConnectionThread::ReadHttpHeaders() {
    const long code = m_headers.Read(m_pKdfSocket, exit_requested, kHeaderBlockLimit);
    if (code != 0) {
        DNTRACE(ERR, "Connection : Failed to read headers. (read %d headers, %d bytes). Code : %d",
                static_cast<int>(m_headers.m_lines.size()), m_headers.m_bytes,
                static_cast<int>(code));
    }
    return code;
}

void CDnConnectionThread::SetupHost() {
    std::string addressText;
    if (m_bIPv6) {
        in6_addr address6{};
        std::memcpy(&address6, m_origDstV6, sizeof(address6));
        addressText = Inaddr6ToAddress(address6);
    } else {
        in_addr address{};
        std::memcpy(&address, &m_origDstV4, sizeof(address));
        addressText = InaddrToAddress(address);
    }

    if (CMode == 2) {
        m_host = m_headers.HeaderValue("Host");
        DNTRACE(BRIDGE, "Connection : Host ( from HTTP header ) = %s", m_host.c_str());
    }
    if (m_bIPv6 && IsIPv6HostLiteral(m_host)) {
        // Cutting an IPv6 literal at its first ":" would leave a fragment; the address of the
        // connection names the same host.
        m_host.clear();
    } else {
        const std::size_t colon = m_host.find(':');
        if (colon != std::string::npos) m_host.erase(colon);
        DNTRACE(BRIDGE, "Connection : Host ( processed header ) = %s", m_host.c_str());
    }
    if (m_host.empty()) m_host = addressText;
}

bool CDnConnectionThread::ModifyHttpHeaders(CDnHttpHeaders* headers) {
    if (headers == nullptr) return false;
    std::string interfaceAddress;
    (void)GetBestInterfaceIP(interfaceAddress);  // without it the header leaves the address out
    std::vector<std::string> lines;
    std::string error;
    if (!BuildLicenceHeaderLines(g_pSWGAgent->GetOrgInfo(), interfaceAddress, lines, error)) {
        DNTRACE(WARN, "Connection : Licence header not added for %s:%d. %s", m_host.c_str(),
                ntohs(m_origDstPort), error.c_str());
        return false;
    }
    for (const std::string& line : lines)
        headers->m_lines.push_back(line + g_szHTTPHeaderTerminator);
    return true;
}

bool CDnConnectionThread::GetBestInterfaceIP(std::string& out) {
    out.clear();
    const int fd = m_pExternalSocket != nullptr ? m_pExternalSocket->GetSocket() : -1;
    if (fd == -1) {
        DNTRACE(WARN, "GetBestInterfaceName failed : %s", "no outgoing connection");
        return false;
    }
    sockaddr_storage local{};
    socklen_t length = sizeof(local);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
        const int error = errno;
        DNTRACE(WARN, "GetBestInterfaceName failed : %s", ErrnoText(error).c_str());
        return false;
    }
    out = SockaddrToAddress(reinterpret_cast<const sockaddr*>(&local));
    // An unbound socket reports the any address: no interface was chosen yet.
    if (out.empty() || out == "0.0.0.0" || out == "::") {
        DNTRACE(WARN, "GetBestInterfaceName failed : %s", "outgoing socket not connected");
        out.clear();
        return false;
    }
    return true;
}
