// SPDX-License-Identifier: Apache-2.0
// The configuration monitor on Linux: inotify stands in for a kernel event queue, with the
// same two states (file watched, file missing), the quiet period and the wake-up pipe.
#include "config/ConfigManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <utility>
#include <vector>

#include "config/ConfigFiles.h"
#include "core/SWGAgent.h"
#include "foundation/GlobalUtils.h"
#include "foundation/SSTrace.h"
#include "foundation/Trace.h"

namespace {
// The file: written in place, closed after writing, unlinked or renamed away. IN_ATTRIB
// is how an unlink shows while some other process still holds the file open.
constexpr uint32_t kFileMask =
    IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ATTRIB;
// The folder: entries come and go (a replacement by rename is a move in).
constexpr uint32_t kFolderMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                 IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr int kChangeCountWithFile = 3;
constexpr int kChangeCountNoFile = 2;
constexpr int kStateUpdateNormal = 0;       // SWG_STATE_UPDATE_NORMAL
constexpr unsigned char kRulesRefresh = 0;  // reason_rules_refresh
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
    int SendSWGState(const std::string& state, int update) override {
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
}  // namespace

CConfigManager g_ConfigManager;

// The watch as the monitor thread holds it.
struct CConfigManager::WatchState {
    int inotifyFd = -1;
    int folderWatch = -1;
    std::string folder;
    std::string file;
    int changeCount = kChangeCountNoFile;  // 3 while the file is watched, else 2
    bool pending = false;                  // a change waits to be read
    bool quietPeriodRunning = false;       // the next wait is bounded by the quiet period
};

CConfigManager::CConfigManager() : CConfigManager(AgentConfigTarget(), "", kQuietPeriodMs) {}

CConfigManager::CConfigManager(IConfigAgent& agent, std::string folder, unsigned int quietPeriodMs)
    : m_agent(agent), m_folder(std::move(folder)), m_quietPeriodMs(quietPeriodMs) {}

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
    // The watches belong to the thread's inotify instance and go with it when the thread
    // ends; closing them from here would race the thread's own use of them.
    m_bExitMonitor = true;
    std::lock_guard<std::mutex> hold(m_pipeLock);
    if (m_pipe[1] >= 0) {
        const char wake = 'x';
        const ssize_t written = write(m_pipe[1], &wake, 1);
        (void)written;  // a full pipe already holds a wake-up
    }
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
    ClosePipe();
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
        m_agent.SendSWGState("config_error", kStateUpdateNormal);
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
        if (!m_agent.RestartKDF(kRulesRefresh)) {
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
    if (setUp != 0) {
        CloseWatch(watch);
        return setUp;
    }
    while (!m_bExitMonitor) {
        if (!WaitAndHandle(watch)) break;
    }
    CloseWatch(watch);
    DNTRACE(THREAD, "CConfigManager::MonitorConfigChangesProc <==");
    return 0;
}

int CConfigManager::SetUpWatch(WatchState& watch) {
    watch.inotifyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (watch.inotifyFd < 0) {
        const int error = errno;
        DNTRACE(ERR, "MonitorConfigChangesProc: Could not open kernel queue.  Error was %s",
                strerror(error));
        return -1;
    }
    watch.folder = m_folder;
    if (watch.folder.empty() && !GetSWGConfigFolder(watch.folder)) {
        DNTRACE(ERR, "MonitorConfigChangesProc: could not get ALL users path");
        return -2;
    }
    watch.file = ConcatenatePath(watch.folder, g_szUpdateConfigFileName, "/");

    // A missing file is not fatal: the folder watch picks it up when it appears.
    m_fileDescriptor = inotify_add_watch(watch.inotifyFd, watch.file.c_str(), kFileMask);
    if (m_fileDescriptor < 0) {
        const int error = errno;
        DNTRACE(TRACE, "MonitorConfigChangesProc: open file error %d", error);
        m_fileDescriptor = -1;
    }
    watch.folderWatch = inotify_add_watch(watch.inotifyFd, watch.folder.c_str(), kFolderMask);
    if (watch.folderWatch < 0) {
        const int error = errno;
        DNTRACE(ERR, "MonitorConfigChangesProc: open folder error %d", error);
        return -3;
    }
    {
        std::lock_guard<std::mutex> hold(m_pipeLock);
        if (pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
            const int error = errno;
            m_pipe[0] = m_pipe[1] = -1;
            DNTRACE(ERR, "MonitorConfigChangesProc: pipe error %d", error);
            return -4;
        }
        DNTRACE(THREAD, "MonitorConfigChangesProc: pipe %d %d", m_pipe[0], m_pipe[1]);
    }
    watch.changeCount = m_fileDescriptor != -1 ? kChangeCountWithFile : kChangeCountNoFile;
    return 0;
}

void CConfigManager::CloseWatch(WatchState& watch) {
    // Closing the instance removes both watches.
    if (watch.inotifyFd >= 0) close(watch.inotifyFd);
    watch.inotifyFd = -1;
    watch.folderWatch = -1;
    m_fileDescriptor = -1;
    ClosePipe();
}

void CConfigManager::ClosePipe() {
    std::lock_guard<std::mutex> hold(m_pipeLock);
    for (int& end : m_pipe) {
        if (end >= 0) close(end);
        end = -1;
    }
}

bool CConfigManager::WaitAndHandle(WatchState& watch) {
    int pipeRead = -1;
    {
        std::lock_guard<std::mutex> hold(m_pipeLock);
        pipeRead = m_pipe[0];
    }
    pollfd waits[2] = {{pipeRead, POLLIN, 0}, {watch.inotifyFd, POLLIN, 0}};
    // Every pass waits the whole quiet period again, so it restarts with each event.
    const int timeoutMs = watch.quietPeriodRunning ? static_cast<int>(m_quietPeriodMs) : -1;
    const int result = poll(waits, 2, timeoutMs);
    if (result < 0) {
        const int error = errno;
        // A signal for the process may land on this thread: not a failure of the watch.
        if (error == EINTR) return true;
        DNTRACE(ERR,
                "MonitorConfigChangesProc: An error occurred (event count %d).  Error was '%s'",
                result, strerror(error));
        return false;
    }
    if (result > 0 && (waits[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        DNTRACE(THREAD, "MonitorConfigChangesProc: event count = %d", result);
        DNTRACE(TRACE, "MonitorConfigChangesProc: pipe event so exit");
        m_bExitMonitor = true;
        ClosePipe();
        return false;
    }
    // A stop that raced the timeout: the pending reload is dropped as the pipe would drop it.
    if (m_bExitMonitor) return false;
    if (result == 0) {
        DNTRACE(THREAD, "MonitorConfigChangesProc: event count = %d", result);
        HandleTimeout(watch);
        return true;
    }
    HandleInotifyEvents(watch);
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

void CConfigManager::HandleInotifyEvents(WatchState& watch) {
    // Aligned as inotify(7) asks. One read per pass: what does not fit wakes the next poll
    // at once, so a writer that never stops cannot keep this pass going.
    alignas(inotify_event) char buffer[4096];
    std::vector<inotify_event> events;
    const ssize_t got = read(watch.inotifyFd, buffer, sizeof(buffer));
    for (ssize_t offset = 0; got > 0 && offset < got;) {
        inotify_event event;
        std::memcpy(&event, buffer + offset, sizeof(event));
        events.push_back(event);
        offset += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
    }
    DNTRACE(THREAD, "MonitorConfigChangesProc: event count = %d", static_cast<int>(events.size()));
    for (const inotify_event& event : events) {
        if (m_bExitMonitor) return;
        if ((event.mask & IN_Q_OVERFLOW) != 0) {
            // Events were lost: look at the folder and treat the file as changed.
            DNTRACE(WARN, "MonitorConfigChangesProc: unknown event: %d (%x)", event.wd, event.mask);
            HandleFolderEvent(watch);
            if (watch.changeCount == kChangeCountWithFile) HandleFileEvent(watch);
        } else if ((event.mask & IN_IGNORED) != 0) {
            // A watch went away (file gone, or replaced by a new watch): nothing to do.
        } else if (event.wd == watch.folderWatch) {
            HandleFolderEvent(watch);
        } else if (event.wd == m_fileDescriptor) {
            HandleFileEvent(watch);
        }
        // Events of a watch already replaced belong to the old file; they are dropped,
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
    DIR* dir = opendir(watch.folder.c_str());
    if (dir == nullptr) {
        const int error = errno;
        DNTRACE(ERR, "MonitorConfigChangesProc: opendir failure %d", error);
        return;
    }
    const std::string name = g_szUpdateConfigFileName;
    bool found = false;
    while (const dirent* entry = readdir(dir)) {
        if (StringNocaseCompare(entry->d_name, name) == 0) {
            found = true;
            break;
        }
    }
    closedir(dir);
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
    const int wd = inotify_add_watch(watch.inotifyFd, watch.file.c_str(), kFileMask);
    if (wd < 0) {
        const int error = errno;
        DNTRACE(TRACE, "MonitorConfigChangesProc: open file error %d", error);
        ForgetFileWatch(watch);
        return false;
    }
    // The same file gives the same watch back; a replaced one a new watch, and the old one
    // would keep reporting the old file.
    if (m_fileDescriptor != -1 && m_fileDescriptor != wd) {
        (void)inotify_rm_watch(watch.inotifyFd, m_fileDescriptor);
    }
    m_fileDescriptor = wd;
    watch.changeCount = kChangeCountWithFile;
    watch.pending = true;
    watch.quietPeriodRunning = true;
    DNTRACE(THREAD, "%s", armedText);
    return true;
}

void CConfigManager::ForgetFileWatch(WatchState& watch) {
    // The watch may be gone already (file deleted); the error is of no interest then.
    if (m_fileDescriptor != -1) (void)inotify_rm_watch(watch.inotifyFd, m_fileDescriptor);
    m_fileDescriptor = -1;
    watch.changeCount = kChangeCountNoFile;
}
