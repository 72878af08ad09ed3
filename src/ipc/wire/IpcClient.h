// SPDX-License-Identifier: Apache-2.0
// The client end of the plug-in channel: what a UI plug-in (or the status command) does.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "ipc/wire/IpcFrame.h"
#include "ipc/wire/MsgQueue.h"

// One connection to the agent. Blocking calls with bounds; one thread at a time.
class CIpcClient {
public:
    enum class Received {
        Message,    // `message` holds the next packet
        TimedOut,   // nothing complete within the bound
        Closed,     // the agent closed the connection (or it failed)
        Malformed,  // the agent sent something that is not a frame of a packet
    };

    CIpcClient() = default;
    ~CIpcClient();
    CIpcClient(const CIpcClient&) = delete;
    CIpcClient& operator=(const CIpcClient&) = delete;

    // Connects to 127.0.0.1:`port` within `timeout` and sends `identity`. False with the
    // reason in `error` ("connection refused" when nothing listens).
    bool Connect(uint16_t port, uint32_t identity, std::chrono::milliseconds timeout,
                 std::string& error);
    // Sends `message` as one frame within `timeout`; false when the connection failed.
    bool Send(const MSG_QUEUE_MSG& message, std::chrono::milliseconds timeout);
    // Sends raw bytes (a test's malformed peer); false when the connection failed.
    bool SendBytes(const std::string& bytes, std::chrono::milliseconds timeout);
    // Waits up to `timeout` for the next packet and reads it into `message`.
    Received Receive(MSG_QUEUE_MSG& message, std::chrono::milliseconds timeout);
    void Close();
    int Fd() const { return m_fd; }

private:
    int m_fd = -1;
    CIpcFrameReader m_reader{false};
    std::string m_pending;  // bytes read past the last frame
};
