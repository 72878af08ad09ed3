// SPDX-License-Identifier: Apache-2.0
// CWebClient: connect, send one GET, read headers and body of the reply.
#include "netaware/WebClient.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>

#include "foundation/GlobalConst.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Trace.h"
#include "platform/SocketMark.h"
#include "proxy/DnSocket.h"

namespace {

constexpr int kReceiveChunk = 1024;
constexpr uint16_t kHttpPort = 80;

bool NoSocket(const std::unique_ptr<CDnVSocket>& socket) {
    if (socket) return false;
    DNTRACE(ERR, "Socket was not initialized");
    return true;
}

std::string LowerAscii(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

std::string BuildRequest(const std::string& url, bool useExplicitPeer, const std::string& host,
                         const std::string& request) {
    std::string text = "GET ";
    text += useExplicitPeer ? url : "/" + request;
    text += " HTTP/1.1\r\n";
    text += "Host: " + host + "\r\n";
    text += "Connection: close\r\n";
    text += g_szHTTPHeaderTerminator;
    return text;
}

}  // namespace

CWebClient::CWebClient() = default;

CWebClient::~CWebClient() {
    if (!m_pSocket) return;
    (void)m_pSocket->Shutdown(SHUT_RDWR);
    (void)m_pSocket->CloseSocket();
}

long CWebClient::ConnectExternalViaProxy() { return SWG_E_NOTIMPL; }

long CWebClient::ConnectExternalDirectly() { return SWG_E_NOTIMPL; }

long CWebClient::Connect(const char* host, uint16_t port, long timeout, uint16_t family) {
    if (host == nullptr || port == 0) return SWG_E_INVALIDARG;
    if (IsIPv4orIPv6Address(host)) {
        m_port = port;
        if (family == AF_INET6) {
            if (::inet_pton(AF_INET6, host, m_ipv6Address) != 1) {
                DNTRACE(ERR, "WebClient : Not in presentation format");
                return SWG_E_FAIL;
            }
        } else {
            m_ipv4Address = ::inet_addr(host);
        }
        return CreateConnection(timeout, family);
    }

    addrinfo hints{};
    hints.ai_flags = AI_CANONNAME;
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* results = nullptr;
    errno = 0;  // only what this call leaves in errno may be reported
    const int resolved = ::getaddrinfo(host, std::to_string(port).c_str(), &hints, &results);
    if (resolved != 0) {
        const int saved = errno;
        if (saved != 0) return saved;
        DNTRACE(ERR, "WebClient : Failed to get system error information");
        return resolved;
    }
    if (results == nullptr) return SWG_E_POINTER;
    m_port = port;
    // Only the first address is tried, as the probes want one answer, not a failover.
    if (results->ai_family == AF_INET6) {
        std::memcpy(m_ipv6Address, &reinterpret_cast<sockaddr_in6*>(results->ai_addr)->sin6_addr,
                    sizeof m_ipv6Address);
    } else if (results->ai_family == AF_INET) {
        m_ipv4Address = reinterpret_cast<sockaddr_in*>(results->ai_addr)->sin_addr.s_addr;
    }
    ::freeaddrinfo(results);
    return CreateConnection(timeout, family);
}

long CWebClient::Connect(unsigned long address, uint16_t port, long timeout) {
    if (port == 0) return SWG_E_INVALIDARG;
    m_ipv4Address = static_cast<uintptr_t>(address);
    m_port = port;
    return CreateConnection(timeout, AF_INET);
}

void CWebClient::Disconnect() {
    if (!m_pSocket) return;
    (void)m_pSocket->Shutdown(SHUT_RDWR);
    (void)m_pSocket->CloseSocket();
}

long CWebClient::CreateConnection(long timeout, uint16_t family) {
    const int fd = ::socket(family, SOCK_STREAM, IPPROTO_TCP);
    if (fd == -1) {
        const int saved = errno;
        if (saved != 0) return saved;
        DNTRACE(ERR, "WebClient : Failed to get system error information");
        return -1;
    }
    // Without the mark the diversion would carry the probe into the agent's own listener.
    const int markError = ApplyAgentSocketMark(fd);
    if (markError != 0)
        DNTRACE(WARN, "WebClient : Failed to mark the socket. Error: %d", markError);
    const int noDelay = 1;
    if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay) != 0)
        DNTRACE(WARN, "WebClient : setsockopt SO_RCVBUF socket failed");

    std::unique_ptr<CDnSocket> socket(new (std::nothrow) CDnSocket(fd));
    if (!socket) {
        ::close(fd);
        DNTRACE(TRACE, "WebClient : Failed to create socket, System Out Of Memory!!!");
        return ENOMEM;
    }
    CDnVSocket::m_dwTimeout = 0;
    m_pSocket = std::move(socket);

    int result = 0;
    if (family == AF_INET6) {
        sockaddr_in6 peer{};
        peer.sin6_family = AF_INET6;
        peer.sin6_port = htons(m_port);
        std::memcpy(&peer.sin6_addr, m_ipv6Address, sizeof m_ipv6Address);
        result = m_pSocket->Connect(reinterpret_cast<sockaddr*>(&peer), sizeof peer, timeout);
        DNTRACE(THREAD, "WebClient : Connected to IPv6 socket");
    } else if (family == AF_INET) {
        sockaddr_in peer{};
        peer.sin_family = AF_INET;
        peer.sin_port = htons(m_port);
        peer.sin_addr.s_addr = static_cast<in_addr_t>(m_ipv4Address);
        result = m_pSocket->Connect(reinterpret_cast<sockaddr*>(&peer), sizeof peer, timeout);
        DNTRACE(THREAD, "WebClient : Connected to IPv4 socket");
    } else {
        return 0;
    }
    if (result != 0) {
        (void)m_pSocket->CloseSocket();
        m_pSocket.reset();
    }
    return result;
}

long CWebClient::SetOptions(int option, const void* value, int length) {
    if (value == nullptr || !m_pSocket) return SWG_E_INVALIDARG;
    if (::setsockopt(m_pSocket->GetSocket(), SOL_SOCKET, option, value,
                     static_cast<socklen_t>(length)) != 0)
        return errno;
    return 0;
}

long CWebClient::SendHeader(eHTTP_METHOD_TYPE type, const std::string& value, bool terminate) {
    std::string text;
    switch (type) {
        case HTTP_METHOD_GET:
            text = "GET /" + value + " HTTP/1.1\r\n";
            break;
        case HTTP_METHOD_HOST:
            text = "Host: " + value + "\r\n";
            break;
        case HTTP_METHOD_CONNECT:
            text = "CONNECT: " + value + " HTTP/1.1\r\n";
            break;
        case HTTP_METHOD_IF_NONE_MATCH:
            text = "If-None-Match: " + value + "\r\n";
            break;
        default:
            return SWG_E_INVALIDARG;
    }
    return SendHeader(text, terminate);
}

long CWebClient::SendHeader(const std::string& text, bool terminate) {
    if (NoSocket(m_pSocket)) return -1;
    std::string out = text;
    if (terminate) out += g_szHTTPHeaderTerminator;
    return m_pSocket->SendComplete(out.data(), static_cast<int>(out.size()), 0, false);
}

long CWebClient::SendData(const char* data, int length) {
    if (NoSocket(m_pSocket)) return -1;
    return m_pSocket->SendComplete(data, length, 0, false);
}

int CWebClient::ReceiveLine(std::string& line) {
    if (NoSocket(m_pSocket)) return -1;
    return m_pSocket->ReceiveLine(line);
}

int CWebClient::ReceiveHeaders(std::string& headers) {
    if (NoSocket(m_pSocket)) return -1;
    return m_pSocket->ReceiveHeaders(headers);
}

int CWebClient::ReceiveData(char* buffer, int capacity) {
    if (NoSocket(m_pSocket)) return -1;
    return m_pSocket->Receive(buffer, capacity, 0);
}

long CWebClient::DownloadHTTPURL(const std::string& url, std::string& headers, std::string& body,
                                 long timeout, uint16_t family) {
    return DownloadHTTPURL(url, false, std::string(), kHttpPort, headers, body, timeout, family);
}

long CWebClient::DownloadHTTPURL(const std::string& url, bool useExplicitPeer,
                                 const std::string& peerHost, uint16_t peerPort,
                                 std::string& headers, std::string& body, long timeout,
                                 uint16_t family) {
    std::string host;
    std::string request;
    const int parsed = GetHostAndRequestFromURL(url, host, request);
    if (parsed != 0) {
        DNTRACE(ERR, "Failed to parse URL %s", url.c_str());
        return parsed;
    }
    const std::string& peer = useExplicitPeer ? peerHost : host;
    CWebClient client;
    const long connected = client.Connect(peer.c_str(), peerPort, timeout, family);
    if (connected != 0) {
        DNTRACE(ERR, "WebClient : Failed to Connect. Error: %d", static_cast<int>(connected));
        return connected;
    }
    // A portal that drips its answer a byte at a time would pass every per-read timeout.
    if (timeout > 0)
        client.m_pSocket->SetDeadline(std::chrono::steady_clock::now() +
                                      std::chrono::seconds(timeout));
    if (client.SendHeader(BuildRequest(url, useExplicitPeer, host, request), false) == -1) {
        DNTRACE(ERR, "WebClient : Failed to Send Request Header");
        return -1;
    }
    if (timeout >= 0) {
        DNTRACE(TRACE, "WebClient : Set the timeout for receive socket");
        timeval wait{};
        wait.tv_sec = static_cast<time_t>(timeout);
        const long set = client.SetOptions(SO_RCVTIMEO, &wait, sizeof wait);
        if (set != 0)
            DNTRACE(WARN, "WebClient : Error setting option RCVTIMEO: %d", static_cast<int>(set));
    }
    headers.clear();
    if (client.m_pSocket->ReceiveHeaders(headers, kHeaderLimit) == -1) {
        DNTRACE(ERR, "WebClient : Failed to Receive Headers");
        return -1;
    }
    body.clear();
    char buffer[kReceiveChunk];
    for (;;) {
        const int room = kBodyLimit - static_cast<int>(body.size());
        if (room <= 0) {
            DNTRACE(WARN, "WebClient : Body over %d bytes, the rest is not read", kBodyLimit);
            return 0;
        }
        const int received =
            client.ReceiveData(buffer, room < kReceiveChunk ? room : kReceiveChunk);
        if (received == -1) {
            DNTRACE(ERR, "WebClient : Failed to Receive Data");
            return -1;
        }
        if (received <= 0) return 0;
        body.append(buffer, static_cast<std::size_t>(received));
    }
}

std::string CWebClient::GetHeaderValue(const std::string& headers, const std::string& name) {
    const std::string wanted = LowerAscii(name);
    std::size_t start = 0;
    while (start < headers.size()) {
        std::size_t end = headers.find('\n', start);
        if (end == std::string::npos) end = headers.size();
        const std::string line = LowerAscii(headers.substr(start, end - start));
        start = end + 1;
        if (line.size() > wanted.size() && line.compare(0, wanted.size(), wanted) == 0) {
            std::string value = line.substr(wanted.size());
            StringTrim(value, " \r\n\t");
            return value;
        }
    }
    return std::string();
}
