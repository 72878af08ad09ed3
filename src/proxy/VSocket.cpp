// SPDX-License-Identifier: Apache-2.0
// CDnVSocket: line buffer, waits and address helpers shared by every socket of the connection path.
#include "proxy/VSocket.h"

#include <algorithm>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <new>
#include <thread>

#include "foundation/GlobalConst.h"
#include "foundation/Trace.h"
#include "proxy/FdSet.h"

std::atomic<std::uint32_t> CDnVSocket::m_dwTimeout{0};

namespace {

constexpr int kReservedBuffer = 1024;
// A line buffer that grew past this (a long line, a sniffed block) is freed when emptied.
constexpr std::size_t kKeptBufferCapacity = 4 * kReservedBuffer;
constexpr int kReceiveLineChunk = 1024;
constexpr int kPeekPollMs = 10;
// A client that streams without a line end is looked at no further than this: the sniffer
// decides on what it has, and the rest stays in the socket for the relay. Without a bound
// such a client would be buffered in memory until it paused.
constexpr int kPeekLineLimit = 65536;
constexpr char kNewline = '\n';

int InvalidArg() { return static_cast<int>(SWG_E_INVALIDARG); }

int SetNonBlocking(int fd, unsigned long on) {
    int value = on != 0 ? 1 : 0;
    return ::ioctl(fd, FIONBIO, &value);
}

}  // namespace

CDnVSocket::CDnVSocket() : CDnVSocket(-1) {}

CDnVSocket::CDnVSocket(int socket) : m_socket(socket) { m_buffer.reserve(kReservedBuffer); }

long CDnVSocket::ConnectSSL(ssl_ctx_st*, const char*) { return SWG_E_NOTIMPL; }
long CDnVSocket::AcceptSSL(ssl_ctx_st*) { return SWG_E_NOTIMPL; }
long CDnVSocket::VerifyPeerCertificate(const char*) { return SWG_E_NOTIMPL; }
long CDnVSocket::GetPeerX509Certificate(x509_st**) { return SWG_E_NOTIMPL; }
long CDnVSocket::GetPeerX509StackOfCertificates(stack_st_X509**) { return SWG_E_NOTIMPL; }
void CDnVSocket::FreeX509Certificate(x509_st*) {}

int CDnVSocket::Receive(char* buffer, int length, int flags) {
    const int unread = UnreadLength();
    if (unread <= 0) return Recv(buffer, length, flags);
    if (length < 1) return 0;
    if (unread > length) {
        m_buffer.copy(buffer, static_cast<size_t>(length), static_cast<size_t>(m_bufferOffset));
        m_bufferOffset += length;
        return length;
    }
    m_buffer.copy(buffer, static_cast<size_t>(unread), static_cast<size_t>(m_bufferOffset));
    ResetBuffer();
    return unread;
}

bool CDnVSocket::IsDataAvailable(unsigned long& readable, int* error) {
    if (error != nullptr) *error = 0;
    if (IsDataAvailableInBuffer(readable)) return true;
    return IsDataAvailableOnSocket(readable, error);
}

bool CDnVSocket::IsDataAvailableOnSocket(unsigned long& readable, int* error) {
    int count = 0;
    readable = 0;
    if (::ioctl(m_socket.load(), FIONREAD, &count) == -1) {
        const int saved = errno;
        if (error != nullptr) *error = saved;
        return false;
    }
    if (error != nullptr) *error = 0;
    readable = static_cast<unsigned long>(count) + static_cast<unsigned long>(UnreadPrefixLength());
    return readable != 0;
}

bool CDnVSocket::IsDataAvailableInBuffer(unsigned long& readable) {
    const int unread = UnreadLength();
    readable = unread > 0 ? static_cast<unsigned long>(unread) : 0;
    return unread > 0;
}

bool CDnVSocket::IsLineAvailableInBuffer() { return m_buffer.find(kNewline) != std::string::npos; }

long CDnVSocket::GetReadable() {
    int count = 0;
    if (::ioctl(m_socket.load(), FIONREAD, &count) == -1) return 0;
    return count + UnreadPrefixLength();
}

void CDnVSocket::SetReceivePrefix(const char* data, int length) {
    if (data == nullptr || length < 1) return;
    m_prefix.assign(data, static_cast<size_t>(length));
    m_prefixOffset = 0;
}

int CDnVSocket::TakeFromPrefix(char* buffer, int length, int flags) {
    const int unread = UnreadPrefixLength();
    if (unread <= 0 || length < 1) return 0;
    const int count = unread < length ? unread : length;
    m_prefix.copy(buffer, static_cast<size_t>(count), m_prefixOffset);
    if ((flags & MSG_PEEK) != 0) return count;
    m_prefixOffset += static_cast<size_t>(count);
    if (m_prefixOffset >= m_prefix.size()) {
        m_prefix.clear();
        m_prefix.shrink_to_fit();
        m_prefixOffset = 0;
    }
    return count;
}

void CDnVSocket::SetDeadline(std::chrono::steady_clock::time_point deadline) {
    m_deadline = deadline;
    m_bDeadline = true;
    m_bTimedOut = false;
}

bool CDnVSocket::WaitBeforeDeadline(short events) {
    // A closed descriptor is for the call itself to report.
    if (!m_bDeadline || m_socket.load() == -1) return true;
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            m_deadline - std::chrono::steady_clock::now());
        pollfd entry{m_socket.load(), events, 0};
        // A wait that has run out still looks once: what is ready needs no wait.
        const int ready = ::poll(&entry, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready > 0) return true;  // ready, or an error or hang-up that the call reports
        if (ready == -1 && errno == EINTR) continue;
        if (ready == -1) return true;  // the call itself reports what is wrong
        if (left.count() > 0) continue;
        m_bTimedOut = true;
        errno = ETIMEDOUT;
        return false;
    }
}

void CDnVSocket::ResetBuffer() {
    if (m_buffer.capacity() > kKeptBufferCapacity) std::string().swap(m_buffer);
    m_buffer.erase();
    m_bufferLength = 0;
    m_bufferOffset = 0;
    m_buffer.reserve(kReservedBuffer);
}

bool CDnVSocket::AppendDataToBuffer(const char* data, int length) {
    if (data == nullptr || length < 1) return false;
    m_buffer.append(data, static_cast<size_t>(length));
    m_bufferLength += length;
    return true;
}

void CDnVSocket::PeekDataFromBuffer(std::string& out) {
    const int unread = UnreadLength();
    if (unread <= 0) {
        out.clear();
        return;
    }
    out.assign(m_buffer, static_cast<size_t>(m_bufferOffset), static_cast<size_t>(unread));
}

void CDnVSocket::PeekLineFromBuffer(std::string& out, int end) {
    if (end == -1) {
        const size_t found = m_buffer.find(kNewline, static_cast<size_t>(m_bufferOffset));
        if (found == std::string::npos) return;
        end = static_cast<int>(found);
    }
    if (end < m_bufferOffset || end >= m_bufferLength) return;
    out.assign(m_buffer, static_cast<size_t>(m_bufferOffset),
               static_cast<size_t>(end - m_bufferOffset) + 1);
}

std::string CDnVSocket::ExtractLineFromBuffer(int end) {
    std::string line;
    PeekLineFromBuffer(line, end);
    if (line.empty()) return line;
    m_bufferOffset += static_cast<int>(line.size());
    if (m_bufferOffset >= m_bufferLength) ResetBuffer();
    return line;
}

std::string CDnVSocket::PeekLine(int size, int timeoutMs, const std::atomic<bool>& exit) {
    if (size < 1) {
        DNTRACE(ERR, "Socket : Bad parameter size = %d", size);
        return std::string();
    }
    ResetBuffer();
    for (;;) {
        if (exit.load()) return std::string();
        std::unique_ptr<char[]> chunk(new (std::nothrow) char[static_cast<size_t>(size)]);
        if (!chunk) {
            DNTRACE(ERR, "Socket : Failed to Peek Line, System Out Of Memory!!!");
            return std::string();
        }
        const int received = Recv(chunk.get(), size, 0);
        if (received < 1) {
            DNTRACE(ERR, "Socket : Failed to Peek Line.");
            return std::string();
        }
        AppendDataToBuffer(chunk.get(), received);
        std::string line;
        PeekLineFromBuffer(line, -1);
        if (!line.empty()) return line;
        const int room = kPeekLineLimit - (m_bufferLength - m_bufferOffset);
        if (room < 1) {
            DNTRACE(BRIDGE, "Socket : PeekLine stopped after %d bytes without a line end",
                    m_bufferLength - m_bufferOffset);
            std::string buffered;
            PeekDataFromBuffer(buffered);
            return buffered;
        }

        long readable = GetReadable();
        while (readable < 1 && timeoutMs >= 1 && !exit.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kPeekPollMs));
            timeoutMs -= kPeekPollMs;
            readable = GetReadable();
        }
        if (readable < 1) break;
        size = static_cast<int>(std::min<long>(readable, room));
    }
    std::string buffered;
    PeekDataFromBuffer(buffered);
    DNTRACE(BRIDGE, "Socket : Timed out in PeekLine. Line : %s", buffered.c_str());
    return buffered;
}

int CDnVSocket::ReceiveLine(std::string& line, int limit) {
    line = ExtractLineFromBuffer(-1);
    if (!line.empty()) return 0;
    char chunk[kReceiveLineChunk];
    for (;;) {
        if (limit > 0 && UnreadLength() >= limit) return EMSGSIZE;
        const int received = Recv(chunk, kReceiveLineChunk, 0);
        if (received < 0) {
            const int saved = errno;
            DNTRACE(ERR, "Socket : Error occurred in ReceiveLine. Code : %d", saved);
            return saved;
        }
        if (received == 0) {
            DNTRACE(ERR, "Socket : Received close in ReceiveLine");
            return 1;
        }
        AppendDataToBuffer(chunk, received);
        line = ExtractLineFromBuffer(-1);
        if (!line.empty()) return 0;
    }
}

int CDnVSocket::ReceiveHeaders(std::string& headers, int limit) {
    int lineLength = 0;  // bytes of the current line, CR left out
    for (int count = 0;; ++count) {
        if (limit > 0 && count >= limit) {
            errno = EMSGSIZE;
            return -1;
        }
        char byte = 0;
        const int received = Receive(&byte, 1, 0);
        if (received < 1) return received;
        headers.push_back(byte);
        if (byte == kNewline) {
            if (lineLength == 0) return received;
            lineLength = 0;
        } else if (byte != '\r') {
            ++lineLength;
        }
    }
}

int CDnVSocket::SendCompleteFromInternalBuffer(CDnVSocket* target, int flags,
                                               const std::atomic<bool>& exit) {
    const int unread = UnreadLength();
    if (target == nullptr || unread <= 0) return 0;
    const int sent =
        target->SendComplete(m_buffer.data() + m_bufferOffset, unread, flags, exit.load());
    if (sent == -1) return -1;
    ResetBuffer();
    return sent;
}

void CDnVSocket::SetBlockingMode(unsigned long mode) {
    (void)SetNonBlocking(m_socket.load(), mode);
}

void CDnVSocket::SetSockOptions(int level, int name, const char* value, int length) {
    (void)::setsockopt(m_socket.load(), level, name, value, static_cast<socklen_t>(length));
}

int CDnVSocket::ConnectAsynchronously(const sockaddr* address, int length, unsigned int seconds) {
    const int fd = m_socket.load();
    if (SetNonBlocking(fd, 1) == -1)
        DNTRACE(ERR, "Socket : Failed to set socket to non-blocking mode");

    int result = 0;
    if (::connect(fd, address, static_cast<socklen_t>(length)) == -1) {
        result = errno;
        if (result == EINPROGRESS) result = IsSocketAvailable(fd, 2, seconds, 0);
    }
    // A failed connect leaves the descriptor non-blocking: the caller discards it.
    if (result == 0 && SetNonBlocking(fd, 0) == -1)
        DNTRACE(ERR, "Socket : Failed to set socket back to blocking mode");
    return result;
}

int CDnVSocket::IsSocketAvailable(int socket, short mode, unsigned int seconds,
                                  unsigned int microseconds) {
    if (!CFdSet::InRange(socket)) {
        DNTRACE(ERR, "Socket : Invalid socket (%d) as input", socket);
        return InvalidArg();
    }
    if (mode != 1 && mode != 2) return InvalidArg();

    CFdSet set;
    set.Set(socket);
    timeval wait{};
    wait.tv_sec = static_cast<time_t>(seconds);
    wait.tv_usec = static_cast<suseconds_t>(microseconds);
    fd_set* readSet = mode == 1 ? set.Native() : nullptr;
    fd_set* writeSet = mode == 2 ? set.Native() : nullptr;
    const int ready = ::select(socket + 1, readSet, writeSet, nullptr, &wait);
    if (ready == 0) return SWG_SOCKET_TIMEOUT;
    if (ready == 1) return 0;
    const int saved = errno;
    DNTRACE(ERR, "Socket : Unknown error occurred. Code : %d, Socket: %d", saved, socket);
    return saved;
}

void CDnVSocket::GetPeerName(sockaddr* address, int* length) {
    if (address == nullptr || length == nullptr) return;
    socklen_t size = *length > 0 ? static_cast<socklen_t>(*length) : 0;
    if (::getpeername(m_socket.load(), address, &size) == -1) size = 0;
    *length = static_cast<int>(size);
}

int CDnVSocket::NetworkToStringAddress(in_addr& address, std::string& out) {
    char text[INET_ADDRSTRLEN] = {};
    if (::inet_ntop(AF_INET, &address, text, sizeof(text)) == nullptr) return errno;
    out = text;
    return 0;
}

void CDnVSocket::GetPeerAddress(std::string& out) {
    out.clear();
    sockaddr_storage peer{};
    int length = static_cast<int>(sizeof(peer));
    GetPeerName(reinterpret_cast<sockaddr*>(&peer), &length);
    if (length == 0) return;
    if (peer.ss_family == AF_INET) {
        NetworkToStringAddress(reinterpret_cast<sockaddr_in*>(&peer)->sin_addr, out);
        return;
    }
    if (peer.ss_family == AF_INET6) {
        char text[INET6_ADDRSTRLEN] = {};
        if (::inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(&peer)->sin6_addr, text,
                        sizeof(text)) != nullptr)
            out = text;
    }
}
