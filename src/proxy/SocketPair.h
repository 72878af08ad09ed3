// SPDX-License-Identifier: Apache-2.0
// CSocketPair: the select() relay that carries a connection's bytes both ways until one side ends.
#pragma once

#include <atomic>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/function.hpp>
#include <cstddef>
#include <cstdint>
#include <list>

#include "proxy/FdSet.h"

class CDnVSocket;

// Result of a relay in which a side has finished and nothing is left to send, a normal
// close included. The agent's own code, not an errno.
constexpr int SWG_RELAY_SIDE_FINISHED = 10058;

// Per-relay log id source; each CSocketPair takes the next value.
extern std::atomic<std::uint32_t> g_SockId;

// One relay buffer. Lives inside its CSocketPair; cur_ptr points into data, so it is
// neither copied nor moved.
struct SL_BUFF {
    static constexpr std::size_t kCapacity = 16384;

    SL_BUFF();
    virtual ~SL_BUFF() = default;
    SL_BUFF(const SL_BUFF&) = delete;
    SL_BUFF& operator=(const SL_BUFF&) = delete;

    std::size_t cur_len;  // bytes still to send
    char* cur_ptr;        // first byte still to send
    std::size_t max_len;  // always kCapacity
    char data[kCapacity];
    bool flag;
    // When a one-byte read arrived (UTC); not_a_date_time until then.
    boost::posix_time::ptime recv_time;
};

// Relays between a local socket (the diverted client) and a remote one (gateway or original
// destination) on the calling thread, with one select loop and no further threads.
//
// A direction whose two sides are plain CDnSockets is carried by splice(2) through a pipe,
// so its bytes never enter user space; the pipe holds at most three buffers' worth (48 KB)
// and everything else (the hold of a lone byte, the callback, the exit conditions and their
// log lines) behaves as with the buffers. A direction falls back to the buffers when its
// pipe cannot be had, splice refuses one of its descriptors, a side still has bytes that
// only Recv can give (a receive prefix) or a deadline, or SIGPIPE is not ignored (a splice
// into a socket whose peer has gone raises it, and the agent ignores it).
//
// All six buffers are members, so a pair costs about 96 KB of the thread's stack (untouched
// while a direction is spliced). Buffers move between the lists by splicing their nodes,
// so the loop allocates nothing (only a failed send adds a node).
//
// Neither socket is owned or closed, and neither is ever shut down: when one side ends, the
// other learns it only when its owner closes it. A side that resets while its direction is
// full ends the relay, whatever is still queued.
//
// Threading: every member runs on the constructing thread. Another thread may set the exit
// flag (and close or shut down the descriptors); the loop then ends within about 500 ms.
class CSocketPair {
public:
    // Copies both descriptors now; a descriptor of 8192 or more is never served. `exit` and
    // both sockets must outlive the pair. `callback` is copied and called once, on this
    // thread, when the remote side has sent more than 512 bytes; its result is ignored.
    CSocketPair(CDnVSocket& remote, CDnVSocket& local, const std::atomic<bool>& exit,
                boost::function<bool()>& callback);
    // Closes the pipes.
    virtual ~CSocketPair();
    CSocketPair(const CSocketPair&) = delete;
    CSocketPair& operator=(const CSocketPair&) = delete;

    // Sends what the local socket has buffered to the remote one, then relays until a side
    // is finished or the exit flag is set. Returns 0 at an exit condition or with the flag
    // seen at the head of the loop, SWG_RELAY_SIDE_FINISHED when a side ended with nothing
    // left to send, SWG_SOCKET_TIMEOUT when the flag was seen while waiting, -1 when the
    // buffered bytes could not be sent, or select's errno.
    [[nodiscard]] int ProxyLoop();

    // True, with a trace line, when nothing is left to do: both sides finished, or one
    // finished with nothing queued for the other.
    bool IsSocketExitConditions();
    // Waits for the next readable or writable side. Returns 0 when there is one, errno
    // when select fails, SWG_SOCKET_TIMEOUT when the exit flag is set,
    // SWG_RELAY_SIDE_FINISHED when a side that is not read has gone.
    int WaitOnSocketsSelect();
    // Each of these does one read or write for its direction if select allowed it, and
    // returns 0, or SWG_RELAY_SIDE_FINISHED when its side ended with nothing queued the
    // other way.
    int RecvFromLocal();
    int RecvFromRemote();
    int SendToRemote();
    int SendToLocal();

private:
    using BuffList = std::list<SL_BUFF*>;

    static constexpr int kBuffsPerDirection = 3;
    // Most bytes a direction holds, by either path.
    static constexpr std::size_t kReadAhead = kBuffsPerDirection * SL_BUFF::kCapacity;

    // One direction's pipe while that direction is spliced (readEnd not -1).
    struct Lane {
        int readEnd = -1;
        int writeEnd = -1;
        std::size_t queued = 0;  // bytes in the pipe
        bool slotsFull = false;  // the pipe took no more before kReadAhead; cleared by a send
        // When a one-byte read went into the empty pipe: the lone byte's hold starts there.
        boost::posix_time::ptime loneTime;
        // A read filled a whole buffer: the direction carries bulk and is worth a pipe.
        bool bulk = false;
        // A pipe was made (or could not be) once: never again for this direction.
        bool tried = false;
        bool Active() const { return readEnd != -1; }
    };

    // Gives a direction that carries bulk its pipe once nothing of it waits in the buffers,
    // so that no byte can pass one queued before it.
    void OpenLane(Lane& lane, const BuffList& toSend);
    // Reads from `fd` into the lane: the count, 0 at end of stream, -1 with errno on failure,
    // or kNoProgress when nothing moved and nothing ended (pipe full, interrupted, or the
    // lane has just fallen back to the buffers).
    long SpliceIn(Lane& lane, int fd, BuffList& freeList, BuffList& toSend);
    // Moves what the lane's pipe holds into free buffers at the back of `toSend` and closes
    // the pipe: the direction goes on by copying.
    void FallBackToBuffs(Lane& lane, BuffList& freeList, BuffList& toSend);
    // Room to read into for a direction, and whether anything waits to be sent.
    static bool CanRead(const Lane& lane, const BuffList& freeList);
    static bool Queued(const Lane& lane, const BuffList& toSend) {
        return lane.queued != 0 || !toSend.empty();
    }

    // Enter `fd` in a set unless it is out of range, raising `maxFd` to it when entered.
    void EnterRead(int fd, int& maxFd);
    void EnterWrite(int fd, int& maxFd);
    // SWG_RELAY_SIDE_FINISHED, logged, when a side that is not read (its direction is
    // full) has reset or hung up; else 0. Looked at when select has timed out.
    int SideGoneUnread();
    // True while the front of m_to_local is a lone byte younger than the hold.
    bool IsSingleByteHeld() const;
    // The remote side has ended (`received` 0) or failed with `saved`: marks it finished and
    // returns as RecvFromRemote does.
    int RemoteEnded(int received, int saved);
    // A send to `targetSk` failed with `saved`: marks that side finished and returns as
    // SendToRemote and SendToLocal do.
    int TargetEnded(int& targetSk, bool oppositeQueued, bool toRemote, int saved);
    // Counts bytes from the remote side and runs the callback once past 512.
    void NoteRemoteBytes(int count);
    // One send from the front of `toSend` to `target`, for either direction; returns as
    // SendToRemote and SendToLocal do.
    int SendFront(Lane& lane, BuffList& toSend, BuffList& freeList, CDnVSocket& target,
                  int& targetSk, bool oppositeQueued, bool toRemote);

    CDnVSocket* m_remote;
    CDnVSocket* m_local;
    int m_remote_sk;  // -1 once the remote side is finished
    int m_local_sk;   // -1 once the local side is finished
    CFdSet m_write_set;
    CFdSet m_read_set;
    SL_BUFF m_buffs[2 * kBuffsPerDirection];
    BuffList m_free_from_local;
    BuffList m_to_remote;
    BuffList m_free_from_remote;
    BuffList m_to_local;
    Lane m_up;    // local to remote
    Lane m_down;  // remote to local
    const std::atomic<bool>* m_exit;
    std::uint32_t m_sockId;
    std::uint32_t m_remoteBytes = 0;
    bool m_bCallbackDone = false;
    boost::function<bool()> m_callback;
};
