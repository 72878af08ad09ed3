// SPDX-License-Identifier: Apache-2.0
// CDnVSocket: a socket descriptor with a line buffer in front of it, for the connection path.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

// OpenSSL types named by the TLS placeholders, declared here so that this header does not
// pull in OpenSSL.
struct ssl_ctx_st;
struct x509_st;
struct stack_st_X509;

// Result of a wait that timed out: the agent's own fixed code, which callers and logs expect,
// deliberately not Linux's ETIMEDOUT (110).
constexpr int SWG_SOCKET_TIMEOUT = 60;

// The line buffer lets the sniffing code read a client's first bytes and still hand every
// one of them on: Receive, ReceiveLine and SendCompleteFromInternalBuffer drain the buffer
// before the descriptor.
//
// Threading: a socket belongs to one thread. The one exception is closing it from another
// thread to wake a blocked reader (the connection thread's Kill); m_socket is atomic for that.
class CDnVSocket {
public:
    CDnVSocket();
    explicit CDnVSocket(int socket);
    virtual ~CDnVSocket() = default;
    CDnVSocket(const CDnVSocket&) = delete;
    CDnVSocket& operator=(const CDnVSocket&) = delete;

    // One send of `length` bytes; returns the count sent or -1 with errno set.
    [[nodiscard]] virtual int Send(const char* buffer, int length, int flags) = 0;
    // Sends all `length` bytes unless `stop` is true or `length` < 1 (then 0, nothing sent).
    // Returns the total, or -1 on failure (errno kept from the failing send).
    [[nodiscard]] virtual int SendComplete(const char* buffer, int length, int flags,
                                           bool stop) = 0;
    // One recv into `buffer`; returns the count, 0 at end of stream, -1 with errno set.
    // Serves the receive prefix, while any is unread, before the descriptor; never looks at
    // the line buffer.
    [[nodiscard]] virtual int Recv(char* buffer, int length, int flags) = 0;
    // shutdown(2) of the descriptor; returns its result.
    virtual int Shutdown(int how) = 0;
    // Connects to `address`; `timeout` in seconds, -1 for m_dwTimeout. Returns 0, an errno
    // value, or SWG_SOCKET_TIMEOUT.
    [[nodiscard]] virtual int Connect(const sockaddr* address, int length, long timeout) = 0;
    // Closes the descriptor; 0 when already closed, else the result of close(2).
    virtual int CloseSocket() = 0;

    // TLS placeholders: nothing on the connection path uses TLS on these sockets. Each
    // returns 0x80004001 (not implemented); FreeX509Certificate does nothing.
    virtual long ConnectSSL(ssl_ctx_st* context, const char* hostName);
    virtual long AcceptSSL(ssl_ctx_st* context);
    virtual long VerifyPeerCertificate(const char* hostName);
    virtual long GetPeerX509Certificate(x509_st** certificate);
    virtual long GetPeerX509StackOfCertificates(stack_st_X509** certificates);
    virtual void FreeX509Certificate(x509_st* certificate);

    // The descriptor, -1 when closed.
    int GetSocket() const { return m_socket.load(); }

    // Takes up to `length` bytes from the line buffer when it holds unread bytes, else one
    // Recv. Never mixes the two in one call, so it may return fewer bytes than both hold.
    // Returns the count, or Recv's result (0 at end of stream, -1 with errno).
    [[nodiscard]] int Receive(char* buffer, int length, int flags);

    // Unread buffered bytes, else FIONREAD on the descriptor. True with `readable` set when
    // anything is there. `error` (may be null) gets 0, or errno when FIONREAD fails.
    bool IsDataAvailable(unsigned long& readable, int* error);
    // FIONREAD only (plus any unread receive prefix). True when it reports bytes; false with
    // `*error` 0 when it reports none (a peer that closed without sending looks the same);
    // false with errno when it fails.
    bool IsDataAvailableOnSocket(unsigned long& readable, int* error);
    // Unread buffered bytes into `readable`; true when there are any.
    bool IsDataAvailableInBuffer(unsigned long& readable);
    // True when the buffer, read or unread, holds a newline.
    bool IsLineAvailableInBuffer();
    // FIONREAD on the descriptor plus any unread receive prefix; 0 when there is nothing or
    // the call fails.
    long GetReadable();

    // Puts `length` bytes in front of the stream: Recv returns them before anything from the
    // descriptor, as if they had arrived first (the session record of a connection that the
    // kernel redirected, made on accept). Replaces an earlier prefix; nothing for a null
    // `data` or `length` < 1. A select() on the descriptor does not see the prefix, so the
    // owner reads it before it waits on the descriptor.
    void SetReceivePrefix(const char* data, int length);
    // Bytes of the receive prefix that Recv has not yet returned.
    int UnreadPrefixLength() const { return static_cast<int>(m_prefix.size() - m_prefixOffset); }

    // Bounds every wait of Recv and Send for the peer: once `deadline` has passed, a read or
    // a send that would have to wait fails with ETIMEDOUT (and TimedOut() turns true), while
    // one that needs no wait still goes ahead. Without a deadline both block as the socket
    // does. The owner's thread only.
    void SetDeadline(std::chrono::steady_clock::time_point deadline);
    void ClearDeadline() { m_bDeadline = false; }
    // True when a Recv or Send failed because the deadline had passed.
    bool TimedOut() const { return m_bTimedOut; }
    // True while a deadline is set.
    bool HasDeadline() const { return m_bDeadline; }

    // Empties the line buffer and reserves 1024 bytes; a buffer that grew past a few times
    // that gives its memory back.
    void ResetBuffer();
    // Appends `length` bytes; false, appending nothing, when `data` is null or `length` < 1.
    bool AppendDataToBuffer(const char* data, int length);
    // Sets `out` to all unread buffered bytes.
    void PeekDataFromBuffer(std::string& out);
    // Sets `out` to the unread bytes up to and including buffer index `end`; with `end` -1,
    // up to the next newline. Leaves `out` alone when that index is not in the unread part.
    void PeekLineFromBuffer(std::string& out, int end);
    // As PeekLineFromBuffer, and consumes the line; empty when there is none. Resets the
    // buffer when the line reaches the end of the data.
    std::string ExtractLineFromBuffer(int end);

    // Fills the line buffer from the descriptor until a newline arrives, and returns the
    // first line (with its newline) without consuming anything. Reads `size` bytes first,
    // then whatever FIONREAD reports, polling every 10 ms for up to `timeoutMs` after each
    // read. On timeout returns all that is buffered; on exit, size < 1, a failed or closed
    // read, returns empty. Bytes read stay buffered in every case. Starts by resetting the
    // buffer: the caller must hold nothing in it. Stops without a newline once 64 KB are
    // buffered, and returns them as on a timeout.
    [[nodiscard]] std::string PeekLine(int size, int timeoutMs, const std::atomic<bool>& exit);
    // Sets `line` to the next line, with its newline, from the buffer or else the descriptor,
    // blocking without limit. A partial line stays buffered. Returns 0, errno on a failed
    // read, 1 when the peer closed, or EMSGSIZE once `limit` bytes (when above 0) are buffered
    // without a newline; `line` is empty unless 0 is returned.
    [[nodiscard]] int ReceiveLine(std::string& line, int limit = 0);
    // Appends to `headers`, a byte at a time through Receive, up to and including the first
    // empty line (CR ignored). Returns the last read's result: 1, 0 at end of stream or -1;
    // -1 with errno EMSGSIZE too once `limit` bytes (when above 0) came without the empty line.
    [[nodiscard]] int ReceiveHeaders(std::string& headers, int limit = 0);
    // Sends the unread buffered bytes through target->SendComplete, with `exit` as its stop.
    // Returns 0 for a null target or nothing buffered, -1 on failure (buffer kept), else
    // the count sent, with the buffer reset.
    [[nodiscard]] int SendCompleteFromInternalBuffer(CDnVSocket* target, int flags,
                                                     const std::atomic<bool>& exit);

    // FIONBIO with `mode`: non-zero makes the descriptor non-blocking. Failures are ignored.
    void SetBlockingMode(unsigned long mode);
    // setsockopt(2). Failures are ignored.
    void SetSockOptions(int level, int name, const char* value, int length);
    // The timed connect: non-blocking connect, then a wait of `seconds` for writability.
    // Returns 0 (writable counts as connected), errno, or SWG_SOCKET_TIMEOUT.
    [[nodiscard]] int ConnectAsynchronously(const sockaddr* address, int length,
                                            unsigned int seconds);

    // Waits with select for `socket` to turn writable (`mode` 2) or readable (`mode` 1).
    // Returns 0 when it did, SWG_SOCKET_TIMEOUT, errno when select fails, or 0x80070057 for
    // a descriptor outside 0..8191 or any other mode.
    [[nodiscard]] static int IsSocketAvailable(int socket, short mode, unsigned int seconds,
                                               unsigned int microseconds);

    // getpeername(2) into `address`; `*length` in: its size, out: the size used. On failure
    // `*length` is set to 0.
    void GetPeerName(sockaddr* address, int* length);
    // Dotted text of `address`; returns 0 or errno.
    int NetworkToStringAddress(in_addr& address, std::string& out);
    // Text of the peer's IPv4 or IPv6 address; empty on failure.
    void GetPeerAddress(std::string& out);

    // Connect timeout in seconds for Connect(..., -1); 0 means a blocking connect. Whoever
    // creates a socket on the connection path sets it to 4; the web client sets it to 0.
    // Atomic because several threads store into it without a lock.
    static std::atomic<std::uint32_t> m_dwTimeout;

protected:
    int UnreadLength() const { return m_bufferLength - m_bufferOffset; }

    // Takes up to `length` bytes of the receive prefix into `buffer`; returns the count, 0
    // when none is left. MSG_PEEK in `flags` leaves them unread.
    int TakeFromPrefix(char* buffer, int length, int flags);
    // Waits for `events` (POLLIN, POLLOUT) on the descriptor until the deadline, when one is
    // set. True when the call may go ahead; false with errno ETIMEDOUT once it has passed.
    bool WaitBeforeDeadline(short events);

    std::atomic<int> m_socket;
    std::string m_prefix;
    std::size_t m_prefixOffset = 0;
    std::string m_buffer;
    int m_bufferLength = 0;
    int m_bufferOffset = 0;
    std::chrono::steady_clock::time_point m_deadline;
    bool m_bDeadline = false;
    bool m_bTimedOut = false;
};
