// SPDX-License-Identifier: Apache-2.0
// Shared by the fuzz targets: quiet logging that still formats every line, socketpair peers
// that hand the agent a fixed run of bytes, and the header reader's quirk.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "foundation/SSTrace.h"
#include "proxy/DnSocket.h"

namespace swg_fuzz {

// Inputs above this are skipped: the whole input must fit a socket buffer at once.
constexpr std::size_t kMaxInput = 64 * 1024;

// Every level on, so that each trace line's arguments are formatted (a %s over bytes that
// lack their terminator shows under ASan); the text goes nowhere.
class DroppingTrace : public CSSTrace {
public:
    DroppingTrace() { m_traceMask = TRACE_MASK_DEBUG; }
    __attribute__((format(printf, 2, 3))) void PrintDebugString(const char* format, ...) override {
        char line[1024];
        va_list args;
        va_start(args, format);
        std::vsnprintf(line, sizeof(line), format, args);
        va_end(args);
    }
    void GetLogMsgHeader(unsigned int /*level*/, std::string& header) override { header.clear(); }
};

inline void DropSyslogLine(int /*priority*/, const char* format, va_list args) {
    char line[1024];
    std::vsnprintf(line, sizeof(line), format, args);
}

// Installs the dropping trace object and syslog writer for the whole run.
inline void QuietLogging() {
    static DroppingTrace trace;
    g_pTraceObject = &trace;
    SwgSetSyslogWriter(&DropSyslogLine);
}

// A connected socketpair: the agent's end as a socket object (owned by whoever it is handed
// to), the peer's end as a descriptor closed with this object.
struct Peer {
    Peer() {
        int ends[2] = {-1, -1};
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return;
        const int room = 4 * static_cast<int>(kMaxInput);
        (void)::setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
        (void)::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
        agentSide = new CDnSocket(ends[0]);
        peer = ends[1];
    }
    ~Peer() {
        if (peer != -1) ::close(peer);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // Sends `bytes` and ends the peer's side, so the agent reads them and then end of stream
    // and never blocks. False when they could not all be queued.
    bool Feed(const std::string& bytes) const {
        if (peer == -1) return false;
        const ssize_t sent =
            bytes.empty() ? 0 : ::send(peer, bytes.data(), bytes.size(), MSG_DONTWAIT);
        ::shutdown(peer, SHUT_WR);
        return sent == static_cast<ssize_t>(bytes.size());
    }
    // Everything the agent has sent to the peer so far.
    std::string Drain() const {
        std::string out;
        char chunk[4096];
        ssize_t count = 0;
        while ((count = ::recv(peer, chunk, sizeof(chunk), MSG_DONTWAIT)) > 0)
            out.append(chunk, static_cast<std::size_t>(count));
        return out;
    }

    CDnSocket* agentSide = nullptr;
    int peer = -1;
};

// What the agent has not taken from a fed socket: its line buffer, then the descriptor up to
// the peer's end of stream.
inline std::string Unread(CDnVSocket& socket) {
    std::string out;
    char chunk[4096];
    int count = 0;
    while ((count = socket.Receive(chunk, sizeof(chunk), 0)) > 0)
        out.append(chunk, static_cast<std::size_t>(count));
    return out;
}

// The bytes a header block was read from, given what was sent from it: the block as Write
// sends it, then anything behind. The reader stores a lone newline that opens a line twice;
// every stored line ends in CRLF and holds no other CRLF, and an empty line ends the block.
inline std::string AsReceived(const std::string& written) {
    std::string out;
    std::size_t start = 0;
    for (std::size_t crlf; (crlf = written.find("\r\n", start)) != std::string::npos;) {
        const std::size_t from = written[start] == '\n' ? start + 1 : start;
        out.append(written, from, crlf + 2 - from);
        const bool end = crlf == start;
        start = crlf + 2;
        if (end) break;
    }
    return out.append(written, start, std::string::npos);
}

}  // namespace swg_fuzz
