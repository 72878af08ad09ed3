// SPDX-License-Identifier: Apache-2.0
// CSocketPair: select() relay between the diverted client and its outgoing socket.
#include "proxy/SocketPair.h"

#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <cerrno>
#include <cstring>

#include "foundation/Trace.h"
#include "proxy/VSocket.h"

std::atomic<std::uint32_t> g_SockId{0};

namespace {

constexpr long kSelectTimeoutUs = 500000;
// A lone byte from the remote side waits this long for the rest of its record, so that the
// client gets both in one write (some TLS stacks send a record's first byte on its own).
constexpr long kSingleByteHoldUs = 200000;
constexpr std::uint32_t kCallbackThreshold = 512;

void ResetBuff(SL_BUFF& buff) {
    buff.cur_len = 0;
    buff.cur_ptr = buff.data;
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

int CSocketPair::ProxyLoop() {
    if (m_local->SendCompleteFromInternalBuffer(m_remote, 0, *m_exit) == -1) {
        const int saved = errno;
        DNTRACE(BRIDGE,
                "(%u)Exiting on socket condition:  SendCompleteFromInternalBuffer(), error=%u\n",
                m_sockId, static_cast<unsigned>(saved));
        return -1;
    }
    while (!m_exit->load() && !IsSocketExitConditions()) {
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
    if (m_local_sk == -1 && m_to_remote.empty()) {
        DNTRACE(BRIDGE, "(%u)Exiting on socket condition:  (m_local_sk == INVALID_SOCKET) && (m_to_remote.cur_len==0)\n",
                m_sockId);
        return true;
    }
    if (m_remote_sk == -1 && m_to_local.empty()) {
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
    if (m_to_local.empty()) return false;
    const SL_BUFF* front = m_to_local.front();
    if (front->cur_len != 1 || front->recv_time.is_special()) return false;
    const boost::posix_time::time_duration age =
        boost::posix_time::microsec_clock::universal_time() - front->recv_time;
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
        if (!m_free_from_local.empty() && m_local_sk != -1) EnterRead(m_local_sk, maxFd);
        if (!m_to_remote.empty() && m_remote_sk != -1) EnterWrite(m_remote_sk, maxFd);
        if (!m_free_from_remote.empty() && m_remote_sk != -1) EnterRead(m_remote_sk, maxFd);
        if (!m_to_local.empty() && m_local_sk != -1) {
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
    } sides[] = {{m_local_sk, m_free_from_local.empty(), "local"},
                 {m_remote_sk, m_free_from_remote.empty(), "remote"}};
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

int CSocketPair::RecvFromLocal() {
    if (m_free_from_local.empty() || m_local_sk == -1 || !m_read_set.IsSet(m_local_sk)) return 0;
    SL_BUFF* buff = m_free_from_local.front();
    const int received = m_local->Recv(buff->data, static_cast<int>(buff->max_len), 0);
    if (received > 0) {
        buff->cur_len = static_cast<std::size_t>(received);
        buff->cur_ptr = buff->data;
        m_to_remote.splice(m_to_remote.end(), m_free_from_local, m_free_from_local.begin());
        return 0;
    }
    const int saved = errno;
    ResetBuff(*buff);
    m_local_sk = -1;
    if (!m_to_remote.empty()) return 0;
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
    if (m_free_from_remote.empty() || m_remote_sk == -1 || !m_read_set.IsSet(m_remote_sk)) return 0;
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
        m_remote_sk = -1;
        if (!m_to_local.empty()) return 0;
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

    NoteRemoteBytes(received);
    if (append) {
        buff->cur_len += static_cast<std::size_t>(received);
        return 0;
    }
    buff->cur_len = static_cast<std::size_t>(received);
    buff->cur_ptr = buff->data;
    m_to_local.splice(m_to_local.end(), m_free_from_remote, m_free_from_remote.begin());
    if (received == 1) buff->recv_time = boost::posix_time::microsec_clock::universal_time();
    return 0;
}

void CSocketPair::NoteRemoteBytes(int count) {
    if (m_bCallbackDone) return;
    m_remoteBytes += static_cast<std::uint32_t>(count);
    if (m_remoteBytes <= kCallbackThreshold) return;
    m_bCallbackDone = true;
    if (m_callback) (void)m_callback();
}

int CSocketPair::SendToRemote() {
    return SendFront(m_to_remote, m_free_from_local, *m_remote, m_remote_sk, m_to_local, true);
}

int CSocketPair::SendToLocal() {
    return SendFront(m_to_local, m_free_from_remote, *m_local, m_local_sk, m_to_remote, false);
}

int CSocketPair::SendFront(BuffList& toSend, BuffList& freeList, CDnVSocket& target, int& targetSk,
                           const BuffList& opposite, bool toRemote) {
    if (toSend.empty() || targetSk == -1 || !m_write_set.IsSet(targetSk)) return 0;
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
        targetSk = -1;
        if (!opposite.empty()) return 0;
        if (toRemote)
            DNTRACE(BRIDGE, "(%u)Exiting on socket condition:  SendToRemote(), error=%u\n",
                    m_sockId, static_cast<unsigned>(saved));
        else
            DNTRACE(BRIDGE, "(%u)Exiting on socket condition:  SendToLocal(), error=%u\n", m_sockId,
                    static_cast<unsigned>(saved));
        return SWG_RELAY_SIDE_FINISHED;
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
