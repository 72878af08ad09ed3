// SPDX-License-Identifier: Apache-2.0
// CServerSideCommunicator: the agent's end of the plug-in channel.
#pragma once

#include "ipc/Communicator.h"

// Created once by StartComponents with port 5004, type 1 and setup parameter 5, and never
// deleted after a successful start. Its main thread's end posts MSG_ID_QUIT to the agent.
class CServerSideCommunicator : public CCommunicator {
public:
    CServerSideCommunicator(unsigned short port, eCOMM_TYPE type, unsigned int setupParam);
    ~CServerSideCommunicator() override;

    // EstablishCommunication, then MSG_ID_QUIT to the agent and m_mainThreadDone.
    void MainThread() override;
    // The sender (which first tells the plug-in the service status) or the receiver (which
    // carries out the plug-in's commands). -1 when a send failed or `data` is unusable.
    long SendRcvProc(COMM_THREAD_DATA* data) override;
    // The IPC thread: connects and disconnects the sender and receiver, forwards the rest.
    void ProcessMessages() override;
    // Creates the transport object (nothing is bound yet). 0 or -1.
    long CreateCommunicatingSocket() override;
    // Creates the main queue, sets the transport up for the plug-in, starts the IPC thread,
    // and waits for the exit flag. -1 when the transport cannot be set up; else 0.
    long EstablishCommunication() override;

private:
    void CollectDataStart();
};
