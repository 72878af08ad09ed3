// SPDX-License-Identifier: Apache-2.0
// CWebClient: a small blocking HTTP/1.1 client for the captive portal probe and connection tests.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

class CDnVSocket;

// The header lines SendHeader can write; the value is placed as shown. The colon after
// CONNECT belongs to the format.
enum eHTTP_METHOD_TYPE {
    HTTP_METHOD_GET = 1,            // "GET /" + value + " HTTP/1.1\r\n"
    HTTP_METHOD_HOST = 2,           // "Host: " + value + "\r\n"
    HTTP_METHOD_CONNECT = 3,        // "CONNECT: " + value + " HTTP/1.1\r\n"
    HTTP_METHOD_IF_NONE_MATCH = 4,  // "If-None-Match: " + value + "\r\n"
};

// Fetches one plain-HTTP URL with "Connection: close": headers to the empty line, then the
// body to the end of the stream. No TLS, no redirects, no chunked decoding: the caller gets
// the bytes as they came. Every socket it opens carries the agent's firewall mark, so the
// agent's own diversion never takes it.
//
// Results are 0, an errno value, -1, or 0x80070057 (bad argument), 0x80004003 (resolution
// gave no address), 0x80004005 (address text not valid), 0x80004001 (not implemented).
//
// Threading: one object belongs to one thread. CreateConnection stores 0 into the shared
// CDnVSocket::m_dwTimeout.
class CWebClient {
public:
    CWebClient();
    // Shuts down, closes and deletes the socket, if any.
    virtual ~CWebClient();
    CWebClient(const CWebClient&) = delete;
    CWebClient& operator=(const CWebClient&) = delete;

    // Placeholders: return 0x80004001 and do nothing.
    virtual long ConnectExternalViaProxy();
    virtual long ConnectExternalDirectly();
    // Connects to `host` (an address literal, else resolved with getaddrinfo for `family`;
    // the first address is used) on `port`, waiting up to `timeout` seconds (-1 or 0: a
    // blocking connect). Returns 0, errno, a getaddrinfo code, or a code of the class
    // comment; 0x80070057 for a null host or port 0. Blocks.
    virtual long Connect(const char* host, uint16_t port, long timeout, uint16_t family);
    // Connects to the IPv4 `address` (network byte order) on `port`. As above; 0x80070057
    // for port 0.
    virtual long Connect(unsigned long address, uint16_t port, long timeout);
    // Shuts the socket down both ways and closes it; the socket object stays until the next
    // connect or destruction. Does nothing without a socket.
    virtual void Disconnect();
    // Opens a TCP socket of `family` and connects it to the stored address and port.
    // Returns 0, errno (-1 when errno tells nothing), ENOMEM; on a failed connect the socket
    // is dropped and the connect's code returned (SWG_SOCKET_TIMEOUT after `timeout`). A
    // family other than AF_INET and AF_INET6 leaves the socket open and unconnected, and 0.
    virtual long CreateConnection(long timeout, uint16_t family);

    // setsockopt(SOL_SOCKET, `option`). Returns 0, errno, or 0x80070057 when `value` or the
    // socket is missing.
    long SetOptions(int option, const void* value, int length);
    // Sends the line of `type` with `value`, plus CRLF when `terminate`. Returns the bytes
    // sent, -1 on failure or without a socket, 0x80070057 for an unknown type.
    long SendHeader(eHTTP_METHOD_TYPE type, const std::string& value, bool terminate);
    // Sends `text`, plus CRLF when `terminate`. Returns the bytes sent, or -1.
    long SendHeader(const std::string& text, bool terminate);
    // Sends `length` bytes. Returns the bytes sent, or -1.
    long SendData(const char* data, int length);
    // Sets `line` to the next line with its newline. Returns 0, errno on a failed read, 1
    // when the peer closed, -1 without a socket. Blocks without limit unless SO_RCVTIMEO.
    int ReceiveLine(std::string& line);
    // Appends a byte at a time up to and including the first empty line (CR ignored), so
    // nothing of the body is read. Returns the last read's result: 1, 0 at end of stream,
    // -1 on failure or without a socket.
    int ReceiveHeaders(std::string& headers);
    // Reads up to `capacity` bytes, from the socket's line buffer first. Returns the count,
    // 0 at end of stream, -1 on failure or without a socket.
    int ReceiveData(char* buffer, int capacity);

    // GETs `url` from its host on port 80 over a connection of its own. As the long form.
    static long DownloadHTTPURL(const std::string& url, std::string& headers, std::string& body,
                                long timeout, uint16_t family);
    // GETs `url` over a connection of its own to `peerHost` when `useExplicitPeer` (with the
    // whole URL in the request line, as to a proxy), else to the URL's host; always on
    // `peerPort`. `timeout` bounds the connect, each read when not negative (0: no limit),
    // and, when above 0, the whole answer from the request on. Fills `headers` (the empty
    // line included) and `body` (to the end of the stream, or its first kBodyLimit bytes).
    // Returns 0, also when the peer closed early or the body was cut at the limit, -1 when
    // the request cannot be sent, a read fails or times out, or the headers pass
    // kHeaderLimit, or Connect's or the URL parser's code.
    // Bounds of an answer: a peer that streams without end is cut off, not held.
    static constexpr int kHeaderLimit = 64000;
    static constexpr int kBodyLimit = 256 * 1024;

    static long DownloadHTTPURL(const std::string& url, bool useExplicitPeer,
                                const std::string& peerHost, uint16_t peerPort,
                                std::string& headers, std::string& body, long timeout,
                                uint16_t family);

    // The value of the first line of `headers` that starts with `name` (a header name with
    // its colon, compared in lower case) and has more behind it, trimmed of spaces, tabs, CR
    // and LF. The line is lower-cased first, so the value comes back in lower case. Empty
    // when no line matches.
    static std::string GetHeaderValue(const std::string& headers, const std::string& name);

protected:
    std::unique_ptr<CDnVSocket> m_pSocket;  // null until connected
    uintptr_t m_ipv4Address = 0;            // network byte order
    uint8_t m_ipv6Address[16] = {};
    uint16_t m_port = 0;  // host byte order
};
