// SPDX-License-Identifier: Apache-2.0
// CServiceStats: the connection counters and the timer that reports them to the plug-in.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "foundation/DnTimerThread.h"

// One report: the three counters, the gateway's name and a message for the user.
struct SERVICE_STATS {
    uint64_t totalBypassedHostConnections = 0;
    uint64_t totalHTTPConnections = 0;
    uint64_t totalHTTPSConnections = 0;
    std::string activeTowerName;
    std::string msgHistoryLog;
};

// Counts from its creation to the end of the process: nothing resets the counters. Counting
// is one relaxed atomic addition, from any connection thread, with no lock. The thread runs
// only while a plug-in collects; each tick hands a snapshot to CSWGAgent::SendStats.
class CServiceStats : public CDnTimerThread {
public:
    CServiceStats();
    // Stops and joins a running timer.
    ~CServiceStats() override;

    // Clears the run and exit flags; does not start the thread. True.
    bool Initialize() override;
    // Resets the exit event and clears the same flags, for a restart. True.
    bool ReInitialize();
    void SetActiveTowerName(const std::string& name);
    void SetMsgHistoryLog(const std::string& text);
    // Sends the report of this second; true, so the timer goes on.
    bool ProcessTick() override;
    // Hands a snapshot to CSWGAgent::SendStats, then empties the user message.
    void SendStatsNow();
    bool ThreadIsRunning() const { return m_isRunning; }

    void CountBypassedHostConnection();
    void CountHTTPConnection();
    void CountHTTPSConnection();
    // The counters and texts as they stand; any thread.
    SERVICE_STATS Snapshot() const;

private:
    std::atomic<uint64_t> m_bypassed{0};
    std::atomic<uint64_t> m_http{0};
    std::atomic<uint64_t> m_https{0};
    // Written by the main and configuration threads while the timer reads; never held
    // across SendStats.
    mutable std::mutex m_textLock;
    std::string m_activeTowerName;
    std::string m_msgHistoryLog;
};
