// SPDX-License-Identifier: Apache-2.0
// CCommunicator: the threads, queues and packets between the agent and its UI plug-in, above
// the transport (platform/IpcServer.h).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>

#include "foundation/ConditionEvent.h"
#include "ipc/APISecureIPCCB.h"
#include "ipc/wire/MsgQueue.h"
#include "platform/IpcServer.h"

enum eCOMM_THREAD_TYPE : int {
    COMM_THREAD_SENDER = 1,
    COMM_THREAD_RECEIVER = 2,
};

// What a sender or receiver thread works on: its type and its own queue.
struct COMM_THREAD_DATA {
    eCOMM_THREAD_TYPE type = COMM_THREAD_SENDER;
    std::unique_ptr<CMsgQueue> queue;
};

// Producers post to the main queue and return; the IPC thread hands each message to the
// sender, which writes it to the plug-in. Commands from the plug-in reach the receiver. The
// queues and thread data are shared pointers read atomically: producers on any thread may
// post while the IPC thread replaces or drops them.
//
// Only the server side exists in this program; a derived class supplies the five pure
// operations. The object lives until the process ends once started.
class CCommunicator {
public:
    CCommunicator(unsigned short port, eCOMM_TYPE type, unsigned int setupParam);
    CCommunicator(const CCommunicator&) = delete;
    CCommunicator& operator=(const CCommunicator&) = delete;
    virtual ~CCommunicator();

    // Sets the exit flag, ends the main thread (4 s at most), then the sender and receiver,
    // and tears the transport down.
    virtual void Stop();
    virtual void MainThread() = 0;
    virtual long SendRcvProc(COMM_THREAD_DATA* data) = 0;
    virtual void ProcessMessages() = 0;
    virtual long CreateCommunicatingSocket() = 0;
    virtual long EstablishCommunication() = 0;

    // Creates the transport once. 0, or the transport's code after the log line.
    unsigned Initialize();
    // Starts the main thread. 0; SWG_E_FAIL when not initialised or the thread cannot start.
    unsigned Start();
    // Copies `message` onto the main queue; false when there is no queue or no message.
    // Any thread; never waits for the plug-in.
    bool PostMessage(const MSG_QUEUE_MSG* message);
    // The same onto the receiver's queue.
    bool PostMessageToRecvThreadQueue(const MSG_QUEUE_MSG* message);
    bool IsConnected();
    void SetConnectedState(bool connected);
    bool ShouldExit();
    // Writes `message` (a MSG_QUEUE_MSG) to the plug-in's session. 0, the transport's code, or
    // -9998 when there is no packet, no transport or no session of the plug-in.
    unsigned SendMessageToPeer(void* message, bool isServer);
    // The packet of `message` (a MSG_QUEUE_MSG) in a new array the caller frees with delete[],
    // and its size in `length`; null for a null message or no memory.
    void* ConstructPacketEx(void* message, int& length);
    static std::string GetMessageTypeText(eCOMM_MESSAGE_ID id);
    // Copies the client data if it fits `size`; `size` gets the length. Nothing fills it here.
    bool GetClientData(void* buffer, unsigned int& size);
    // Waits for the main thread's end in one-second rounds, `seconds` of them (0 counts as 1).
    void WaitForMainThread(int seconds);

    // The session of `identity` as the transport reported it; false when none is known.
    bool FindPeerSession(IPC_IDENTITY identity, unsigned short& session);
    void SetPeerSession(IPC_IDENTITY identity, unsigned short session);
    void ErasePeerSession(IPC_IDENTITY identity);

protected:
    long StartSendRcvThreads();
    void StopSendRcvThreads();
    void StopMainThread();
    long CreateThreadData(eCOMM_THREAD_TYPE type, std::shared_ptr<COMM_THREAD_DATA>* data);
    bool WaitForSndRcvThreads();
    long StartSendRcvThread(boost::thread& thread, const std::shared_ptr<COMM_THREAD_DATA>& data,
                            const char* what);

public:
    // Fields in their order. Public like the agent's own, for the state and statistics code
    // and for tests that drive the queues directly.
    std::unordered_map<uint32_t, unsigned short> m_peerSessionIds;  // under m_peerSessionLock
    std::atomic<bool> m_bInitialized{false};
    unsigned int m_setupParam;
    std::shared_ptr<CMsgQueue> m_pMainQueue;          // "SWG$COMMUNICATOR"; std::atomic_load/store
    boost::thread m_senderThread;                     // under m_sndRcvLock
    boost::thread m_receiverThread;                   // under m_sndRcvLock
    std::shared_ptr<COMM_THREAD_DATA> m_pSenderData;  // std::atomic_load/store
    std::shared_ptr<COMM_THREAD_DATA> m_pReceiverData;  // std::atomic_load/store
    boost::thread m_mainThread;
    boost_ext::condition_event m_mainThreadDone{false};
    boost_ext::condition_event m_exitEvent{true};
    unsigned short m_port;
    eCOMM_TYPE m_commType;
    bool m_bConnected = false;  // under m_connectedLock
    boost::recursive_mutex m_exitLock;
    boost::recursive_mutex m_connectedLock;
    bool m_bExit = false;  // under m_exitLock
    std::vector<unsigned char> m_clientData;
    CAPISecureIPCCB m_secureIpcCallback;
    IIPCServer* m_pSecureIPCInstance = nullptr;  // owned; released by the destructor

protected:
    std::mutex m_peerSessionLock;
    std::mutex m_sndRcvLock;  // start and stop of the sender and receiver
};
