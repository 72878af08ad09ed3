// SPDX-License-Identifier: Apache-2.0
// CDnHttpHeaders: one HTTP header block kept as its lines, each with its own line ending.
#pragma once

#include <atomic>
#include <list>
#include <string>

class CDnVSocket;

// The request or status line is the first entry of m_lines; every entry keeps its CRLF as
// received, and the empty line that ends the block is not stored. Callers that build a block
// themselves push the lines with their CRLF and set m_bComplete.
//
// Threading: belongs to the thread that owns the socket it reads from or writes to.
class CDnHttpHeaders {
public:
    using LineList = std::list<std::string>;

    // `size` is accepted for the callers' sake and not kept.
    explicit CDnHttpHeaders(int size);

    // Empties the list, clears m_bComplete and sets m_bytes to 0.
    void Reset();

    // Reads lines through socket->ReceiveLine up to and including the empty line; bytes
    // behind it stay in the socket's line buffer. A line ended by a bare newline is joined
    // with the next one, so such a block never completes. With `limit` above 0 the block
    // may hold `limit` bytes and limit / kHeaderLineCost lines; past either the read stops.
    // Returns 0 when the block completed, ReceiveLine's code (1 when the peer closed, errno
    // when a read failed), 1 when `exit` was seen first, EMSGSIZE past the limit (logged),
    // or 0x80004003 for a null socket. Blocks until the block ends, the peer closes, the
    // socket's deadline passes or the socket is shut down under it.
    [[nodiscard]] long Read(CDnVSocket* socket, const std::atomic<bool>& exit, int limit);
    // Sends the lines and the ending CRLF in one SendComplete, with `exit` as its stop, so
    // nothing goes out once `exit` is set. Returns 0 (also when stopped), -1 when the send
    // failed, or 0x80070057 for a null socket or a block not marked complete.
    [[nodiscard]] long Write(CDnVSocket* socket, const std::atomic<bool>& exit);
    // The value of the first header `name` (any case), trimmed of spaces, tabs, CR and LF;
    // empty when there is none.
    std::string HeaderValue(std::string name);
    // The first line from `start` on whose first prefix.size() bytes equal `prefix`, both
    // upper-cased first unless `caseSensitive`; m_lines.end() when none does.
    LineList::iterator LeftFind(const std::string& prefix, LineList::iterator start,
                                bool caseSensitive);

    LineList m_lines;
    bool m_bComplete = false;
    int m_bytes = 0;  // bytes of the lines read, the ending empty line included

private:
    long TooLong(int limit);
};
