// SPDX-License-Identifier: Apache-2.0
// One conversation of the status command with the agent, as a UI plug-in holds it.
#pragma once

#include <chrono>
#include <string>

#include "AgentStatus.h"
#include "ipc/wire/IpcClient.h"

// Connects as the plug-in, asks for the statistics and follows the reports. Not thread-safe.
class CStatusSession {
public:
    enum class Outcome {
        Report,     // `Status()` holds a fresh statistics report
        NoAgent,    // nothing listens on the port
        Silent,     // connected, but no report came
        Closed,     // the agent closed the connection (it stops, or another plug-in took over)
        Malformed,  // the agent sent something that is not a packet
    };

    explicit CStatusSession(unsigned short port) : m_port(port) {}

    // Connects, waits briefly for the service status, and asks for the statistics until the
    // first report comes (the request is repeated, since the agent drops a command that
    // arrives before its receiver runs). NoAgent, with the reason in `error`, when the
    // connection is refused.
    Outcome Start(std::string& error);
    // Waits for the next statistics report.
    Outcome Next();
    const AgentStatus& Status() const { return m_status; }
    // True once the agent said it is stopping (COMM_MSG_SRVC_STOPPED).
    bool Stopping() const { return m_stopping; }

private:
    // Reads until a statistics report or the end of `wait`; applies what comes on the way.
    Outcome ReadUntilReport(std::chrono::milliseconds wait);
    bool RequestStatistics();

    unsigned short m_port;
    CIpcClient m_client;
    AgentStatus m_status;
    bool m_stopping = false;
};
