// SPDX-License-Identifier: Apache-2.0
// Recovery of the redirector after its kernel side went away, announced or not.
#include <pthread.h>
#include <signal.h>

#include <exception>
#include <mutex>
#include <string>
#include <thread>

#include "core/SWGAgent.h"
#include "foundation/Trace.h"
#include "platform/SocketRedirectorApi.h"

namespace {

constexpr int kRecoveryAttempts = 3;

// The signal handler closes the redirector; on a thread that is inside the redirector it
// would wait for itself. Redirector threads leave signals to the others, but for SIGXFSZ,
// which a file size fault raises on the faulting thread and which is forwarded from there.
void BlockSignalsOnThisThread() {
    sigset_t all;
    sigfillset(&all);
    sigdelset(&all, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

// The word for `what` in the notices; values without a word give "".
const char* PlannedDisruptionWord(PlannedDisruption what) {
    switch (static_cast<int>(what)) {
        case upgrade:
            return "upgrade";
        case debug_flag_update:
            return "debug flag update";
        case kext_failover:
            return "kext failover";
        case kext_failover_reversal:
            return "kext failover reversal";
        default:
            return "";
    }
}

}  // namespace

void CSWGAgent::OnKdfDisruption() {
    DNTRACE(WARN, "Notified of KDF disruption. Restarting KDF.");
    bool idle = false;
    if (!m_kdfDisruptionHandlerBusy.compare_exchange_strong(idle, true)) {
        DNTRACE(WARN, "KDF Disruption handler thread already running. Disruption not handled.");
        return;
    }
    ++m_kdfThreadsRunning;
    try {
        std::thread([this] { RunKdfRecovery(); }).detach();
    } catch (...) {
        // The error still reaches the caller; the flags must not claim a thread that never ran.
        --m_kdfThreadsRunning;
        m_kdfDisruptionHandlerBusy.store(false);
        throw;
    }
}

void CSWGAgent::RunKdfRecovery() {
    BlockSignalsOnThisThread();
    try {
        for (int attempt = 1; attempt <= kRecoveryAttempts; ++attempt) {
            if (!StopKDF(reason_disruption)) DNTRACE(WARN, "Stop KDF Plugin failed.");
            if (StartKDF(reason_disruption) == 0) {
                DNTRACE(TRACE, "KDF Plugin reinitialized successfully.");
                break;
            }
            DNTRACE(ERR, "Start KDF Plugin after KDF disruption failed. Attempt: %d", attempt);
        }
    } catch (const std::exception& e) {
        DNTRACE(ERR, "KDF disruption handler ended by an exception: %s", e.what());
    } catch (...) {
        DNTRACE(ERR, "KDF disruption handler ended by an unknown exception");
    }
    m_kdfDisruptionHandlerBusy.store(false);
    --m_kdfThreadsRunning;
}

void CSWGAgent::OnPlannedKdfDisruptionStart(PlannedDisruption what) {
    const std::string text = std::string("Notified of KDF ") + PlannedDisruptionWord(what) +
                             " start, closing connection to KDF.";
    DNTRACE(TRACE, "%s", text.c_str());
    // No busy flag here: two start notices give two threads on one handle.
    ++m_kdfThreadsRunning;
    try {
        std::thread([this] { RunPlannedDisruptionStart(); }).detach();
    } catch (...) {
        --m_kdfThreadsRunning;
        throw;
    }
}

void CSWGAgent::RunPlannedDisruptionStart() {
    BlockSignalsOnThisThread();
    // Neither m_redirectorLock nor the state: the agent keeps its handle and believes in
    // Running while the kernel side is replaced. A handle already released is left alone
    // rather than dereferenced, and one in use here is not released before this ends (a
    // completion notice may start the recovery meanwhile).
    std::unique_lock<std::mutex> use(m_handleUseLock);
    ISocketRedirectorApi* handle = m_pRedirector;
    if (handle == nullptr) {
        DNTRACE(WARN, "Planned KDF disruption: no redirector handle, nothing to close");
    } else {
        int result = handle->Clear(NGC_CLEAR_ALL_RULES);
        if (result != 0) {
            DNTRACE(WARN, "ISocketRedirectorApi::Clear failed [%u]", static_cast<unsigned>(result));
        }
        result = handle->Stop();
        if (result != 0) {
            DNTRACE(WARN, "ISocketRedirectorApi::Stop failed [%u]", static_cast<unsigned>(result));
        }
        result = handle->ClosePlugin();
        if (result == 0) {
            DNTRACE(TRACE, "Closing KDF Plugin was successful (pre disruption).");
        } else {
            DNTRACE(WARN, "ISocketRedirectorApi::ClosePlugin failed [%u]",
                    static_cast<unsigned>(result));
        }
    }
    use.unlock();
    --m_kdfThreadsRunning;
}

void CSWGAgent::OnPlannedKdfDisruptionComplete(PlannedDisruption what) {
    const std::string text =
        std::string("Notified of KDF ") + PlannedDisruptionWord(what) + " completion.";
    DNTRACE(TRACE, "%s", text.c_str());
    OnKdfDisruption();
}
