// SPDX-License-Identifier: Apache-2.0
// CCommunicator: the parts that do not depend on the side.
#include "ipc/Communicator.h"

#include <cstring>
#include <exception>
#include <new>

#include <boost/chrono/duration.hpp>

#include "foundation/GlobalConst.h"
#include "foundation/Trace.h"
#include "ipc/wire/IpcPacket.h"

namespace {
constexpr unsigned kJoinSeconds = 4;
constexpr unsigned kSendNoPeer = static_cast<unsigned>(-9998);
const char kSenderQueueName[] = "SWG$COMM$SENDER";
const char kReceiverQueueName[] = "SWG$COMM$RECEIVER";

bool JoinFor(boost::thread& thread, unsigned seconds) {
    if (!thread.joinable()) return true;
    return thread.try_join_for(boost::chrono::seconds(seconds));
}
}  // namespace

CCommunicator::CCommunicator(unsigned short port, eCOMM_TYPE type, unsigned int setupParam)
    : m_setupParam(setupParam), m_port(port), m_commType(type), m_secureIpcCallback(this, type) {}

CCommunicator::~CCommunicator() {
    // A derived destructor has stopped the threads that call the derived operations.
    if (m_pSecureIPCInstance != nullptr) m_pSecureIPCInstance->Release();
    m_pSecureIPCInstance = nullptr;
    for (boost::thread* thread : {&m_mainThread, &m_senderThread, &m_receiverThread}) {
        if (thread->joinable()) thread->detach();
    }
}

unsigned CCommunicator::Initialize() {
    if (m_bInitialized) return 0;
    const long result = CreateCommunicatingSocket();
    if (result == 0) {
        m_bInitialized = true;
        return 0;
    }
    DNTRACE(ERR, "Error : Failed to create communication channel. Code : %d",
            static_cast<int>(result));
    return static_cast<unsigned>(result);
}

unsigned CCommunicator::Start() {
    if (!m_bInitialized) {
        DNTRACE(ERR, "Comm : Failed to start main thread, comm not initialized");
        return static_cast<unsigned>(SWG_E_FAIL);
    }
    boost::recursive_mutex::scoped_lock hold(m_exitLock);
    try {
        m_mainThread = boost::thread([this] { MainThread(); });
    } catch (const boost::thread_resource_error& e) {
        DNTRACE(ERR, "Comm : Failed to create main communicator thread. Errno : %d",
                e.code().value());
        return static_cast<unsigned>(SWG_E_FAIL);
    } catch (const std::exception& e) {
        DNTRACE(ERR, "Comm : Failed to create main communicator thread. Exception: %s", e.what());
        return static_cast<unsigned>(SWG_E_FAIL);
    }
    DNTRACE(TRACE_OFF, "Comm : Created main communicator thread.");
    return 0;
}

bool CCommunicator::PostMessage(const MSG_QUEUE_MSG* message) {
    const std::shared_ptr<CMsgQueue> queue = std::atomic_load(&m_pMainQueue);
    return queue && message != nullptr && queue->MQPostMessage(message);
}

bool CCommunicator::PostMessageToRecvThreadQueue(const MSG_QUEUE_MSG* message) {
    const std::shared_ptr<COMM_THREAD_DATA> data = std::atomic_load(&m_pReceiverData);
    return data && data->queue && message != nullptr && data->queue->MQPostMessage(message);
}

bool CCommunicator::IsConnected() {
    boost::recursive_mutex::scoped_lock hold(m_connectedLock);
    return m_bConnected;
}

void CCommunicator::SetConnectedState(bool connected) {
    boost::recursive_mutex::scoped_lock hold(m_connectedLock);
    m_bConnected = connected;
}

bool CCommunicator::ShouldExit() {
    boost::recursive_mutex::scoped_lock hold(m_exitLock);
    return m_bExit;
}

bool CCommunicator::FindPeerSession(IPC_IDENTITY identity, unsigned short& session) {
    std::lock_guard<std::mutex> hold(m_peerSessionLock);
    const auto found = m_peerSessionIds.find(identity);
    if (found == m_peerSessionIds.end()) return false;
    session = found->second;
    return true;
}

void CCommunicator::SetPeerSession(IPC_IDENTITY identity, unsigned short session) {
    std::lock_guard<std::mutex> hold(m_peerSessionLock);
    m_peerSessionIds[identity] = session;
}

void CCommunicator::ErasePeerSession(IPC_IDENTITY identity) {
    std::lock_guard<std::mutex> hold(m_peerSessionLock);
    m_peerSessionIds.erase(identity);
}

void* CCommunicator::ConstructPacketEx(void* message, int& length) {
    length = 0;
    if (message == nullptr) return nullptr;
    std::vector<unsigned char> packet;
    try {
        packet = BuildPacket(*static_cast<const MSG_QUEUE_MSG*>(message));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    unsigned char* bytes = new (std::nothrow) unsigned char[packet.size()];
    if (bytes == nullptr) return nullptr;
    std::memcpy(bytes, packet.data(), packet.size());
    length = static_cast<int>(packet.size());
    return bytes;
}

unsigned CCommunicator::SendMessageToPeer(void* message, bool isServer) {
    int length = 0;
    unsigned char* packet = static_cast<unsigned char*>(ConstructPacketEx(message, length));
    if (packet == nullptr) {
        DNTRACE(ERR, "Communicator : Failed to construct packet (%d bytes)", length);
        return kSendNoPeer;
    }
    IPC_MESSAGE ipc;
    ipc.length = static_cast<uint32_t>(length);
    ipc.data = packet;
    unsigned result = kSendNoPeer;
    unsigned short session = 0;
    if (!isServer) {
        // Only the server side exists in this program.
        DNTRACE(ERR, "SecureIPC : client instance is not available");
    } else if (m_pSecureIPCInstance == nullptr) {
        DNTRACE(ERR, "SecureIPC : server instance is not available");
    } else if (!FindPeerSession(IPC_IDENTITY_SWG_CLIENT, session)) {
        DNTRACE(ERR, "Failed to find session id for SWG_CLIENT");
    } else {
        result = static_cast<unsigned>(m_pSecureIPCInstance->Send(ipc, session));
    }
    delete[] packet;
    return result;
}

std::string CCommunicator::GetMessageTypeText(eCOMM_MESSAGE_ID id) { return CommMessageText(id); }

bool CCommunicator::GetClientData(void* buffer, unsigned int& size) {
    const bool fits = buffer != nullptr && size >= m_clientData.size();
    if (fits && !m_clientData.empty())
        std::memcpy(buffer, m_clientData.data(), m_clientData.size());
    size = static_cast<unsigned int>(m_clientData.size());
    return fits;
}

void CCommunicator::WaitForMainThread(int seconds) {
    for (int round = 0; round < (seconds > 0 ? seconds : 1); ++round) {
        DNTRACE(IPC, "Communicator(%d) : Waiting for main thread, %d seconds go go", m_commType,
                seconds - round);
        const boost::posix_time::ptime deadline =
            boost::posix_time::microsec_clock::universal_time() + boost::posix_time::seconds(1);
        if (m_mainThreadDone.timed_wait(deadline)) {
            boost::this_thread::sleep_for(boost::chrono::seconds(1));
            return;
        }
    }
}

long CCommunicator::CreateThreadData(eCOMM_THREAD_TYPE type,
                                     std::shared_ptr<COMM_THREAD_DATA>* data) {
    if ((type != COMM_THREAD_SENDER && type != COMM_THREAD_RECEIVER) || data == nullptr)
        return SWG_E_INVALIDARG;
    COMM_THREAD_DATA* fresh = new (std::nothrow) COMM_THREAD_DATA();
    if (fresh == nullptr) {
        DNTRACE(ERR, "Comm : Failed to create thread data object, system out of memory");
        return SWG_E_OUTOFMEMORY;
    }
    fresh->type = type;
    fresh->queue.reset(new (std::nothrow) CMsgQueue(
        type == COMM_THREAD_SENDER ? kSenderQueueName : kReceiverQueueName));
    if (!fresh->queue) {
        DNTRACE(ERR, "Comm : Failed to create msg queue for thread, system out of memory");
        delete fresh;
        return SWG_E_OUTOFMEMORY;
    }
    data->reset(fresh);
    return 0;
}

long CCommunicator::StartSendRcvThreads() {
    std::lock_guard<std::mutex> hold(m_sndRcvLock);
    std::shared_ptr<COMM_THREAD_DATA> sender = std::atomic_load(&m_pSenderData);
    if (!sender) {
        const long code = CreateThreadData(COMM_THREAD_SENDER, &sender);
        if (code != 0) {
            DNTRACE(ERR, "Comm : Failed to create sender thread data, Code : %ld", code);
            return code;
        }
        std::atomic_store(&m_pSenderData, sender);
    }
    std::shared_ptr<COMM_THREAD_DATA> receiver = std::atomic_load(&m_pReceiverData);
    if (!receiver) {
        const long code = CreateThreadData(COMM_THREAD_RECEIVER, &receiver);
        if (code != 0) {
            DNTRACE(ERR, "Comm : Failed to create receiver thread data, Code : %ld", code);
            return code;
        }
        std::atomic_store(&m_pReceiverData, receiver);
    }
    const long sent = StartSendRcvThread(m_senderThread, sender, "send");
    const long received = StartSendRcvThread(m_receiverThread, receiver, "recv");
    return sent != 0 ? sent : received;
}

long CCommunicator::StartSendRcvThread(boost::thread& thread,
                                       const std::shared_ptr<COMM_THREAD_DATA>& data,
                                       const char* what) {
    // A thread of an earlier peer that did not end in time still holds its own data.
    if (thread.joinable()) thread.detach();
    try {
        thread = boost::thread([this, data] { (void)SendRcvProc(data.get()); });
    } catch (const boost::thread_resource_error& e) {
        DNTRACE(ERR, "Comm : Failed to create %s communicator thread. Errno : %d", what,
                e.code().value());
        return SWG_E_FAIL;
    } catch (const std::exception& e) {
        DNTRACE(ERR, "Comm : Failed to create %s communicator thread. Exception: %s", what,
                e.what());
        return SWG_E_FAIL;
    }
    DNTRACE(TRACE_OFF, "Comm : Created %s communicator thread.", what);
    return 0;
}

bool CCommunicator::WaitForSndRcvThreads() {
    const bool sender = JoinFor(m_senderThread, kJoinSeconds);
    const bool receiver = JoinFor(m_receiverThread, kJoinSeconds);
    return sender && receiver;
}

void CCommunicator::StopSendRcvThreads() {
    std::lock_guard<std::mutex> hold(m_sndRcvLock);
    DNTRACE(TRACE, "Communicator(%d) : Stopping snd/rcv threads", m_commType);
    const MSG_QUEUE_MSG quit(COMM_MSG_QUIT, 0, 1, 0);
    for (const std::shared_ptr<COMM_THREAD_DATA>* slot : {&m_pSenderData, &m_pReceiverData}) {
        const std::shared_ptr<COMM_THREAD_DATA> data = std::atomic_load(slot);
        if (data && data->queue) data->queue->MQPostMessage(&quit);
    }
    DNTRACE(TRACE, "Communicator(%d) : Waiting for snd/rcv threads to stop", m_commType);
    if (WaitForSndRcvThreads()) {
        std::atomic_store(&m_pSenderData, std::shared_ptr<COMM_THREAD_DATA>());
        std::atomic_store(&m_pReceiverData, std::shared_ptr<COMM_THREAD_DATA>());
    } else {
        // A thread that did not end still uses its queue; the data stays for it.
        DNTRACE(ERR, "Communicator(%d) : WaitForSndRcvThreads problem", m_commType);
    }
    SetConnectedState(false);
    DNTRACE(TRACE, "Communicator(%d) : snd/rcv threads stopped", m_commType);
}

void CCommunicator::StopMainThread() {
    {
        boost::recursive_mutex::scoped_lock hold(m_exitLock);
        DNTRACE(IPC, "Communicator(%d) : Stopping main thread", m_commType);
        if (m_commType == COMM_TYPE_SERVER) {
            m_bExit = true;
        } else {
            const MSG_QUEUE_MSG quit(COMM_MSG_QUIT, 0, 1, 0);
            PostMessage(&quit);
        }
    }
    // Joined without the lock: the main thread takes it in ShouldExit.
    if (m_mainThread.joinable()) {
        if (JoinFor(m_mainThread, kJoinSeconds)) {
            DNTRACE(IPC, "Communicator(%d) : Main thread Stopped", m_commType);
        } else {
            DNTRACE(IPC, "Communicator(%d) : Timeout waiting for Main thread to Stop", m_commType);
            m_mainThread.detach();
        }
    }
    SetConnectedState(false);
}

void CCommunicator::Stop() {
    {
        boost::recursive_mutex::scoped_lock hold(m_exitLock);
        DNTRACE(IPC, "Communicator : Stopping communicator...");
        m_bExit = true;
        m_exitEvent.notify();
    }
    StopMainThread();
    StopSendRcvThreads();
    if (m_pSecureIPCInstance != nullptr) {
        DNTRACE(IPC, "Tear down was called for server");
        m_pSecureIPCInstance->TearDown();
    }
    DNTRACE(IPC, "Communicator : Communicator stopped");
}
