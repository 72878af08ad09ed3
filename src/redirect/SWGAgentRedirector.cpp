// SPDX-License-Identifier: Apache-2.0
// The agent's side of the redirector: create, open, feed, start, stop, close, release.
#include <arpa/inet.h>

#include <atomic>
#include <list>
#include <mutex>

#include "core/SWGAgent.h"
#include "foundation/GlobalConst.h"
#include "foundation/Trace.h"
#include "platform/SocketRedirectorApi.h"

namespace {

std::atomic<RedirectorFactory> g_defaultFactory{&CreateLmsockSwgApi};

constexpr unsigned int kOpenRetryStepMs = 2000;
constexpr unsigned int kOpenRetrySteps = 6;
constexpr unsigned int kOpenRetryLongMs = 15000;

// Pause before attempt `attempt` + 1: 2 s times the attempt for the first six, then 15 s.
unsigned int OpenRetryPauseMs(unsigned int attempt) {
    return attempt <= kOpenRetrySteps ? kOpenRetryStepMs * attempt : kOpenRetryLongMs;
}

void LogRedirectList(const std::list<redirect_info>& rules) {
    for (const redirect_info& rule : rules) {
        DNTRACE(TRACE, "redirectInfoList iteration: op=%d peerport=%d redirectport=%d",
                static_cast<int>(rule.rule_op), static_cast<int>(ntohs(rule.peer_port)),
                static_cast<int>(ntohs(rule.redirect_port)));
    }
}

// Holds the redirector's kernel changes from construction to Apply, or to the end of the
// scope on any other way out.
class CHeldRedirectorChanges {
public:
    explicit CHeldRedirectorChanges(ISocketRedirectorApi& redirector) : m_redirector(redirector) {
        // A plug-in that is not open refuses the calls that follow on its own.
        (void)m_redirector.HoldChanges();
    }
    ~CHeldRedirectorChanges() {
        if (!m_applied) (void)m_redirector.ApplyHeldChanges();
    }
    CHeldRedirectorChanges(const CHeldRedirectorChanges&) = delete;
    CHeldRedirectorChanges& operator=(const CHeldRedirectorChanges&) = delete;
    int Apply() {
        m_applied = true;
        return m_redirector.ApplyHeldChanges();
    }

private:
    ISocketRedirectorApi& m_redirector;
    bool m_applied = false;
};

}  // namespace

RedirectorFactory SetDefaultRedirectorFactory(RedirectorFactory factory) {
    return g_defaultFactory.exchange(factory != nullptr ? factory : &CreateLmsockSwgApi);
}

long CSWGAgent::InitialiseRedirectorInterface(SVC_STARTUP_INFO& info) {
    boost::recursive_mutex::scoped_lock lock(m_redirectorLock);
    bool needOpen = m_pRedirector == nullptr;
    if (needOpen) {
        ISocketRedirectorApi* created = nullptr;
        const int result = m_redirectorSeams.create ? m_redirectorSeams.create(&created)
                                                    : g_defaultFactory.load()(&created);
        if (result != 0 || created == nullptr) {
            DNTRACE(ERR, "CreateLmsockSwgApi failed with error %d", result);
            return SWG_E_FAIL;
        }
        std::lock_guard<std::mutex> use(m_handleUseLock);
        m_pRedirector = created;
    }
    // Only success leaves, or the stop of the service: a plug-in that refuses the rules is
    // opened again and again, with the lock held, as the retries of the open are.
    for (;;) {
        if (needOpen && !OpenRedirectorWithRetries()) return SWG_E_FAIL;
        needOpen = true;
        long result = 0;
        if (InstallRedirectList(info, result)) return result;
        if (m_bRedirectorStopRequested) {
            DNTRACE(TRACE, "Redirector: the service is stopping; its rules are not tried again");
            return SWG_E_FAIL;
        }
    }
}

// False when the service began to stop before OpenPlugin succeeded.
bool CSWGAgent::OpenRedirectorWithRetries() {
    for (unsigned int attempt = 1;; ++attempt) {
        const int result = m_pRedirector->OpenPlugin(this);
        if (result == 0) break;
        DNTRACE(ERR, "OpenPlugin returned kdf error: %d, Attempt #%u", result, attempt);
        if (!PauseBeforeOpenRetry(OpenRetryPauseMs(attempt))) {
            DNTRACE(TRACE, "Redirector: the service is stopping; OpenPlugin is not tried again");
            return false;
        }
    }
    DNTRACE(THREAD, "Redirector OpenPlugin success");
    return true;
}

bool CSWGAgent::PauseBeforeOpenRetry(unsigned int pauseMs) {
    if (m_bRedirectorStopRequested) return false;
    if (m_redirectorSeams.sleep) {
        m_redirectorSeams.sleep(pauseMs);
    } else {
        boost_ext::condition_event* stopOnly[1] = {&m_redirectorStopEvent};
        (void)boost_ext::condition_event_group::WaitForMultipleObjects(1, stopOnly, false, pauseMs);
    }
    return !m_bRedirectorStopRequested;
}

void CSWGAgent::StopRedirectorRetries() {
    m_bRedirectorStopRequested = true;
    m_redirectorStopEvent.notify();
}

// True when InitialiseRedirectorInterface is done with `result`; false to open again.
bool CSWGAgent::InstallRedirectList(SVC_STARTUP_INFO& info, long& result) {
    std::list<redirect_info> rules;
    SetRedirectList(rules, info);

    // A rebuild that took the diversion away in between would cut the connections it carries.
    CHeldRedirectorChanges held(*m_pRedirector);
    int status = m_pRedirector->Stop();
    if (status != 0) DNTRACE(ERR, "SocketRedirectorApi->Stop ERROR returned %d", status);
    status = m_pRedirector->Clear(NGC_CLEAR_ALL_RULES);
    if (status != 0) DNTRACE(ERR, "SocketRedirectorApi->Clear ERROR returned %d", status);

    if (rules.empty()) {
        DNTRACE(ERR, "redirectInfoList was found to be empty!");
        result = SWG_E_FAIL;
        return true;
    }
    LogRedirectList(rules);
    status = m_pRedirector->SetRedirects(rules);
    DNTRACE(TRACE, "SetRedirects returned %d.", status);
    if (status != 0) {
        DNTRACE(ERR, "SetRedirects ERROR returned %d.", status);
        return false;
    }
    status = m_pRedirector->Start();
    if (status == 0) status = held.Apply();
    if (status != 0) {
        DNTRACE(ERR, "SocketRedirectorApi->Start ERROR returned %d.", status);
        return false;
    }
    DNTRACE(THREAD, "SocketRedirectorApi->Start success");
    DNTRACE(THREAD, "InitialiseRedirectorInterface");
    result = 0;
    return true;
}

bool CSWGAgent::CloseRedirectorInterface(unsigned char reason) {
    boost::recursive_mutex::scoped_lock lock(m_redirectorLock);
    if (m_pRedirector == nullptr) return false;
    m_kdfState = Stopping;
    (void)m_pRedirector->Clear(NGC_CLEAR_ALL_RULES);
    const int stopped = m_pRedirector->Stop();
    if (stopped == NGC_ERROR_DISCONNECTED) {
        DNTRACE(TRACE, "StopKDF: SocketRedirectorApi->Stop NGC_ERROR_DISCONNECTED");
    } else if (stopped == 0) {
        DNTRACE(TRACE, "StopKDF: SocketRedirectorApi->Stop success");
    } else {
        DNTRACE(ERR, "StopKDF: SocketRedirectorApi->Stop ERROR returned %d", stopped);
        if (reason != reason_disruption) return false;
    }
    (void)m_pRedirector->ClosePlugin();
    releaseKDFInstance();
    DNTRACE(TRACE, "CloseRedirectorInterface has closed the interface");
    m_kdfState = Stopped;
    return true;
}

void CSWGAgent::releaseKDFInstance() {
    std::lock_guard<std::mutex> use(m_handleUseLock);
    const int result = m_redirectorSeams.release ? m_redirectorSeams.release(&m_pRedirector)
                                                 : ReleaseLmsockSwgApi(&m_pRedirector);
    if (result != 0) DNTRACE(ERR, "ReleaseLmsockSwgApi failed with error %d", result);
    m_pRedirector = nullptr;
}

bool CSWGAgent::StopKDF(unsigned char reason) {
    m_kdfStopReasons.fetch_or(reason);
    const AgentRunState state = m_kdfState;
    if (state == Stopping || state == Stopped) {
        DNTRACE(
            TRACE,
            "CSWGAgent::StopKDF - In the process of stopping or in stopped state already - ignore");
        return true;
    }
    if (reason == reason_backoff) {
        // The plug-in stays open with no rules; m_redirectorLock is not taken on this path.
        std::lock_guard<std::mutex> use(m_handleUseLock);
        ISocketRedirectorApi* handle = m_pRedirector;
        if (handle == nullptr) return false;
        (void)handle->Clear(NGC_CLEAR_ALL_RULES);
        return true;
    }
    return CloseRedirectorInterface(reason);
}

long CSWGAgent::StartKDF(unsigned char reason) {
    if (reason == reason_backoff || m_kdfState == Stopped) {
        return RestartKDF(reason) ? SWG_S_OK : SWG_E_FAIL;
    }
    DNTRACE(TRACE, "CSWGAgent::StartKDF - Not in stopped state - ignore");
    return SWG_E_FAIL;
}

bool CSWGAgent::RestartKDF(unsigned char reason) {
    if (m_bRestartInhibit) return true;
    const uint8_t mine = reason;
    const uint8_t remaining = static_cast<uint8_t>(m_kdfStopReasons.fetch_and(~mine) & ~mine);
    if (remaining != 0) {
        DNTRACE(WARN, "RestartKDF dont restart kdf since another call stopped it (%X)",
                static_cast<unsigned int>(remaining));
        return true;
    }

    const ORGINFO org = GetOrgInfo();
    SVC_STARTUP_INFO info;
    info.listen_port = SWG_LISTEN_PORT;
    info.comm_port = SWG_COMM_PORT;
    info.monitored_ports = org.strWebTrafficMonitorPortList;
    info.exception_text = default_exception_list;
    if (!org.strExceptionList.empty()) info.exception_text += org.strExceptionList;
    info.inclusion_text = org.strInclusionList;
    if (info.listen_port == 0 || info.comm_port == 0 || info.monitored_ports.empty()) {
        DNTRACE(ERR, "Configuration is incorrect");
        return false;
    }

    if (reason == reason_backoff) return ReinstallRedirectList(info);
    m_kdfState = Starting;
    (void)InitialiseRedirectorInterface(info);
    // Running means the attempt was made, with or without a handle.
    m_kdfState = Running;
    return true;
}

// The end of a backoff: the plug-in is still open and needs only its rules again.
bool CSWGAgent::ReinstallRedirectList(const SVC_STARTUP_INFO& info) {
    std::list<redirect_info> rules;
    SetRedirectList(rules, info);
    if (rules.empty()) {
        DNTRACE(ERR, "redirectInfoList is empty, could not set redirects");
        return false;
    }
    std::lock_guard<std::mutex> use(m_handleUseLock);
    ISocketRedirectorApi* handle = m_pRedirector;
    if (handle == nullptr) {
        DNTRACE(ERR, "SocketRedirectorApi is null, could not set redirects");
        return false;
    }
    LogRedirectList(rules);
    const int result = handle->SetRedirects(rules);
    if (result != 0) {
        DNTRACE(ERR, "Failed to set redirects %d", result);
        return false;
    }
    return true;
}

bool CSWGAgent::SetKdfRedirectRule(const redirect_info& rule) {
    boost::recursive_mutex::scoped_lock lock(m_redirectorLock);
    if (m_pRedirector == nullptr) return false;
    std::list<redirect_info> one{rule};
    const int result = m_pRedirector->SetRedirects(one);
    if (result != 0) {
        DNTRACE(ERR, "SetRedirects returned failed with error %d", result);
        return false;
    }
    return true;
}

bool CSWGAgent::ClearRedirectorDnsCache() {
    boost::recursive_mutex::scoped_lock lock(m_redirectorLock);
    if (m_pRedirector == nullptr) return false;
    return m_pRedirector->ClearDnsCache() == 0;
}
