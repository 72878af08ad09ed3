// SPDX-License-Identifier: Apache-2.0
// MSG_QUEUE_MSG and CMsgQueue.
#include "ipc/wire/MsgQueue.h"

#include <cstring>
#include <new>

#include "foundation/GlobalConst.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Trace.h"

MSG_QUEUE_MSG::MSG_QUEUE_MSG(eCOMM_MESSAGE_ID id, unsigned int size, unsigned short wordA,
                             unsigned short wordB)
    : headerWordA(wordA), headerWordB(wordB), msg_size(size), msg_id(id) {
    // A tag longer than the field would be refused and leave it zero.
    (void)memcpy_s(startTag, sizeof(startTag), MSG_HDR_START, std::strlen(MSG_HDR_START));
}

MSG_QUEUE_MSG::MSG_QUEUE_MSG(const MSG_QUEUE_MSG& other) { CopyFrom(other); }

MSG_QUEUE_MSG& MSG_QUEUE_MSG::operator=(const MSG_QUEUE_MSG& other) {
    if (this == &other) return *this;
    delete[] msg_data;
    msg_data = nullptr;
    CopyFrom(other);
    return *this;
}

MSG_QUEUE_MSG::~MSG_QUEUE_MSG() { delete[] msg_data; }

void MSG_QUEUE_MSG::CopyFrom(const MSG_QUEUE_MSG& other) {
    packetMagic = other.packetMagic;
    headerWordA = other.headerWordA;
    headerWordB = other.headerWordB;
    std::memcpy(startTag, other.startTag, sizeof(startTag));
    msg_size = other.msg_size;
    msg_id = other.msg_id;
    msg_data = nullptr;
    if (other.msg_size == 0 || other.msg_data == nullptr) return;
    msg_data = new (std::nothrow) unsigned char[other.msg_size];
    if (msg_data == nullptr) {
        msg_size = 0;
        return;
    }
    std::memcpy(msg_data, other.msg_data, other.msg_size);
}

long MSG_QUEUE_MSG::SetData(const void* data, unsigned int size) {
    if (data == nullptr || size == 0) return SWG_E_INVALIDARG;
    const long reserved = ReserveBuffer(size);
    if (reserved != 0) return reserved;
    std::memcpy(msg_data, data, size);
    return 0;
}

long MSG_QUEUE_MSG::ReserveBuffer(unsigned long size) {
    if (size == 0) return SWG_E_INVALIDARG;
    delete[] msg_data;
    msg_data = new (std::nothrow) unsigned char[size];
    if (msg_data == nullptr) {
        msg_size = 0;
        return SWG_E_OUTOFMEMORY;
    }
    msg_size = static_cast<uint32_t>(size);
    return 0;
}

CMsgQueue::CMsgQueue(const std::string& name) : m_name(name) {}

CMsgQueue::~CMsgQueue() { Clear(); }

bool CMsgQueue::MQPostMessage(const MSG_QUEUE_MSG* message) {
    if (message == nullptr) return false;
    MSG_QUEUE_MSG* copy = new MSG_QUEUE_MSG(*message);
    boost::recursive_mutex::scoped_lock hold(m_lock);
    m_list.push_back(copy);
    m_event.notify();
    return true;
}

MSG_QUEUE_MSG* CMsgQueue::ExtractMessage(unsigned int* error) {
    if (error != nullptr) *error = 0;
    boost::recursive_mutex::scoped_lock hold(m_lock);
    if (m_list.empty()) return nullptr;
    MSG_QUEUE_MSG* fresh = new (std::nothrow) MSG_QUEUE_MSG(COMM_MSG_NONE, 0, 1, 0);
    if (fresh == nullptr) {
        if (error != nullptr) *error = static_cast<unsigned int>(SWG_E_OUTOFMEMORY);
        DNTRACE(ERR, "MQ : Failed to allocate memory, System OUT OF MEMORY!!!");
        return nullptr;
    }
    *fresh = *m_list.front();
    delete m_list.front();
    m_list.pop_front();
    return fresh;
}

MSG_QUEUE_MSG* CMsgQueue::MQGetMessage(bool wait, unsigned int timeoutMs) {
    unsigned int error = 0;
    if (MSG_QUEUE_MSG* message = ExtractMessage(&error)) return message;
    if (error != 0) {
        DNTRACE(ERR, "MQ : Failed to get message. Code : %d", static_cast<int>(error));
        return nullptr;
    }
    if (!wait) return nullptr;
    boost_ext::condition_event* events[1] = {&m_event};
    if (boost_ext::condition_event_group::WaitForMultipleObjects(1, events, false, timeoutMs) != 0)
        return nullptr;
    m_event.reset();
    return ExtractMessage(nullptr);
}

void CMsgQueue::Clear() {
    boost::recursive_mutex::scoped_lock hold(m_lock);
    for (MSG_QUEUE_MSG* message : m_list) delete message;
    m_list.clear();
}
