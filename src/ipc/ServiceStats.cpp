// SPDX-License-Identifier: Apache-2.0
// CServiceStats: the connection counters and their timer.
#include "ipc/ServiceStats.h"

#include "core/SWGAgent.h"

namespace {
constexpr uint32_t kTickMs = 1000;
}  // namespace

CServiceStats::CServiceStats() {
    thread_name = "ServiceStats";
    period_ms = kTickMs;
}

CServiceStats::~CServiceStats() {
    if (m_isRunning) {
        Kill();
        Wait();
    }
}

bool CServiceStats::Initialize() {
    m_isRunning = false;
    exit_requested = false;
    return true;
}

bool CServiceStats::ReInitialize() {
    exit_event.reset();
    m_isRunning = false;
    exit_requested = false;
    return true;
}

void CServiceStats::SetActiveTowerName(const std::string& name) {
    std::lock_guard<std::mutex> hold(m_textLock);
    m_activeTowerName = name;
}

void CServiceStats::SetMsgHistoryLog(const std::string& text) {
    std::lock_guard<std::mutex> hold(m_textLock);
    m_msgHistoryLog = text;
}

bool CServiceStats::ProcessTick() {
    SendStatsNow();
    return true;
}

void CServiceStats::SendStatsNow() {
    SERVICE_STATS stats = Snapshot();
    g_pSWGAgent->SendStats(stats);
    std::lock_guard<std::mutex> hold(m_textLock);
    if (m_msgHistoryLog == stats.msgHistoryLog) m_msgHistoryLog.clear();
}

void CServiceStats::CountBypassedHostConnection() {
    m_bypassed.fetch_add(1, std::memory_order_relaxed);
}
void CServiceStats::CountHTTPConnection() { m_http.fetch_add(1, std::memory_order_relaxed); }
void CServiceStats::CountHTTPSConnection() { m_https.fetch_add(1, std::memory_order_relaxed); }

SERVICE_STATS CServiceStats::Snapshot() const {
    SERVICE_STATS stats;
    stats.totalBypassedHostConnections = m_bypassed.load(std::memory_order_relaxed);
    stats.totalHTTPConnections = m_http.load(std::memory_order_relaxed);
    stats.totalHTTPSConnections = m_https.load(std::memory_order_relaxed);
    std::lock_guard<std::mutex> hold(m_textLock);
    stats.activeTowerName = m_activeTowerName;
    stats.msgHistoryLog = m_msgHistoryLog;
    return stats;
}
