// SPDX-License-Identifier: Apache-2.0
// MSG_QUEUE_MSG, one message of the plug-in channel, and CMsgQueue, the hand-over between the
// communicator's threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

#include <boost/thread/recursive_mutex.hpp>

#include "foundation/ConditionEvent.h"
#include "ipc/wire/CommMessage.h"

// The start tag of every packet, written without its terminating zero.
constexpr char MSG_HDR_START[] = "STARTMSG";
constexpr uint32_t kPacketMagic = 0xDEADBEEF;
// packetMagic to msg_size: MSG_QUEUE_MSG_HEADER. The packet header adds msg_id.
constexpr std::size_t kMsgQueueMsgHeaderBytes = 20;
constexpr std::size_t kPacketHeaderBytes = 24;

// One message: the packet's header words and an owned payload. Copies are deep; a copy whose
// buffer cannot be allocated keeps the header with msg_size 0 and no buffer.
class MSG_QUEUE_MSG {
public:
    // Sets the fields and the magic; allocates nothing. `size` is kept as given, so a message
    // may report a size with no buffer behind it.
    MSG_QUEUE_MSG(eCOMM_MESSAGE_ID id, unsigned int size, unsigned short wordA,
                  unsigned short wordB);
    MSG_QUEUE_MSG(const MSG_QUEUE_MSG& other);
    MSG_QUEUE_MSG& operator=(const MSG_QUEUE_MSG& other);
    virtual ~MSG_QUEUE_MSG();

    // Replaces the payload with a copy of `size` bytes at `data`. 0; SWG_E_INVALIDARG for
    // null data or size 0 (nothing changes); SWG_E_OUTOFMEMORY (payload gone, msg_size 0).
    long SetData(const void* data, unsigned int size);
    // Replaces the payload with `size` uninitialised bytes. 0; SWG_E_INVALIDARG for size 0;
    // SWG_E_OUTOFMEMORY (payload gone, msg_size 0).
    long ReserveBuffer(unsigned long size);

    // In the order the packet header carries them.
    uint32_t packetMagic = kPacketMagic;
    uint16_t headerWordA = 0;
    uint16_t headerWordB = 0;
    char startTag[8] = {};
    uint32_t msg_size = 0;
    eCOMM_MESSAGE_ID msg_id = COMM_MSG_NONE;
    unsigned char* msg_data = nullptr;  // owned, null without payload

private:
    void CopyFrom(const MSG_QUEUE_MSG& other);
};

// A named, unbounded FIFO of messages with a blocking get. Any number of producers and
// consumers; messages are copied in and out, so no buffer is shared between threads.
class CMsgQueue {
public:
    explicit CMsgQueue(const std::string& name);
    CMsgQueue(const CMsgQueue&) = delete;
    CMsgQueue& operator=(const CMsgQueue&) = delete;
    virtual ~CMsgQueue();

    // Appends a copy of `message` (the caller keeps its own) and signals. False for null.
    bool MQPostMessage(const MSG_QUEUE_MSG* message);
    // The oldest message, owned by the caller, or null. With `wait`, an empty queue is waited
    // on for up to `timeoutMs`; null never means "closed", only "nothing now".
    MSG_QUEUE_MSG* MQGetMessage(bool wait, unsigned int timeoutMs);
    // Drops every queued message.
    void Clear();
    const std::string& Name() const { return m_name; }

private:
    MSG_QUEUE_MSG* ExtractMessage(unsigned int* error);

    // Manual reset: reset only after a wake, so it may stand signalled over an empty list.
    boost_ext::condition_event m_event{false};
    boost::recursive_mutex m_lock;
    std::list<MSG_QUEUE_MSG*> m_list;
    std::string m_name;
};
