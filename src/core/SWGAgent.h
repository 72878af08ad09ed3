// SPDX-License-Identifier: Apache-2.0
// The one agent object: owns the components, their start and stop order and the main loop.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include "config/OrgInfo.h"
#include "foundation/ConditionEvent.h"
#include "platform/KdfApiCB.h"

class CDnListenThread;
class ISocketRedirectorApi;
class CServerSideCommunicator;
class CServiceStats;
class IHashManager;
struct redirect_info;

// Run state of the service and, separately, of the redirector. 0 is not used.
enum AgentRunState : int32_t {
    Starting = 1,
    Running = 2,
    Stopping = 3,
    Stopped = 4,
};

// The only main-loop message in use; other ids are dropped without a word.
constexpr int MSG_ID_QUIT = 0x466;

// Lives with static storage (g_pSWGAgent points at it) and is reached from every
// thread. Locks are recursive; the state lock is taken before m_orgInfoLock, never after.
class CSWGAgent : public IKdfApiCB {
public:
    using ORGINFO = OrgInfoRecord;

    CSWGAgent();
    ~CSWGAgent() override;
    CSWGAgent(const CSWGAgent&) = delete;
    CSWGAgent& operator=(const CSWGAgent&) = delete;

    // ---- process lifecycle -------------------------------------------------------
    // Loads the configuration and prepares the process; 0, or SWG_E_FAIL when the
    // configuration cannot be loaded.
    long Init();
    // Creates the trace object once; true when one stands.
    bool InitializeLogging(const char* logFile);
    // Starts the components, runs the main loop until MSG_ID_QUIT, runs the stop
    // sequence. Returns when the service has fully stopped.
    void RunMessageLoop();
    // Queues `id` for the main loop. Any thread, also the signal handler.
    void PostMessage(unsigned long id);
    // Called only by RunMessageLoop: 0 or the code that ends the start.
    int StartComponents();
    void StopComponents();
    // Does nothing; returns 0.
    long UnInit();
    // Brings the process's FIPS mode in line with the configuration.
    void UpdateFedRampMode();
    // Hands the gateway name in use to the statistics object, if there is one.
    void SetActiveTowerName();
    // Creates the hash manager; 0 or SWG_E_OUTOFMEMORY.
    long InitializeHashManagerInterface();
    // Writes `text` to syslog at the error priority; null is ignored.
    static void LogEventEx(const char* text, unsigned short unused);
    // Whether an IPv6 stream socket can be created on this host.
    static bool IsIPv6Installed();

    AgentRunState ServiceState() const { return m_serviceState; }
    AgentRunState KdfState() const { return m_kdfState; }
    int StopProgress() const { return m_stopProgress; }

    // ---- configuration ------------------------------------------------------------
    // Reads SWGConfig.json and its override into `info`; true when the record is valid.
    bool LoadOrgInfo(ORGINFO& info);
    // A deep copy of the record in force, taken under m_orgInfoLock.
    ORGINFO GetOrgInfo();
    // Replaces the record in force by a copy of `info`.
    void SetOrgInfo(const ORGINFO& info);
    // The gateway name to use; `wantIPv6` asks for an IPv6 anycast address.
    std::string GetSWGProxyName(bool wantIPv6);
    bool GetAnycastV6Available();

    // ---- redirector ----------------------------------------------------------------
    bool CloseRedirectorInterface(unsigned char reason);
    long StartKDF(unsigned char reason);
    bool StopKDF(unsigned char reason);
    bool RestartKDF(unsigned char reason);
    void OnKdfDisruption() override;
    void OnPlannedKdfDisruptionStart(PlannedDisruption what) override;
    void OnPlannedKdfDisruptionComplete(PlannedDisruption what) override;
    // Applies the one rule `rule` (add or remove, by its rule_action) under m_redirectorLock.
    // True when the redirector took it; false with no redirector or when it refused.
    bool SetKdfRedirectRule(const redirect_info& rule);

    // ---- network awareness -----------------------------------------------------------
    // Looks at the interfaces; 0 or 2 when something changed that matters.
    int checkInterfaceChanges();
    // Acts on a settled run of address changes; main thread only.
    void takeActionOnAddrChange();
    // Called on the OS events thread for each route or address notice.
    void HandleNetworkChangeEvent();
    // The captive portal flag, read and stored under m_captivePortalLock. Any thread.
    bool IsCaptivePortalMode();
    void SetCaptivePortalMode(bool on);
    // Probes for a captive portal for at most `timeoutSeconds` and sets the flag by the
    // answer. Blocks; any thread but the main loop's.
    void DetectCaptivePortalPresence(long timeoutSeconds);

    // ---- state and statistics ---------------------------------------------------------
    // Reports a state word to the UI and the state file. 0 handled, -1 refused, -2 failed.
    int SendSWGState(const std::string& state, int update);
    void StatsStopCollecting();
    void StatsIncrementTotalBypassedHostConnections();
    void StatsIncrementTotalHTTPConnections();
    void StatsIncrementTotalHTTPSConnections();

private:
    friend class CSWGAgentTestAccess;

    // Steps of the start order whose components live in other areas.
    long StartCommunicator();
    long StartStatistics();
    void ObtainPublicProxySettings();
    void ReleasePublicProxySettings();
    void ReleaseHashManager();
    void StartConfigMonitor();
    void StopConfigMonitor();
    int StartListener(bool ipv6);
    void StopListener(bool ipv6);
    bool CreateListeners(long& error);
    void RunLoop();
    void RunStopSequence();

public:
    // Fields in the order of the record; most flags between threads are plain fields.
    std::atomic<AgentRunState> m_kdfState{Stopped};
    std::atomic<AgentRunState> m_serviceState{Stopped};
    CDnListenThread* m_pIPv4Listener = nullptr;
    CDnListenThread* m_pIPv6Listener = nullptr;
    bool m_bIPv6Present = false;
    bool m_bAnycastV6Available = false;
    std::atomic<bool> m_bCaptivePortalMode{false};
    bool m_bRestartInhibit = false;  // read only by RestartKDF; nothing sets it
    std::atomic<bool> m_bBackedOff{false};
    bool m_bFipsModeApplied = false;
    ISocketRedirectorApi* m_pRedirector = nullptr;
    CServerSideCommunicator* m_pCommunicator = nullptr;
    CServiceStats* m_pServiceStats = nullptr;

    boost::recursive_mutex m_orgInfoLock;
    boost::recursive_mutex m_stateLock;
    boost::recursive_mutex m_messageLock;
    boost::recursive_mutex m_redirectorLock;
    boost::recursive_mutex m_unusedLock;  // constructed and never taken
    boost::recursive_mutex m_captivePortalLock;
    boost::recursive_mutex m_cacheLock;
    boost::recursive_mutex m_interfaceLock;

    std::deque<int> m_messages;
    boost_ext::condition_event m_messageEvent{true};
    boost_ext::condition_event m_unusedEvent{true};  // constructed, never signalled
    IHashManager* m_pHashManager = nullptr;
    int m_stopProgress = 0;
    ORGINFO m_orgInfo;
    std::atomic<uint8_t> m_kdfStopReasons{0};
    std::atomic<bool> m_kdfDisruptionHandlerBusy{false};
    std::string m_strCaptivePortalDomain;

    // Resolved-address caches (one host at a time, shared key).
    std::vector<uint8_t> m_resolvedIPv6List;
    std::vector<uint32_t> m_resolvedIPv4List;
    boost::posix_time::ptime m_resolvedIPv6Time;
    boost::posix_time::ptime m_resolvedIPv4Time;
    std::string resolved_host;

    // Best interface names and addresses.
    std::string m_bestInterfaceV4;
    std::string m_bestInterfaceV6;
    std::string m_bestInterfaceAddrV4;
    std::string m_bestInterfaceAddrV6;
};

// The process-wide agent.
extern CSWGAgent* g_pSWGAgent;

// 0 until main sets it to 1 for "-console".
extern int g_nAPP_MODE;
// Signalled at the end of the stop order; nothing waits on it.
extern boost_ext::condition_event ServiceEvent;

// The one signal handler: asks a running service to stop.
void TerminationHandler(int signal);
// Installs the signal table of the process.
void InstallSignalTable();
