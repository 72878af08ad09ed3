// SPDX-License-Identifier: Apache-2.0
// CServerSideCommunicator: the agent's end of the plug-in channel.
#include "ipc/ServerSideCommunicator.h"

#include <cerrno>
#include <exception>
#include <list>
#include <new>

#include <boost/chrono/duration.hpp>

#include "core/SWGAgent.h"
#include "foundation/GlobalConst.h"
#include "foundation/Trace.h"
#include "ipc/SWGState.h"

namespace {
constexpr unsigned int kQueueWaitMs = 200;
constexpr unsigned long kExitWaitMs = 1000;
constexpr unsigned kIpcJoinSeconds = 4;
const char kMainQueueName[] = "SWG$COMMUNICATOR";

// Takes the message the queue hands out and deletes it when the next one comes.
struct OwnedMessage {
    MSG_QUEUE_MSG* message = nullptr;
    ~OwnedMessage() { delete message; }
    void Reset(MSG_QUEUE_MSG* next) {
        delete message;
        message = next;
    }
};
}  // namespace

CServerSideCommunicator::CServerSideCommunicator(unsigned short port, eCOMM_TYPE type,
                                                 unsigned int setupParam)
    : CCommunicator(port, type, setupParam) {}

CServerSideCommunicator::~CServerSideCommunicator() {
    // The threads run this class's operations: they end before its part of the object goes.
    if (m_bInitialized) {
        Stop();
        m_bInitialized = false;
    }
}

long CServerSideCommunicator::CreateCommunicatingSocket() {
    LM_STATUSCODE status = 0;
    IIPCServer* server =
        CIPCFactory::CreateIPCServer(IPC_IDENTITY_SERVICE, &m_secureIpcCallback, status, m_port);
    if (m_pSecureIPCInstance != nullptr) m_pSecureIPCInstance->Release();
    m_pSecureIPCInstance = server;
    if (server == nullptr) {
        DNTRACE(ERR, "SecureIPC : Failed to create server object %d", static_cast<int>(status));
        return -1;
    }
    DNTRACE(IPC, "SecureIPC : Server object created successfully");
    m_bInitialized = true;
    return 0;
}

void CServerSideCommunicator::MainThread() {
    try {
        (void)EstablishCommunication();
    } catch (const std::exception& e) {
        DNTRACE(ERR, "ServerComm : EstablishCommunication ended by an exception: %s", e.what());
    }
    // Whatever ended it, the agent cannot run without its plug-in channel.
    g_pSWGAgent->PostMessage(MSG_ID_QUIT);
    m_mainThreadDone.notify();
}

long CServerSideCommunicator::EstablishCommunication() {
    DNTRACE(IPC, "ServerComm : EstablishCommunication");
    boost::thread ipcThread;
    for (;;) {
        if (ShouldExit()) {
            DNTRACE(IPC, "ServerComm : Exit flag set");
            break;
        }
        if (!std::atomic_load(&m_pMainQueue)) {
            CMsgQueue* queue = new (std::nothrow) CMsgQueue(kMainQueueName);
            if (queue == nullptr) {
                DNTRACE(ERR, "Comm : Failed to create message queue, System Out Of Memory!!!");
                continue;
            }
            queue->Clear();
            std::atomic_store(&m_pMainQueue, std::shared_ptr<CMsgQueue>(queue));
            const std::list<IPC_IDENTITY> peers{IPC_IDENTITY_SWG_CLIENT};
            bool ready = false;
            if (m_pSecureIPCInstance == nullptr) {
                DNTRACE(ERR, "SecureIPC : m_pSecureIPCInstance instance is not available");
            } else if (m_pSecureIPCInstance->Setup(peers, m_setupParam) != 0) {
                DNTRACE(TRACE, "SecureIPC : Setup failed for server");
            } else {
                ready = true;
            }
            if (!ready) {
                std::atomic_store(&m_pMainQueue, std::shared_ptr<CMsgQueue>());
                return -1;
            }
            DNTRACE(IPC, "SecureIPC : Setup was done successfully");
            try {
                ipcThread = boost::thread([this] { ProcessMessages(); });
                DNTRACE(TRACE_OFF, "ServerComm : Created new IPC thread.");
            } catch (const boost::thread_resource_error& e) {
                DNTRACE(ERR, "ServerComm : Failed to create new IPC thread. Errno : %d",
                        e.code().value());
            } catch (const std::exception& e) {
                DNTRACE(ERR,
                        "ServerComm : Failed to create new IPC thread. Exception: %s, Errno : %d",
                        e.what(), errno);
            }
        }
        boost_ext::condition_event* exitOnly[1] = {&m_exitEvent};
        if (boost_ext::condition_event_group::WaitForMultipleObjects(1, exitOnly, false,
                                                                     kExitWaitMs) == 0) {
            DNTRACE(TRACE, "ServerComm : Exit flag notified");
            break;
        }
    }
    if (ipcThread.joinable()) {
        const MSG_QUEUE_MSG quit(COMM_MSG_QUIT, 0, 1, 0);
        PostMessage(&quit);
        if (ipcThread.try_join_for(boost::chrono::seconds(kIpcJoinSeconds))) {
            std::atomic_store(&m_pMainQueue, std::shared_ptr<CMsgQueue>());
        } else {
            // The IPC thread may still use the queue; it stays.
            DNTRACE(IPC, "ServerComm : Timeout waiting for master thread to Stop");
            ipcThread.detach();
        }
    }
    DNTRACE(IPC, "ServerComm : EstablishCommunication done");
    return 0;
}

void CServerSideCommunicator::ProcessMessages() {
    const std::shared_ptr<CMsgQueue> queue = std::atomic_load(&m_pMainQueue);
    OwnedMessage current;
    try {
        for (bool quit = false; !quit && queue;) {
            current.Reset(queue->MQGetMessage(true, kQueueWaitMs));
            MSG_QUEUE_MSG* message = current.message;
            if (message == nullptr) continue;
            switch (message->msg_id) {
                case COMM_MSG_PEER_DC:
                    DNTRACE(IPC, "ServerComm - ProcessMessages: Client disconnected");
                    DNTRACE(
                        IPC,
                        "ServerComm - COMM_MSG_PEER_DC received hence stopping snd/rcv threads");
                    StopSendRcvThreads();
                    SetConnectedState(false);
                    break;
                case COMM_MSG_DMN_CONNECT: {
                    if (IsConnected()) break;
                    DNTRACE(IPC,
                            "ServerComm - ProcessMessages : Client connected, starting snd/rcv "
                            "threads");
                    const long code = StartSendRcvThreads();
                    if (code == 0) {
                        SetConnectedState(true);
                    } else {
                        DNTRACE(ERR,
                                "ServerComm - ProcessMessages : Failed to start communicator "
                                "threads. Code : %d",
                                static_cast<int>(code));
                    }
                    break;
                }
                case COMM_MSG_QUIT:
                    DNTRACE(IPC, "ServerComm - ProcessMessages : Received quit message");
                    quit = true;
                    break;
                default: {
                    const std::shared_ptr<COMM_THREAD_DATA> sender =
                        std::atomic_load(&m_pSenderData);
                    if (sender && sender->queue) sender->queue->MQPostMessage(message);
                    break;
                }
            }
        }
    } catch (...) {
        DNTRACE(ERR, "ServerComm: ProcessMessages exception");
    }
    DNTRACE(IPC, "ServerComm - ProcessMessages: stopping snd/rcv threads");
    StopSendRcvThreads();
    SetConnectedState(false);
    DNTRACE(IPC, "ServerComm - ProcessMessages: exits");
}

long CServerSideCommunicator::SendRcvProc(COMM_THREAD_DATA* data) {
    if (data == nullptr || !data->queue) return -1;
    const bool sender = data->type == COMM_THREAD_SENDER;
    const char* const who = sender ? "Sender" : "Receiver";
    long result = 0;
    try {
        data->queue->Clear();
        if (sender) {
            DNTRACE(IPC, "ServerComm : Sender thread started");
            const AgentRunState state = g_pSWGAgent->m_serviceState;
            MSG_QUEUE_MSG status(state == Starting || state == Running ? COMM_MSG_SRVC_STARTED
                                                                       : COMM_MSG_SRVC_STOPPED,
                                 0, 1, 0);
            if (SendMessageToPeer(&status, true) != 0) {
                DNTRACE(ERR,
                        "ServerComm : Failed to inform client about svc status, client not "
                        "accessible.");
                const MSG_QUEUE_MSG gone(COMM_MSG_PEER_DC, 0, 1, 0);
                PostMessage(&gone);
            }
        } else {
            DNTRACE(IPC, "ServerComm : Receiver thread started");
        }
        OwnedMessage current;
        for (bool leave = false; !leave;) {
            current.Reset(data->queue->MQGetMessage(true, kQueueWaitMs));
            MSG_QUEUE_MSG* message = current.message;
            if (message == nullptr || message->msg_id == COMM_MSG_HEARTBEAT) continue;
            const std::string name = GetMessageTypeText(message->msg_id);
            if (message->msg_id != COMM_MSG_SERVICE_STATS)
                DNTRACE(IPC, "ServerComm : msgid %s", name.c_str());
            switch (message->msg_id) {
                case COMM_MSG_SWG_STATE:
                case COMM_MSG_SWG_REPORT:
                case COMM_MSG_SERVICE_STATS:
                case COMM_MSG_SRVC_STARTED:
                case COMM_MSG_SRVC_STOPPED:
                    if (sender && SendMessageToPeer(message, true) != 0) {
                        DNTRACE(ERR, "ServerComm : Client not accessible. Error sending message %s",
                                name.c_str());
                        const MSG_QUEUE_MSG gone(COMM_MSG_PEER_DC, 0, 1, 0);
                        PostMessage(&gone);
                        result = -1;
                        leave = true;
                    }
                    break;
                case COMM_MSG_COLLECT_DATA_START:
                    DNTRACE(IPC, "ServerComm : COMM_MSG_COLLECT_DATA_START");
                    CollectDataStart();
                    break;
                case COMM_MSG_COLLECT_DATA_STOP:
                    DNTRACE(IPC, "ServerComm : COMM_MSG_COLLECT_DATA_STOP");
                    g_pSWGAgent->StatsStopCollecting();
                    break;
                case COMM_MSG_QUIT:
                    DNTRACE(IPC, "ServerComm : %s thread received quit msg", who);
                    leave = true;
                    break;
                default:
                    break;
            }
        }
    } catch (...) {
        DNTRACE(ERR, "ServerComm : Unknown exception occurred in SendRcvProc");
    }
    DNTRACE(IPC, "ServerComm : %s thread exits", who);
    return result;
}

void CServerSideCommunicator::CollectDataStart() {
    CSWGAgent& agent = *g_pSWGAgent;
    agent.StatsStartCollecting();
    CSWGAgent::ORGINFO fresh;
    if (agent.LoadOrgInfo(fresh)) agent.SetOrgInfo(fresh);
    // The first evaluation of backoff for a plug-in: it decides the word that follows.
    agent.OnBackoffStateChange();
    bool backedOff = false;
    {
        boost::recursive_mutex::scoped_lock hold(agent.m_orgInfoLock);
        backedOff = agent.m_bBackedOff;
    }
    if (!backedOff) agent.SendSWGState("protected", SWG_STATE_UPDATE_NORMAL);
}
