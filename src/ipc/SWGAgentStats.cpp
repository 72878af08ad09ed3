// SPDX-License-Identifier: Apache-2.0
// Statistics of the agent: the counters, the collection the plug-in asks for, the report.
#include <new>

#include "core/SWGAgent.h"
#include "foundation/GlobalConst.h"
#include "foundation/Trace.h"
#include "ipc/ReportJson.h"
#include "ipc/ServerSideCommunicator.h"
#include "ipc/ServiceStats.h"
#include "ipc/wire/IpcFrame.h"

namespace {
constexpr unsigned short kCommPort = kSwgIpcPort;
constexpr unsigned int kCommSetupParam = 5;
}  // namespace

long CSWGAgent::StartStatistics() {
    if (m_pServiceStats != nullptr) return 0;
    m_pServiceStats = new (std::nothrow) CServiceStats();
    if (m_pServiceStats == nullptr) {
        DNTRACE(ERR, "Failed to create ServiceStats object, System out of memory");
        return SWG_E_OUTOFMEMORY;
    }
    if (!m_pServiceStats->Initialize()) {
        DNTRACE(ERR, "Failed to initialize ServiceStats object.");
    } else {
        SetActiveTowerName();
    }
    return 0;
}

long CSWGAgent::StartCommunicator() {
    if (m_pCommunicator != nullptr) return 0;
    CServerSideCommunicator* communicator =
        new (std::nothrow) CServerSideCommunicator(kCommPort, COMM_TYPE_SERVER, kCommSetupParam);
    if (communicator == nullptr) {
        DNTRACE(ERR, "Failed to create server communicator object, System out of memory");
        return SWG_E_OUTOFMEMORY;
    }
    long code = communicator->Initialize();
    if (code != 0) {
        DNTRACE(ERR, "Failed to initialize communicator object. Code : %d", static_cast<int>(code));
    } else {
        code = communicator->Start();
    }
    if (code != 0) {
        delete communicator;
        return code;
    }
    m_pCommunicator = communicator;
    return 0;
}

void CSWGAgent::SetActiveTowerName() {
    if (m_pServiceStats != nullptr)
        m_pServiceStats->SetActiveTowerName(GetSWGProxyName(m_pIPv6Listener != nullptr));
}

void CSWGAgent::SetMsgHistoryLog(const std::string& text) {
    if (m_pServiceStats != nullptr) m_pServiceStats->SetMsgHistoryLog(text);
}

void CSWGAgent::StatsStartCollecting() {
    DNTRACE(TRACE, "CSWGAgent::StatsStartCollecting");
    if (m_pServiceStats == nullptr) {
        DNTRACE(ERR, "CSWGAgent::StatsStartCollecting servicestats NULL");
        return;
    }
    if (m_pServiceStats->ThreadIsRunning()) {
        DNTRACE(WARN, "CSWGAgent::StatsStartCollecting failed as thread already running");
        return;
    }
    m_pServiceStats->ReInitialize();
    (void)m_pServiceStats->StartThread();
}

void CSWGAgent::StatsStopCollecting() {
    DNTRACE(TRACE, "CSWGAgent::StatsStopCollecting");
    // Kill only signals, so the timer thread may stop itself this way.
    if (m_pServiceStats != nullptr) m_pServiceStats->Kill();
}

void CSWGAgent::StatsEndCollecting() {
    StatsStopCollecting();
    // The kill only signals; joined here, the thread does not outlive the service's stop.
    if (m_pServiceStats != nullptr) (void)m_pServiceStats->Wait();
}

void CSWGAgent::StatsIncrementTotalBypassedHostConnections() {
    if (m_pServiceStats != nullptr) m_pServiceStats->CountBypassedHostConnection();
}

void CSWGAgent::StatsIncrementTotalHTTPConnections() {
    if (m_pServiceStats != nullptr) m_pServiceStats->CountHTTPConnection();
}

void CSWGAgent::StatsIncrementTotalHTTPSConnections() {
    if (m_pServiceStats != nullptr) m_pServiceStats->CountHTTPSConnection();
}

void CSWGAgent::SendStats(const SERVICE_STATS& stats) {
    CServerSideCommunicator* communicator = nullptr;
    {
        boost::recursive_mutex::scoped_lock hold(m_orgInfoLock);
        communicator = m_pCommunicator;
    }
    // A plug-in that went away ends the collection at the next tick.
    if (communicator == nullptr || !communicator->IsConnected()) {
        DNTRACE(IPC, "ServerCommunicator not connected. Stopping stats collection.");
        StatsStopCollecting();
        return;
    }
    std::string text;
    std::string failure;
    if (!BuildServiceStatsJson(stats, text, failure)) {
        DNTRACE(ERR, "%s", failure.c_str());
        return;
    }
    MSG_QUEUE_MSG message(COMM_MSG_SERVICE_STATS, 0, 1, 0);
    (void)message.SetData(text.c_str(), static_cast<unsigned int>(text.size() + 1));
    (void)communicator->PostMessage(&message);
}
