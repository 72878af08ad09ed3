// SPDX-License-Identifier: Apache-2.0
// CSocketPair: select() relay between the diverted client and its outgoing socket.
#include "proxy/SocketPair.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "foundation/Trace.h"
#include "proxy/DnSocket.h"
#include "proxy/VSocket.h"

std::atomic<std::uint32_t> g_SockId{0};

namespace {

constexpr long kSelectTimeoutUs = 500000;
// A lone byte from the remote side waits this long for the rest of its record, so that the
// client gets both in one write (some TLS stacks send a record's first byte on its own).
constexpr long kSingleByteHoldUs = 200000;
constexpr std::uint32_t kCallbackThreshold = 512;

constexpr long kNoProgress = -2;
constexpr unsigned kSpliceFlags = SPLICE_F_MOVE | SPLICE_F_NONBLOCK;

void ResetBuff(SL_BUFF& buff) {
    buff.cur_len = 0;
    buff.cur_ptr = buff.data;
}

// Pipes take only descriptors below this: the two listeners' 1,500 connections then still
// find socket numbers below the 8192 that the relay's select sets hold, while four pipe ends
// each would not leave them room.
constexpr int kPipeDescriptorCeiling = 4096;

// A pipe for one direction; false when none can be had (out of descriptors, say).
bool OpenPipe(int& readEnd, int& writeEnd) {
    int ends[2];
    if (::pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) return false;
    if (ends[1] >= kPipeDescriptorCeiling) {
        ::close(ends[0]);
        ::close(ends[1]);
        return false;
    }
    readEnd = ends[0];
    writeEnd = ends[1];
    return true;
}

// A splice into a socket whose peer has gone raises SIGPIPE (there is no MSG_NOSIGNAL for
// it), so splicing is only for a process that ignores the signal, as the agent does.
bool SigPipeIgnored() {
    struct sigaction current {};
    return ::sigaction(SIGPIPE, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) == 0 &&
           current.sa_handler == SIG_IGN;
}

// A side can be spliced when it is a plain socket whose Recv and Send would add nothing:
// no receive prefix left and no deadline.
bool Spliceable(CDnVSocket& socket) {
    return dynamic_cast<CDnSocket*>(&socket) != nullptr && socket.UnreadPrefixLength() == 0 &&
           !socket.HasDeadline() && CFdSet::InRange(socket.GetSocket());
}

// Errors that say splice cannot serve these descriptors at all, rather than that a side failed.
bool SpliceRefused(int error) {
    return error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == ESPIPE;
}

}  // namespace

// `data` is left as it is: nothing reads a byte before a read has written it, and clearing six
// buffers cost every connection 96 KB of stores.
SL_BUFF::SL_BUFF() : cur_len(0), cur_ptr(data), max_len(kCapacity), flag(false), recv_time() {}

CSocketPair::CSocketPair(CDnVSocket& remote, CDnVSocket& local, const std::atomic<bool>& exit,
                         boost::function<bool()>& callback)
    : m_remote(&remote),
      m_local(&local),
      m_remote_sk(remote.GetSocket()),
      m_local_sk(local.GetSocket()),
      m_exit(&exit),
      m_sockId(++g_SockId),
      m_callback(callback) {
    for (int i = 0; i < kBuffsPerDirection; ++i) {
        m_free_from_local.push_back(&m_buffs[i]);
        m_free_from_remote.push_back(&m_buffs[kBuffsPerDirection + i]);
    }
}

CSocketPair::~CSocketPair() {
    for (Lane* lane : {&m_up, &m_down}) {
        if (!lane->Active()) continue;
        ::close(lane->readEnd);
        ::close(lane->writeEnd);
    }
}

void CSocketPair::OpenLane(Lane& lane, const BuffList& toSend) {
    if (lane.tried || !lane.bulk || !toSend.empty()) return;
    lane.tried = true;
    if (!OpenPipe(lane.readEnd, lane.writeEnd)) lane.readEnd = lane.writeEnd = -1;
}

bool CSocketPair::CanRead(const Lane& lane, const BuffList& freeList) {
    if (!lane.Active()) return !freeList.empty();
    return lane.queued < kReadAhead && !lane.slotsFull;
}

int CSocketPair::ProxyLoop() {
    if (m_local->SendCompleteFromInternalBuffer(m_remote, 0, *m_exit) == -1) {
        const int saved = errno;
        DNTRACE(BRIDGE,
                "(%u)Exiting on socket condition:  SendCompleteFromInternalBuffer(), error=%u\n",
                m_sockId, static_cast<unsigned>(saved));
        return -1;
    }
    // Pipes cost a small exchange more than they save (two pipe2 and four close, about a
    // tenth of a short connection's time): a direction gets one only when it carries bulk.
    const bool spliceable = SigPipeIgnored() && Spliceable(*m_local) && Spliceable(*m_remote);
    m_up.tried = m_down.tried = !spliceable;
    while (!m_exit->load() && !IsSocketExitConditions()) {
        OpenLane(m_up, m_to_remote);
        OpenLane(m_down, m_to_local);
        int result = WaitOnSocketsSelect();
        if (result != 0) return result;
        if ((result = RecvFromLocal()) != 0) return result;
        if ((result = RecvFromRemote()) != 0) return result;
        if ((result = SendToRemote()) != 0) return result;
        if ((result = SendToLocal()) != 0) return result;
    }
    return 0;
}

bool CSocketPair::IsSocketExitConditions() {
    // Log texts stay whole, so that they can be searched for.
    // clang-format off
    if (m_local_sk == -1 && m_remote_sk == -1) {
        DNTRACE(BRIDGE, "(%u)Exiting on socket condition:  (m_local_sk == INVALID_SOCKET) && (m_remote_sk == INVALID_SOCKET)\n",
                m_sockId);
        return true;
    }
    if (m_local_sk == -1 && !Queued(m_up, m_to_remote)) {
        DNTRACE(BRIDGE, "(%u)Exiting on socket condition:  (m_local_sk == INVALID_SOCKET) && (m_to_remote.cur_len==0)\n",
                m_sockId);
        return true;
    }
    if (m_remote_sk == -1 && !Queued(m_down, m_to_local)) {
        DNTRACE(BRIDGE, "(%u)Exiting on socket condition:  (m_remote_sk == INVALID_SOCKET) && (m_to_local.cur_len==0)\n",
                m_sockId);
        return true;
    }
    // clang-format on
    return false;
}

void CSocketPair::EnterRead(int fd, int& maxFd) {
    if (m_read_set.Set(fd) && fd > maxFd) maxFd = fd;
}

void CSocketPair::EnterWrite(int fd, int& maxFd) {
    if (m_write_set.Set(fd) && fd > maxFd) maxFd = fd;
}

bool CSocketPair::IsSingleByteHeld() const {
    boost::posix_time::ptime since;
    if (m_down.Active()) {
        if (m_down.queued != 1) return false;
        since = m_down.loneTime;
    } else {
        if (m_to_local.empty() || m_to_local.front()->cur_len != 1) return false;
        since = m_to_local.front()->recv_time;
    }
    if (since.is_special()) return false;
    const boost::posix_time::time_duration age =
        boost::posix_time::microsec_clock::universal_time() - since;
    // A clock stepped back gives a negative age: release rather than hold without bound.
    return !age.is_negative() && age.total_microseconds() < kSingleByteHoldUs;
}

int CSocketPair::WaitOnSocketsSelect() {
    if (m_exit->load()) return SWG_SOCKET_TIMEOUT;
    for (;;) {
        m_read_set.Zero();
        m_write_set.Zero();
        long timeoutUs = kSelectTimeoutUs;
        // Only descriptors actually entered count towards nfds: one of 8192 or more is left
        // out, and the kernel must not read bits past the 1024-byte sets.
        int maxFd = -1;
        if (CanRead(m_up, m_free_from_local) && m_local_sk != -1) EnterRead(m_local_sk, maxFd);
        if (Queued(m_up, m_to_remote) && m_remote_sk != -1) EnterWrite(m_remote_sk, maxFd);
        if (CanRead(m_down, m_free_from_remote) && m_remote_sk != -1) EnterRead(m_remote_sk, maxFd);
        if (Queued(m_down, m_to_local) && m_local_sk != -1) {
            if (IsSingleByteHeld())
                timeoutUs = kSingleByteHoldUs;
            else
                EnterWrite(m_local_sk, maxFd);
        }

        timeval wait{};
        wait.tv_usec = static_cast<suseconds_t>(timeoutUs);
        const int ready =
            ::select(maxFd + 1, m_read_set.Native(), m_write_set.Native(), nullptr, &wait);
        if (ready == -1) {
            const int saved = errno;
            DNTRACE(BRIDGE, "(%u)Exiting on socket condition:  select got an error...\n", m_sockId);
            return saved;
        }
        if (ready > 0) return 0;
        if (m_exit->load()) return SWG_SOCKET_TIMEOUT;
        const int gone = SideGoneUnread();
        if (gone != 0) return gone;
    }
}

int CSocketPair::SideGoneUnread() {
    // A side whose direction is full is not in the read set, so select cannot tell that it
    // has reset or hung up, and while the other side takes nothing the relay would wait on
    // it for ever. poll reports hang-up and error without being asked.
    const struct {
        int fd;
        bool unread;
        const char* name;
    } sides[] = {{m_local_sk, !CanRead(m_up, m_free_from_local), "local"},
                 {m_remote_sk, !CanRead(m_down, m_free_from_remote), "remote"}};
    for (const auto& side : sides) {
        if (side.fd == -1 || !side.unread) continue;
        pollfd entry{side.fd, 0, 0};
        if (::poll(&entry, 1, 0) != 1 || (entry.revents & (POLLHUP | POLLERR)) == 0) continue;
        int error = 0;
        socklen_t length = sizeof(error);
        (void)::getsockopt(side.fd, SOL_SOCKET, SO_ERROR, &error, &length);
        DNTRACE(BRIDGE, "(%u)Exiting on socket condition:  %s side gone while not read, error=%u\n",
                m_sockId, side.name, static_cast<unsigned>(error));
        return SWG_RELAY_SIDE_FINISHED;
    }
    return 0;
}

long CSocketPair::SpliceIn(Lane& lane, int fd, BuffList& freeList, BuffList& toSend) {
    const ssize_t moved =
        ::splice(fd, nullptr, lane.writeEnd, nullptr, kReadAhead - lane.queued, kSpliceFlags);
    if (moved > 0) {
        lane.queued += static_cast<std::size_t>(moved);
        return static_cast<long>(moved);
    }
    if (moved == 0) return 0;
    const int saved = errno;
    if (saved == EINTR) return kNoProgress;
    if (saved == EAGAIN) {
        // The pipe ran out of slots (small segments take one each) before kReadAhead bytes:
        // stop reading until a send has made room, or select would return at once for ever.
        if (lane.queued != 0) lane.slotsFull = true;
        return kNoProgress;
    }
    if (SpliceRefused(saved)) {
        FallBackToBuffs(lane, freeList, toSend);
        return kNoProgress;
    }
    // As CDnSocket::Recv reports a failed read.
    if (saved != ECONNRESET)
        DNTRACE(ERR, "Socket : socket(%d) receive error. Code : %d", fd, saved);
    errno = saved;
    return -1;
}

void CSocketPair::FallBackToBuffs(Lane& lane, BuffList& freeList, BuffList& toSend) {
    // At most kReadAhead bytes are in the pipe, and every buffer of the direction is free
    // while it is spliced, so they all fit.
    while (lane.queued != 0 && !freeList.empty()) {
        SL_BUFF* buff = freeList.front();
        const ssize_t got =
            ::read(lane.readEnd, buff->data, std::min<std::size_t>(lane.queued, buff->max_len));
        if (got <= 0) break;
        buff->cur_len = static_cast<std::size_t>(got);
        buff->cur_ptr = buff->data;
        buff->recv_time = lane.loneTime;
        lane.queued -= static_cast<std::size_t>(got);
        toSend.splice(toSend.end(), freeList, freeList.begin());
    }
    ::close(lane.readEnd);
    ::close(lane.writeEnd);
    lane = Lane{};
    lane.tried = true;
}

int CSocketPair::RecvFromLocal() {
    if (!CanRead(m_up, m_free_from_local) || m_local_sk == -1 || !m_read_set.IsSet(m_local_sk))
        return 0;
    int received = 0;
    if (m_up.Active()) {
        const long moved = SpliceIn(m_up, m_local_sk, m_free_from_local, m_to_remote);
        if (moved > 0) return 0;
        if (moved == kNoProgress) return 0;  // a fallen-back lane reads on the next pass
        received = static_cast<int>(moved);
    } else {
        SL_BUFF* buff = m_free_from_local.front();
        received = m_local->Recv(buff->data, static_cast<int>(buff->max_len), 0);
        if (received > 0) {
            if (static_cast<std::size_t>(received) == buff->max_len) m_up.bulk = true;
            buff->cur_len = static_cast<std::size_t>(received);
            buff->cur_ptr = buff->data;
            m_to_remote.splice(m_to_remote.end(), m_free_from_local, m_free_from_local.begin());
            return 0;
        }
        ResetBuff(*buff);
    }
    const int saved = errno;
    m_local_sk = -1;
    if (Queued(m_up, m_to_remote)) return 0;
    if (received == 0)
        DNTRACE(BRIDGE,
                "(%u)Exiting on socket condition:  RecvFromLocal(), normal connection close\n",
                m_sockId);
    else
        DNTRACE(BRIDGE, "(%u)Exiting on socket condition:  RecvFromLocal(), error=%u\n", m_sockId,
                static_cast<unsigned>(saved));
    return SWG_RELAY_SIDE_FINISHED;
}

int CSocketPair::RecvFromRemote() {
    if (!CanRead(m_down, m_free_from_remote) || m_remote_sk == -1 || !m_read_set.IsSet(m_remote_sk))
        return 0;
    if (m_down.Active()) {
        const bool wasEmpty = m_down.queued == 0;
        const long moved = SpliceIn(m_down, m_remote_sk, m_free_from_remote, m_to_local);
        if (moved == kNoProgress) return 0;
        if (moved > 0) {
            NoteRemoteBytes(static_cast<int>(moved));
            // Bytes behind a held lone byte join it in the pipe and go out with it.
            if (wasEmpty && moved == 1)
                m_down.loneTime = boost::posix_time::microsec_clock::universal_time();
            return 0;
        }
        return RemoteEnded(static_cast<int>(moved), errno);
    }
    const bool append = !m_to_local.empty() && m_to_local.back()->cur_len == 1;
    SL_BUFF* buff = append ? m_to_local.back() : m_free_from_remote.front();
    if (append && buff->cur_ptr != buff->data) {
        // The lone byte is the tail of a partly sent buffer: move it to the front so the
        // read behind it has max_len - 1 bytes of room.
        buff->data[0] = *buff->cur_ptr;
        buff->cur_ptr = buff->data;
    }
    char* const into = append ? buff->cur_ptr + 1 : buff->data;
    const std::size_t room = append ? buff->max_len - 1 : buff->max_len;
    const int received = m_remote->Recv(into, static_cast<int>(room), 0);

    if (received <= 0) {
        const int saved = errno;
        if (!append) ResetBuff(*buff);
        return RemoteEnded(received, saved);
    }

    NoteRemoteBytes(received);
    if (append) {
        if (static_cast<std::size_t>(received) == room) m_down.bulk = true;
        buff->cur_len += static_cast<std::size_t>(received);
        return 0;
    }
    if (static_cast<std::size_t>(received) == room) m_down.bulk = true;
    buff->cur_len = static_cast<std::size_t>(received);
    buff->cur_ptr = buff->data;
    m_to_local.splice(m_to_local.end(), m_free_from_remote, m_free_from_remote.begin());
    if (received == 1) buff->recv_time = boost::posix_time::microsec_clock::universal_time();
    return 0;
}

int CSocketPair::RemoteEnded(int received, int saved) {
    m_remote_sk = -1;
    if (Queued(m_down, m_to_local)) return 0;
    // Log texts stay whole, so that they can be searched for.
    // clang-format off
    if (received == 0)
        DNTRACE(BRIDGE, "(%u)Exiting on socket condition:  RecvFromRemote(), exit on normal connection close\n",
                m_sockId);
    else
        DNTRACE(BRIDGE, "(%u)Exiting on socket condition:  RecvFromRemote(), error=%u\n",
                m_sockId, static_cast<unsigned>(saved));
    // clang-format on
    return SWG_RELAY_SIDE_FINISHED;
}

void CSocketPair::NoteRemoteBytes(int count) {
    if (m_bCallbackDone) return;
    m_remoteBytes += static_cast<std::uint32_t>(count);
    if (m_remoteBytes <= kCallbackThreshold) return;
    m_bCallbackDone = true;
    if (m_callback) (void)m_callback();
}

int CSocketPair::SendToRemote() {
    return SendFront(m_up, m_to_remote, m_free_from_local, *m_remote, m_remote_sk,
                     Queued(m_down, m_to_local), true);
}

int CSocketPair::SendToLocal() {
    return SendFront(m_down, m_to_local, m_free_from_remote, *m_local, m_local_sk,
                     Queued(m_up, m_to_remote), false);
}

int CSocketPair::SendFront(Lane& lane, BuffList& toSend, BuffList& freeList, CDnVSocket& target,
                           int& targetSk, bool oppositeQueued, bool toRemote) {
    if (!Queued(lane, toSend) || targetSk == -1 || !m_write_set.IsSet(targetSk)) return 0;
    if (lane.Active()) {
        // All the pipe holds in one call, as a buffer's bytes go in one send.
        const ssize_t moved =
            ::splice(lane.readEnd, nullptr, targetSk, nullptr, lane.queued, kSpliceFlags);
        if (moved > 0) {
            lane.queued -= static_cast<std::size_t>(moved);
            lane.slotsFull = false;
            return 0;
        }
        const int saved = errno;
        if (moved == -1 && (saved == EINTR || saved == EAGAIN)) return 0;
        if (moved == -1 && SpliceRefused(saved)) {
            FallBackToBuffs(lane, freeList, toSend);
            return 0;  // the buffers go out on the next writable pass
        }
        return TargetEnded(targetSk, oppositeQueued, toRemote, saved);
    }
    SL_BUFF* buff = toSend.front();
    if (buff->cur_len == 0) {
        ResetBuff(*buff);
        freeList.splice(freeList.end(), toSend, toSend.begin());
        return 0;
    }
    const int sent = target.Send(buff->cur_ptr, static_cast<int>(buff->cur_len), 0);
    if (sent <= 0) {
        const int saved = errno;
        // The buffer also stays on the send list as an empty entry; with its target gone
        // nothing sends from that list again.
        ResetBuff(*buff);
        freeList.push_back(buff);
        return TargetEnded(targetSk, oppositeQueued, toRemote, saved);
    }
    if (static_cast<std::size_t>(sent) >= buff->cur_len) {
        ResetBuff(*buff);
        freeList.splice(freeList.end(), toSend, toSend.begin());
    } else {
        buff->cur_len -= static_cast<std::size_t>(sent);
        buff->cur_ptr += sent;
    }
    return 0;
}

int CSocketPair::TargetEnded(int& targetSk, bool oppositeQueued, bool toRemote, int saved) {
    targetSk = -1;
    if (oppositeQueued) return 0;
    if (toRemote)
        DNTRACE(BRIDGE, "(%u)Exiting on socket condition:  SendToRemote(), error=%u\n", m_sockId,
                static_cast<unsigned>(saved));
    else
        DNTRACE(BRIDGE, "(%u)Exiting on socket condition:  SendToLocal(), error=%u\n", m_sockId,
                static_cast<unsigned>(saved));
    return SWG_RELAY_SIDE_FINISHED;
}
