// SPDX-License-Identifier: Apache-2.0
// One conversation of the status command with the agent.
#include "StatusSession.h"

#include <cstring>

namespace {
using std::chrono::milliseconds;
constexpr milliseconds kConnectWait{2000};
constexpr milliseconds kServiceStatusWait{1000};
constexpr milliseconds kSendWait{2000};
// The agent reports once a second; a request that got lost is repeated after this.
constexpr milliseconds kReportWait{1500};
constexpr int kRequests = 3;

std::string PayloadText(const MSG_QUEUE_MSG& message) {
    if (message.msg_data == nullptr) return std::string();
    const char* text = reinterpret_cast<const char*>(message.msg_data);
    return std::string(text, strnlen(text, message.msg_size));
}
}  // namespace

CStatusSession::Outcome CStatusSession::Start(std::string& error) {
    if (!m_client.Connect(m_port, IPC_IDENTITY_SWG_CLIENT, kConnectWait, error))
        return Outcome::NoAgent;
    // The state file holds the word the agent last delivered: the agent repeats a word only
    // when it changes, so a second plug-in hears none until then.
    (void)ReadStateFile(m_status);
    // A fresh plug-in is greeted with the service status once the agent's threads for it run;
    // when another plug-in's threads are still up there is no greeting.
    MSG_QUEUE_MSG message(COMM_MSG_NONE, 0, 1, 0);
    if (m_client.Receive(message, kServiceStatusWait) == CIpcClient::Received::Message) {
        m_stopping = message.msg_id == COMM_MSG_SRVC_STOPPED;
    }
    for (int request = 0; request < kRequests; ++request) {
        if (!RequestStatistics()) return Outcome::Closed;
        const Outcome outcome = ReadUntilReport(kReportWait);
        if (outcome != Outcome::Silent) return outcome;
    }
    return Outcome::Silent;
}

CStatusSession::Outcome CStatusSession::Next() {
    for (int request = 0; request < kRequests; ++request) {
        const Outcome outcome = ReadUntilReport(kReportWait * 2);
        if (outcome != Outcome::Silent) return outcome;
        if (!RequestStatistics()) return Outcome::Closed;
    }
    return Outcome::Silent;
}

bool CStatusSession::RequestStatistics() {
    const MSG_QUEUE_MSG start(COMM_MSG_COLLECT_DATA_START, 0, 1, 0);
    return m_client.Send(start, kSendWait);
}

CStatusSession::Outcome CStatusSession::ReadUntilReport(milliseconds wait) {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return Outcome::Silent;
        MSG_QUEUE_MSG message(COMM_MSG_NONE, 0, 1, 0);
        switch (m_client.Receive(message, left)) {
            case CIpcClient::Received::TimedOut:
                return Outcome::Silent;
            case CIpcClient::Received::Closed:
                return Outcome::Closed;
            case CIpcClient::Received::Malformed:
                return Outcome::Malformed;
            case CIpcClient::Received::Message:
                break;
        }
        if (message.msg_id == COMM_MSG_SWG_STATE)
            (void)ReadStateJson(PayloadText(message), m_status);
        if (message.msg_id == COMM_MSG_SRVC_STOPPED) m_stopping = true;
        if (message.msg_id == COMM_MSG_SERVICE_STATS &&
            ReadStatsJson(PayloadText(message), m_status))
            return Outcome::Report;
    }
}
