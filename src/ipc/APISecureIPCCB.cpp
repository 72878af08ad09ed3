// SPDX-License-Identifier: Apache-2.0
// CAPISecureIPCCB: the transport's events as messages of the communicator.
#include "ipc/APISecureIPCCB.h"

#include "foundation/Trace.h"
#include "ipc/Communicator.h"
#include "ipc/wire/IpcPacket.h"

void CAPISecureIPCCB::OnPeerStateChanged(IPC_IDENTITY identity, unsigned short session,
                                         IPC_CONN_STATE state) {
    // At ERR on purpose: every change of peer shows at the default mask.
    DNTRACE(ERR, "Remove SecureIPC : OnPeerStateChanged");
    if (identity != IPC_IDENTITY_SERVICE && identity != IPC_IDENTITY_SWG_CLIENT) {
        DNTRACE(ERR, "SecureIPC : Unknown peer id connected. So do nothing");
        return;
    }
    if (m_pCommunicator == nullptr) {
        DNTRACE(ERR, "SecureIPC : Communicator instance is NULL during OnPeerStateChanged");
        return;
    }
    if (state == IPC_CONN_DISCONNECTED) {
        m_pCommunicator->ErasePeerSession(identity);
    } else if (state == IPC_CONN_CONNECTED) {
        DNTRACE(TRACE, "SecureIPC : saving the peer session id");
        m_pCommunicator->SetPeerSession(identity, session);
    }

    if (identity == IPC_IDENTITY_SERVICE) {
        if (state == IPC_CONN_DISCONNECTED && m_commType == COMM_TYPE_CLIENT) {
            DNTRACE(IPC, "SecureIPC : client received disconnect message");
            const MSG_QUEUE_MSG gone(COMM_MSG_PEER_DC, 0, 1, 0);
            if (!m_pCommunicator->PostMessage(&gone))
                DNTRACE(ERR, "SecureIPC : Failed to write COMM_MSG_PEER_DC");
        } else if (state == IPC_CONN_CONNECTED) {
            DNTRACE(IPC, "SecureIPC : received connection from service");
        }
        return;
    }
    // A plug-in that goes away posts nothing here: its next send finds no session, and the
    // sender then reports it gone.
    if (state != IPC_CONN_CONNECTED) return;
    DNTRACE(IPC, "SecureIPC : service received connection from SWG Plugin");
    const MSG_QUEUE_MSG connected(COMM_MSG_DMN_CONNECT, 0, 1, 0);
    if (!m_pCommunicator->PostMessage(&connected))
        DNTRACE(ERR, "SecureIPC : Failed to write COMM_MSG_DMN_CONNECT");
}

void CAPISecureIPCCB::OnMsgRecv(const IPC_MESSAGE& message, IPC_IDENTITY /*identity*/,
                                unsigned short /*session*/) {
    MSG_QUEUE_MSG received(COMM_MSG_NONE, 0, 1, 0);
    switch (ParsePacket(message.data, message.length, received)) {
        case PacketStatus::Empty:
            DNTRACE(ERR, "Zero datalen received");
            return;
        case PacketStatus::NoHeader:
            DNTRACE(ERR, "SecureIPC : Failed to recieve MSG_QUEUE_MSG_HEADER");
            return;
        case PacketStatus::NoMessageId:
            DNTRACE(ERR, "SecureIPC : Failed to recieve eCOMM_MESSAGE_ID");
            return;
        case PacketStatus::Ok:
            break;
    }
    if (m_pCommunicator == nullptr) {
        DNTRACE(ERR, "SecureIPC : Communicator instance is NULL");
        return;
    }
    if (!m_pCommunicator->PostMessageToRecvThreadQueue(&received))
        DNTRACE(ERR, "SecureIPC : Failed to write to receiver thread queue from CB");
}
