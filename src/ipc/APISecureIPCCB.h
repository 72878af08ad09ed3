// SPDX-License-Identifier: Apache-2.0
// CAPISecureIPCCB: the transport's callback of the communicator.
#pragma once

#include "platform/IpcServer.h"

class CCommunicator;

// Which end a communicator is.
enum eCOMM_TYPE : int {
    COMM_TYPE_SERVER = 1,
    COMM_TYPE_CLIENT = 2,
};

// Turns the transport's events into messages on the communicator's queues. Runs on the
// transport's thread; only updates the session map and posts.
class CAPISecureIPCCB : public IIPCCallback {
public:
    CAPISecureIPCCB(CCommunicator* communicator, eCOMM_TYPE type)
        : m_pCommunicator(communicator), m_commType(type) {}

    // Keeps the session id of identities 9 and 10 (connected) or forgets it (gone). A plug-in
    // that connects posts COMM_MSG_DMN_CONNECT to the main queue; one that goes away posts
    // nothing: the next send to it fails, and that ends its threads.
    void OnPeerStateChanged(IPC_IDENTITY identity, unsigned short session,
                            IPC_CONN_STATE state) override;
    // Reads the packet (no header field is checked) and posts it to the receiver's queue;
    // packets of 20 bytes or fewer, or without an id, are dropped with a log line.
    void OnMsgRecv(const IPC_MESSAGE& message, IPC_IDENTITY identity,
                   unsigned short session) override;
    void OnAckMsgRecv(unsigned int /*id*/) override {}

private:
    CCommunicator* m_pCommunicator;
    eCOMM_TYPE m_commType;
};
