// SPDX-License-Identifier: Apache-2.0
// The configuration monitor: its two states (file watched, file missing), the quiet period
// and the reload's field rules. The watch itself is behind IFileWatch.
#include "config/ConfigManager.h"

#include <pthread.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/filesystem.hpp>
#include <boost/thread/thread.hpp>
#include <csignal>
#include <exception>
#include <utility>
#include <vector>

#include "config/ConfigFiles.h"
#include "core/SWGAgent.h"
#include "foundation/GlobalUtils.h"
#include "foundation/SSTrace.h"
#include "foundation/Trace.h"
#include "redirect/RedirectTypes.h"

namespace {
constexpr int kChangeCountWithFile = 3;
constexpr int kChangeCountNoFile = 2;
constexpr unsigned int kDestructorWaitMs = 5000;

// ---- The comparison of a reload

enum Consequence : unsigned int {
    kRestart = 1u << 0,
    kBackoff = 1u << 1,
    kGatewayName = 1u << 2,
    kStateFile = 1u << 3,
    kFips = 1u << 4,
    kLogLevel = 1u << 5,  // at once, during the comparison
};

using Differs = bool (*)(const OrgInfoRecord&, const OrgInfoRecord&);

template <std::string OrgInfoRecord::*Member>
bool NocaseDiffers(const OrgInfoRecord& a, const OrgInfoRecord& b) {
    return StringNocaseCompare(a.*Member, b.*Member) != 0;
}
template <typename T, T OrgInfoRecord::*Member>
bool ExactDiffers(const OrgInfoRecord& a, const OrgInfoRecord& b) {
    return !(a.*Member == b.*Member);
}
#define SWG_NOCASE(member) &NocaseDiffers<&OrgInfoRecord::member>
#define SWG_EXACT(member) &ExactDiffers<decltype(OrgInfoRecord::member), &OrgInfoRecord::member>

struct FieldRule {
    const char* text;  // after "UpdateCurrentConfig: "
    Differs differs;
    unsigned int consequences;
};

// In the order the changes are logged. Strings compare without regard to case unless
// marked exact; the queues compare by length, then element by element.
const FieldRule kFieldRules[] = {
    {"Device id changed", SWG_NOCASE(strDeviceId), 0},
    {"strHostname changed", SWG_NOCASE(strHostname), kGatewayName},
    {"strSWGAnycast changed", SWG_NOCASE(strSWGAnycast), kGatewayName},
    {"qstrSWGAnycastListV4 changed", SWG_EXACT(qstrSWGAnycastListV4), kGatewayName},
    {"qstrSWGAnycastListV6 changed", SWG_EXACT(qstrSWGAnycastListV6), kGatewayName},
    {"strSWGDomain changed", SWG_NOCASE(strSWGDomain), kGatewayName | kStateFile},
    {"strSWGEchoService changed", SWG_NOCASE(strSWGEchoService), 0},
    {"strOrgId changed", SWG_NOCASE(strOrgId), 0},
    {"strpKeyPem changed", SWG_NOCASE(strpKeyPem), 0},
    {"strPstrUserId changed", SWG_NOCASE(strPstrUserId), 0},
    {"strInclusionList changed", SWG_NOCASE(strInclusionList), kRestart | kStateFile},
    {"strExceptionList changed", SWG_NOCASE(strExceptionList), kRestart | kStateFile},
    {"strWebTrafficMonitorPortList changed", SWG_NOCASE(strWebTrafficMonitorPortList), kRestart},
    {"autotuning config changed", SWG_EXACT(bAutotuning), 0},
    {"failOpen config changed", SWG_EXACT(bFailOpen), 0},
    {"swgHonorTND config changed", SWG_EXACT(bSwgHonorTND), kBackoff},
    {"DNSBackOff config changed", SWG_EXACT(bDnsBackoff), kBackoff},
    {"DNSBackOff Reason changed", SWG_NOCASE(strDnsBackoffReason), kBackoff},
    {"loglevel config changed", SWG_EXACT(bDefaultLogLevel), kLogLevel},
    {"BackoffOnLMTrustedNetwork Config changed", SWG_EXACT(bBackoffOnLMTrustedNetwork), kBackoff},
    {"BackoffOnLMVpn Config changed", SWG_EXACT(bBackoffOnLMVpn), kBackoff},
    {"BackoffOnCustomerTrustedNetwork Config changed", SWG_EXACT(bBackoffOnCustomerTrustedNetwork),
     kBackoff},
    {"VPN TND value changed", SWG_NOCASE(strVpnTnd), kBackoff},
    {"VPN NES value changed", SWG_NOCASE(strVpnNes), 0},
    {"Ipv4 VPN State changed", SWG_NOCASE(strVpnIpv4State), kBackoff},
    {"Ipv4 VPN Type changed", SWG_NOCASE(strVpnIpv4Type), kBackoff},
    {"Ipv6 VPN State changed", SWG_NOCASE(strVpnIpv6State), kBackoff},
    {"Ipv6 VPN Type changed", SWG_NOCASE(strVpnIpv6Type), kBackoff},
    {" Customer Network Probe Domain changed", SWG_NOCASE(strCustomerNetworkProbeDomain), 0},
    {"Overlay User changed", SWG_NOCASE(strOverlayUser), 0},
    {"Customer Network Probe Recurses config changed", SWG_EXACT(bCustomerNetworkProbeRecurses), 0},
    {"FIPS mode changed", SWG_EXACT(bFedDeployment), kFips},
    {"SWG trusted server config changed", SWG_EXACT(strTrustedServer), kBackoff},
    {"SWG trusted server port changed", SWG_EXACT(nTrustedServerPort), kBackoff},
    {"SWG trusted server fingerprint changed", SWG_EXACT(strTrustedServerFingerprint), kBackoff},
};
#undef SWG_NOCASE
#undef SWG_EXACT

// The agent object behind the process-wide monitor.
class CAgentConfigTarget : public IConfigAgent {
public:
    bool LoadOrgInfo(const std::string& folder, OrgInfoRecord& info) override {
        return folder.empty() ? g_pSWGAgent->LoadOrgInfo(info)
                              : g_pSWGAgent->LoadOrgInfoFromFolder(folder, info);
    }
    OrgInfoRecord GetOrgInfo() override { return g_pSWGAgent->GetOrgInfo(); }
    void SetOrgInfo(const OrgInfoRecord& info) override { g_pSWGAgent->SetOrgInfo(info); }
    int SendSWGState(const std::string& state, eSWGStateUpdate update) override {
        return g_pSWGAgent->SendSWGState(state, update);
    }
    bool RestartKDF(unsigned char reason) override { return g_pSWGAgent->RestartKDF(reason); }
    void OnBackoffStateChange() override { g_pSWGAgent->OnBackoffStateChange(); }
    void SetActiveTowerName() override { g_pSWGAgent->SetActiveTowerName(); }
    int UpdateSWGStateFile() override { return g_pSWGAgent->UpdateSWGStateFile(); }
    void UpdateFedRampMode() override { g_pSWGAgent->UpdateFedRampMode(); }
    void ChangeDebugLevel(unsigned int mask) override {
        CSSTrace* trace = g_pTraceObject;
        if (trace != nullptr) trace->ChangeDebugLevel(mask);
    }
};

IConfigAgent& AgentConfigTarget() {
    static CAgentConfigTarget target;
    return target;
}

IFileWatch& SystemFileWatch() {
    // Never destroyed: the monitor thread is never joined and may still use it at exit.
    static IFileWatch* const watch = CreateSystemFileWatch().release();
    return *watch;
}

// Whether `folder` holds an entry named `name`, letter case aside. False with `error` set
// when the folder cannot be listed.
bool FolderHoldsFile(const std::string& folder, const std::string& name, int& error) {
    error = 0;
    boost::system::error_code failure;
    boost::filesystem::directory_iterator entry(folder, failure);
    for (; !failure && entry != boost::filesystem::directory_iterator(); entry.increment(failure)) {
        if (StringNocaseCompare(entry->path().filename().string(), name) == 0) return true;
    }
    error = failure.value();
    return false;
}
}  // namespace

CConfigManager g_ConfigManager;

// The watch as the monitor thread holds it.
struct CConfigManager::WatchState {
    int folderWatch = -1;
    std::string folder;
    std::string file;
    int changeCount = kChangeCountNoFile;  // 3 while the file is watched, else 2
    bool pending = false;                  // a change waits to be read
    bool quietPeriodRunning = false;       // the next wait is bounded by the quiet period
    boost::posix_time::ptime quietEnd;     // when the quiet period runs out, on m_clock
};

CConfigManager::CConfigManager()
    : CConfigManager(AgentConfigTarget(), "", kQuietPeriodMs, SystemFileWatch(), SystemClock()) {}

CConfigManager::CConfigManager(IConfigAgent& agent, std::string folder, unsigned int quietPeriodMs,
                               IFileWatch& watch, IClock& clock)
    : m_agent(agent),
      m_folder(std::move(folder)),
      m_quietPeriodMs(quietPeriodMs),
      m_watch(watch),
      m_clock(clock) {}

CConfigManager::~CConfigManager() {
    if (!m_bThreadStarted || WaitForMonitorEnd(0)) return;
    StopMonitorThread();
    if (!WaitForMonitorEnd(kDestructorWaitMs)) {
        DNTRACE(ERR, "CConfigManager: monitor thread still running at destruction");
    }
}

void CConfigManager::StartThread() {
    if (m_bThreadStarted) return;
    RunReload();
    try {
        boost::thread worker([this] { ThreadMain(); });
        worker.detach();
    } catch (const std::exception& e) {
        DNTRACE(ERR, "CConfigManager::StartThread: could not start the monitor thread: %s",
                e.what());
        return;
    }
    m_bThreadStarted = true;
}

void CConfigManager::StartMonitoringConfigChanges() { StartThread(); }

void CConfigManager::StopMonitorThread() {
    DNTRACE(TRACE, "CConfigManager::StopMonitorThread");
    // The watches belong to the thread and go with it when the thread ends; ending them
    // from here would race the thread's own use of them.
    m_bExitMonitor = true;
    m_watch.Wake();
}

bool CConfigManager::WaitForMonitorEnd(unsigned int timeoutMs) {
    if (!m_bThreadStarted) return true;
    const boost::posix_time::ptime deadline = boost::posix_time::microsec_clock::universal_time() +
                                              boost::posix_time::milliseconds(timeoutMs);
    return m_stopEvent.timed_wait(deadline);
}

void CConfigManager::ThreadMain() {
    // The process's signal handlers log; this thread leaves them to the others, so that a
    // stop signal never interrupts it inside the system log or a reload.
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int synchronous : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
        sigdelset(&blocked, synchronous);
    }
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    try {
        (void)MonitorConfigChangesProc();
    } catch (const std::exception& e) {
        DNTRACE(ERR, "CConfigManager::MonitorConfigChangesProc ended by an exception: %s",
                e.what());
    } catch (...) {
        DNTRACE(ERR, "CConfigManager::MonitorConfigChangesProc ended by an unknown exception");
    }
    m_watch.Close();
    m_stopEvent.notify();
}

void CConfigManager::RunReload() {
    // A reload that throws (no memory) must not end the monitoring.
    try {
        updateCurrentConfig();
    } catch (const std::exception& e) {
        DNTRACE(ERR, "UpdateCurrentConfig: reload abandoned: %s", e.what());
    }
}

void CConfigManager::updateCurrentConfig() {
    DNTRACE(THREAD, "CConfigManager::UpdateCurrentConfig entered");
    OrgInfoRecord fresh;
    OrgInfoRecord current;
    if (!m_agent.LoadOrgInfo(m_folder, fresh)) {
        // Nothing here takes "config_error" back; the next state update does.
        m_agent.SendSWGState("config_error", SWG_STATE_UPDATE_NORMAL);
        DNTRACE(TRACE, "UpdateCurrentConfig: Failed to load updated config file");
        ++m_reloadCount;
        return;
    }
    current = m_agent.GetOrgInfo();

    unsigned int consequences = 0;
    bool changed = false;
    for (const FieldRule& rule : kFieldRules) {
        if (!rule.differs(current, fresh)) continue;
        changed = true;
        consequences |= rule.consequences;
        DNTRACE(THREAD, "UpdateCurrentConfig: %s", rule.text);
        if ((rule.consequences & kLogLevel) != 0) {
            m_agent.ChangeDebugLevel(fresh.bDefaultLogLevel ? TRACE_MASK_DEFAULT
                                                            : TRACE_MASK_DEBUG);
        }
    }
    // strpKeyId and bIPv6Enabled are not compared: alone they are no change.
    if (changed) m_agent.SetOrgInfo(fresh);

    if ((consequences & kRestart) != 0) {
        DNTRACE(TRACE,
                "UpdateCurrentConfig: inclusons/exceptions/listenports changed so reinit kdf "
                "interface");
        if (!m_agent.RestartKDF(reason_rules_refresh)) {
            DNTRACE(ERR, "UpdateCurrentConfig: Failed to restart KDF");
        }
    }
    if ((consequences & kBackoff) != 0) m_agent.OnBackoffStateChange();
    if ((consequences & kGatewayName) != 0) m_agent.SetActiveTowerName();
    if ((consequences & kStateFile) != 0) (void)m_agent.UpdateSWGStateFile();
    if ((consequences & kFips) != 0) m_agent.UpdateFedRampMode();
    ++m_reloadCount;
}

unsigned int CConfigManager::ReloadCount() const { return m_reloadCount; }

int CConfigManager::MonitorConfigChangesProc() {
    DNTRACE(THREAD, "CConfigManager::MonitorConfigChangesProc ==>");
    WatchState watch;
    const int setUp = SetUpWatch(watch);
    if (setUp == 0) {
        while (!m_bExitMonitor) {
            if (!WaitAndHandle(watch)) break;
        }
    }
    // Closing the watch ends both watches and the wake-up.
    m_watch.Close();
    m_fileDescriptor = -1;
    if (setUp != 0) return setUp;
    DNTRACE(THREAD, "CConfigManager::MonitorConfigChangesProc <==");
    return 0;
}

int CConfigManager::SetUpWatch(WatchState& watch) {
    switch (m_watch.Open()) {
        case IFileWatch::OpenResult::kNoQueue:
            return -1;
        case IFileWatch::OpenResult::kNoWakeUp:
            return -4;
        case IFileWatch::OpenResult::kOpened:
            break;
    }
    watch.folder = m_folder;
    if (watch.folder.empty() && !GetSWGConfigFolder(watch.folder)) {
        DNTRACE(ERR, "MonitorConfigChangesProc: could not get ALL users path");
        return -2;
    }
    watch.file = ConcatenatePath(watch.folder, g_szUpdateConfigFileName, "/");

    // A missing file is not fatal: the folder watch picks it up when it appears.
    const int file = m_watch.WatchFile(watch.file);
    if (file < 0) DNTRACE(TRACE, "MonitorConfigChangesProc: open file error %d", -file);
    m_fileDescriptor = file < 0 ? -1 : file;
    watch.folderWatch = m_watch.WatchFolder(watch.folder);
    if (watch.folderWatch < 0) {
        DNTRACE(ERR, "MonitorConfigChangesProc: open folder error %d", -watch.folderWatch);
        return -3;
    }
    watch.changeCount = m_fileDescriptor != -1 ? kChangeCountWithFile : kChangeCountNoFile;
    return 0;
}

bool CConfigManager::WaitAndHandle(WatchState& watch) {
    int timeoutMs = -1;
    if (watch.quietPeriodRunning) {
        const long long left = (watch.quietEnd - m_clock.UniversalTime()).total_milliseconds();
        timeoutMs = left > 0 ? static_cast<int>(left) : 0;
    }
    std::vector<IFileWatch::Change> changes;
    const IFileWatch::WaitResult result = m_watch.Wait(timeoutMs, changes);
    if (result == IFileWatch::WaitResult::kFailed) return false;
    if (result == IFileWatch::WaitResult::kWoken) {
        DNTRACE(TRACE, "MonitorConfigChangesProc: pipe event so exit");
        m_bExitMonitor = true;
        return false;
    }
    // A stop that raced the timeout: the pending reload is dropped as the wake-up would drop it.
    if (m_bExitMonitor) return false;
    if (result == IFileWatch::WaitResult::kTimeout) {
        DNTRACE(THREAD, "MonitorConfigChangesProc: event count = %d", 0);
        HandleTimeout(watch);
        return true;
    }
    HandleChanges(watch, changes);
    // Every pass with changes starts the whole quiet period again, so that it runs from the
    // writer's last change.
    watch.quietEnd = m_clock.UniversalTime() + boost::posix_time::milliseconds(m_quietPeriodMs);
    return true;
}

void CConfigManager::HandleTimeout(WatchState& watch) {
    DNTRACE(THREAD, "MonitorConfigChangesProc: No event. Change count = %d", watch.changeCount);
    watch.quietPeriodRunning = false;
    if (watch.pending && watch.changeCount == kChangeCountWithFile) {
        DNTRACE(THREAD, "MonitorConfigChangesProc - changes occured");
        RunReload();
    }
    // With the file missing a pending change is dropped: a deleted file never reloads.
    watch.pending = false;
}

void CConfigManager::HandleChanges(WatchState& watch,
                                   const std::vector<IFileWatch::Change>& changes) {
    DNTRACE(THREAD, "MonitorConfigChangesProc: event count = %d", static_cast<int>(changes.size()));
    for (const IFileWatch::Change& change : changes) {
        if (m_bExitMonitor) return;
        if (change.lost) {
            // Changes were lost: look at the folder and treat the file as changed.
            DNTRACE(WARN, "MonitorConfigChangesProc: unknown event: %d (%x)", change.watch,
                    change.bits);
            HandleFolderEvent(watch);
            if (watch.changeCount == kChangeCountWithFile) HandleFileEvent(watch);
        } else if (change.watch == watch.folderWatch) {
            HandleFolderEvent(watch);
        } else if (change.watch == m_fileDescriptor) {
            HandleFileEvent(watch);
        }
        // Changes of a watch already replaced belong to the old file; they are dropped,
        // as a closed descriptor would have dropped them.
    }
}

void CConfigManager::HandleFileEvent(WatchState& watch) {
    DNTRACE(THREAD,
            "MonitorConfigChangesProc: file change event, close old fd and open a new one.");
    // Watched afresh by path: after a replacement the old watch follows the old file.
    (void)ArmFileWatch(watch,
                       "MonitorConfigChangesProc: after file change event wait couple seconds "
                       "before acting");
}

void CConfigManager::HandleFolderEvent(WatchState& watch) {
    DNTRACE(THREAD, "MonitorConfigChangesProc: Folder change event, change_count %d",
            watch.changeCount);
    int error = 0;
    const bool found = FolderHoldsFile(watch.folder, g_szUpdateConfigFileName, error);
    if (error != 0) {
        DNTRACE(ERR, "MonitorConfigChangesProc: opendir failure %d", error);
        return;
    }
    DNTRACE(THREAD, "MonitorConfigChangesProc: changecount %d found config %d", watch.changeCount,
            found ? 1 : 0);
    if (watch.changeCount == kChangeCountNoFile && found) {
        (void)ArmFileWatch(watch,
                           "MonitorConfigChangesProc: .... wait couple seconds before acting");
    } else if (watch.changeCount == kChangeCountWithFile && !found) {
        DNTRACE(TRACE, "MonitorConfigChangesProc: config file not found in dir");
        if (m_fileDescriptor != -1) {
            DNTRACE(THREAD, "MonitorConfigChangesProc: closing m_fileDescriptor");
        }
        ForgetFileWatch(watch);
        // The pending flag stays: a timeout in this state drops it without a reload.
    }
}

bool CConfigManager::ArmFileWatch(WatchState& watch, const char* armedText) {
    const int wd = m_watch.WatchFile(watch.file);
    if (wd < 0) {
        DNTRACE(TRACE, "MonitorConfigChangesProc: open file error %d", -wd);
        ForgetFileWatch(watch);
        return false;
    }
    m_fileDescriptor = wd;
    watch.changeCount = kChangeCountWithFile;
    watch.pending = true;
    watch.quietPeriodRunning = true;
    DNTRACE(THREAD, "%s", armedText);
    return true;
}

void CConfigManager::ForgetFileWatch(WatchState& watch) {
    m_watch.ForgetFile();
    m_fileDescriptor = -1;
    watch.changeCount = kChangeCountNoFile;
}
