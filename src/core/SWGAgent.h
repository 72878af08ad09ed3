// SPDX-License-Identifier: Apache-2.0
// The one agent object: owns the components, their start and stop order and the main loop.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/system/error_code.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include "config/OrgInfo.h"
#include "foundation/ConditionEvent.h"
#include "ipc/SWGState.h"
#include "netaware/InterfaceInfo.h"
#include "platform/KdfApiCB.h"
#include "platform/RedirectorRecords.h"
#include "redirect/RedirectTypes.h"

class CDnListenThread;
class ISocketRedirectorApi;
class CServerSideCommunicator;
class CServiceStats;
struct SERVICE_STATS;
class IHashManager;
class IClock;
class INetworkState;
struct sockaddr;
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

    // ---- process lifecycle (core/SWGAgent.cpp) ---------------------------------------
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
    // Called only by RunMessageLoop: 0 or the code that ends the start. A stop requested
    // meanwhile ends the start between its steps with 0, leaving the state Starting for the
    // stop order.
    int StartComponents();
    void StopComponents();
    // Does nothing; returns 0.
    long UnInit();
    // Writes `text` to syslog at the error priority; null is ignored.
    static void LogEventEx(const char* text, unsigned short unused);
    // Whether an IPv6 stream socket can be created on this host.
    static bool IsIPv6Installed();

    AgentRunState ServiceState() const { return m_serviceState; }
    AgentRunState KdfState() const { return m_kdfState; }
    int StopProgress() const { return m_stopProgress; }

    // ---- configuration (config/SWGAgentConfig.cpp) ----------------------------------
    // Reads SWGConfig.json and its override from the configuration folder (under
    // GetAllUsersAppDataPath) into `info`, a freshly constructed record. True when the
    // record is valid; false for a missing, unreadable, malformed or invalid file, each
    // with its syslog line. Updates m_bAnycastV6Available even when the record is refused.
    bool LoadOrgInfo(ORGINFO& info);
    // LoadOrgInfo from `folder` instead of the configuration folder.
    bool LoadOrgInfoFromFolder(const std::string& folder, ORGINFO& info);
    // Appends the text of `folder`/SWGConfigOverride.json to `text` with its line ends
    // removed. A file that cannot be opened leaves `text` as it was, after the syslog line
    // "\nSWG : Unable to open the custom config file".
    static void ReadSWGCustomConfig(const std::string& folder, std::string& text);
    // A deep copy of the record in force, taken under m_orgInfoLock.
    ORGINFO GetOrgInfo();
    // Replaces the record in force by a copy of `info`.
    void SetOrgInfo(const ORGINFO& info);
    // The gateway name to use; `wantIPv6` asks for an IPv6 anycast address.
    std::string GetSWGProxyName(bool wantIPv6);
    bool GetAnycastV6Available();
    // Brings the process's FIPS mode in line with the configuration.
    void UpdateFedRampMode();

    // ---- system proxy (upstream/SWGAgentPublicProxy.cpp) ------------------------------
    // Accepts proxy credentials and ignores all four: the agent sends no credentials to a
    // proxy. Any thread.
    void SendProxyCredentials(const std::string& host, int port, const std::string& user,
                              const std::string& password);

    // ---- redirector (redirect/SWGAgentRedirector.cpp; the rule lists in
    // SWGAgentRedirectRules.cpp, the IKdfApiCB callbacks in SWGAgentDisruption.cpp) -----
    // Without a handle, creates one (failure: SWG_E_FAIL) and opens it, retrying OpenPlugin
    // without bound (2, 4, ... 12 s, then every 15 s). Then builds the rules of `info`,
    // stops, clears, installs them and starts; a refused list or start goes back to the
    // open. Holds m_redirectorLock throughout, so it can block for a long time, but not past
    // StopRedirectorRetries. 0 once diverting, SWG_E_FAIL for an empty rule list (the handle
    // then stays open) or when the service stops first.
    long InitialiseRedirectorInterface(SVC_STARTUP_INFO& info);
    // The service is stopping: from now on a failed OpenPlugin or rule list is not tried
    // again, and a pause between attempts ends at once, so that the close of the stop does
    // not wait behind m_redirectorLock. Never undone. Any thread, also the signal thread.
    void StopRedirectorRetries();
    // Under m_redirectorLock: clears, stops, closes and releases the redirector. True when
    // it was released; false with no handle, or when Stop failed and `reason` is not
    // reason_disruption (the handle then stays open and m_kdfState stays Stopping).
    bool CloseRedirectorInterface(unsigned char reason);
    // Releases the handle and nulls it; a release error is only logged.
    void releaseKDFInstance();
    // Restarts the redirector when it is Stopped or `reason` is reason_backoff: 0 when
    // RestartKDF reports success, else SWG_E_FAIL (also when refused in another state).
    long StartKDF(unsigned char reason);
    // Records `reason` in m_kdfStopReasons, then clears the rules (reason_backoff, false
    // without a handle) or closes the redirector. True when already stopping or stopped.
    bool StopKDF(unsigned char reason);
    // Drops `reason` from m_kdfStopReasons; while another reason remains, does nothing and
    // returns true. Otherwise rebuilds the rules from the configuration: reason_backoff
    // only reinstalls them on the open handle (false without one or when refused); other
    // reasons go through InitialiseRedirectorInterface and return true whatever it gave.
    // False when the configuration has no port.
    bool RestartKDF(unsigned char reason);
    // Appends the redirect rules of every monitored port (IPv4 and IPv6, or the IPv4 rule
    // twice without IPv6), the agent's two no-redirect rules and, when the VPN daemon
    // runs, its two. Refreshes m_bIPv6Present. Never fails; any thread.
    void SetRedirectList(std::list<redirect_info>& rules, const SVC_STARTUP_INFO& info);
    // Appends the ";" separated entries of `text` to `ipv4`, `ipv6` (addresses with their
    // prefixes) and `names` (what is no address). IPv6 entries are dropped when
    // `ipv6Enabled` is false. Bad entries are logged and dropped. Always returns true.
    bool parse_addresses_str_to_cidr_addr(const std::string& text, std::list<ngc_cidr_addr>& ipv4,
                                          std::list<ngc_cidr_addr>& ipv6,
                                          std::list<std::string>& names, bool ipv6Enabled);
    // Hands the one rule to the redirector under m_redirectorLock. True when applied; false
    // without a handle or when the redirector refuses it.
    bool SetKdfRedirectRule(const redirect_info& rule);
    // Empties the redirector's own name cache under m_redirectorLock. True when done; false
    // without a handle or when the redirector fails.
    bool ClearRedirectorDnsCache();
    // IKdfApiCB: each hands its work to a new detached thread and returns at once.
    void OnKdfDisruption() override;
    void OnPlannedKdfDisruptionStart(PlannedDisruption what) override;
    void OnPlannedKdfDisruptionComplete(PlannedDisruption what) override;
    // Platform seams of the redirection control; see RedirectorSeams.
    RedirectorSeams m_redirectorSeams;
    // Detached redirector threads (recovery, planned start) that have not yet finished.
    std::atomic<int> m_kdfThreadsRunning{0};

    // ---- name resolution (resolve/SWGAgentCache.cpp) ---------------------------------
    // The cached IPv4 addresses (network order) of `host`, or an empty list when `host` is not
    // the cached host or the list is 31 seconds old or more; a miss empties the IPv4 list.
    // Any thread (m_cacheLock).
    std::vector<unsigned int> GetCachedResolvedIPList(const std::string& host);
    // The same for the IPv6 list (16 bytes per address, end to end).
    std::vector<unsigned char> GetCachedResolvedIPv6List(const std::string& host);
    // Stores `addresses` as the IPv4 list, makes `host` the cached host of both lists and
    // stamps the IPv4 list now. Any thread (m_cacheLock).
    void CacheResolvedIPList(const std::string& host, const std::vector<unsigned int>& addresses);
    // The same for the IPv6 list.
    void CacheResolvedIPV6List(const std::string& host,
                               const std::vector<unsigned char>& addresses);
    // Empties the redirector's own name cache, if there is a redirector; logs the outcome.
    void sendClearDNSCacheCommand();
    // The clock of the cache stamps (null: the system clock); must outlive its use. For tests.
    void SetCacheClock(IClock* clock);

    // ---- network awareness (netaware/SWGAgentNetwork.cpp, netaware/SWGAgentBackoff.cpp;
    // captive portal detection in netaware/SWGAgentCaptivePortal.cpp) -------------------
    // Reads the default route of both families into the four members. 1 when nothing
    // changed, 0 when something changed and a router exists, 2 when something changed and
    // neither family has a router. OS events thread, and once at start.
    int checkInterfaceChanges();
    // Reads the default route of `family` into its two members (blank when unreadable);
    // returns the router. Any thread.
    std::string getCurrentActiveInterface(int family);
    // Copies of the members, under m_interfaceLock; any family but AF_INET6 is AF_INET.
    std::string getBestInterface(int family);
    std::string getBestInterfaceName(int family);
    // Store under m_interfaceLock; families other than AF_INET and AF_INET6 are ignored.
    void setBestInterface(const std::string& router, int family);
    void setBestInterfaceName(const std::string& name, int family);
    // Acts on a settled run of address changes: evaluates backoff when the agent decides
    // itself and is backed off or probes for a trusted server. Main thread only.
    void takeActionOnAddrChange();
    // Called on the OS events thread for each route or address notice: waits 500 ms, looks
    // at the interfaces and signals g_IPAddrChangeEvent when something changed.
    void HandleNetworkChangeEvent();
    // Whether a TCP connection to the echo service's host, port 80, succeeds within 2 s over
    // `family`; false at once when the family has no router. Blocks; any thread.
    bool testConnectivity(int family);
    // The interface the host would use for `destination`, its address and, when
    // `wantDnsDomain`, its DNS domain; IPv6 addresses only when `allowIPv6`. The result is
    // an errno as a system error (0 success), or -1 when the domain could not be read.
    // Blocks for a netlink exchange; any thread.
    boost::system::error_code GetPreferredInterface(const sockaddr* destination, bool unused,
                                                    bool wantDnsDomain, bool allowIPv6,
                                                    InterfaceInfo& info);
    // The DNS domain of `interfaceName` into `domain` (untouched when it has none). False
    // only when the source cannot be read. Any thread.
    bool GetInterfaceDnsDomain(const std::string& interfaceName, std::string& domain);
    // Where the network facts come from (null: the host). For tests; set before use.
    void SetNetworkState(INetworkState* state) { m_pNetworkState = state; }
    // Works out whether the agent should stand aside, makes the change and reports it.
    // Blocks for the trusted server probe when that is switched on. Any thread.
    void OnBackoffStateChange();
    // Whether `host`:`port` presents a certificate whose SHA-256 fingerprint is `fingerprint`
    // (hexadecimal, either case). Blocks up to 4 s to connect and 20 s to shake hands, plus
    // the name look-up. Any thread.
    bool IsCustomerTrustedNetwork(const std::string& host, const std::string& fingerprint,
                                  int port);
    // Test seam: while installed, IsCustomerTrustedNetwork answers what it says instead of
    // probing. An empty function removes it. Set before the agent runs.
    void SetTrustedNetworkProbe(
        std::function<bool(const std::string&, const std::string&, int)> probe) {
        m_trustedNetworkProbe = std::move(probe);
    }
    // The captive portal flag, read and stored under m_captivePortalLock. Any thread.
    bool IsCaptivePortalMode();
    void SetCaptivePortalMode(bool on);
    // Stores the domain of the last portal redirect under m_captivePortalLock.
    void SetCaptivePortalDomain(const std::string& domain);
    // Probes the echo service (then the fallback URL when it cannot be asked), each with
    // `timeoutSeconds`, and sets the flag by the answer; with no echo service configured the
    // flag stays. Blocks without the lock held; any thread but the main loop's.
    void DetectCaptivePortalPresence(long timeoutSeconds);
    // 0 when `url` answered 200 with exactly its expected text, 1 for any other answer or a
    // failed fetch of the fallback URL, 2 when any other URL could not be fetched. Blocks.
    int DetectCaptivePortalPresenceBasedOnURL(const std::string& url, long timeoutSeconds);
    // The domain of the Location header in `headers` (lower case, no scheme, "www.", port,
    // path or query), or empty.
    void ExtractCaptivePortalDomainFromHTTPHeaders(const std::string& headers,
                                                   std::string& domain) const;
    // How the probes fetch a URL, with DownloadHTTPURL's short form as the default. Tests put
    // scripted answers or their own peers here; an empty function restores the default.
    using CaptivePortalDownloader =
        std::function<long(const std::string& url, std::string& headers, std::string& body,
                           long timeout, uint16_t family)>;
    void SetCaptivePortalDownloader(CaptivePortalDownloader download);

    // ---- state and statistics (ipc/SWGAgentState.cpp, ipc/SWGAgentStats.cpp) --------
    // Reports a state word to the plug-in and the state file. While backed off only forced
    // words pass (-1 otherwise); "cloud_service_unavailable" passes only once a run of them
    // has lasted 5 s (0 while it is held back). Then sendStateToUI. Any thread (m_stateLock).
    int SendSWGState(const std::string& state, eSWGStateUpdate update);
    // Sends a word that differs from the last one delivered: the state and report messages,
    // then the state file. 0 sent or unchanged, -1 no plug-in connected (the word is not
    // remembered), -2 a word outside umapSWGState or a failure. Only from SendSWGState.
    int sendStateToUI(const std::string& state);
    // Replaces SWGState.json with the last word and the record in force, never leaving a part
    // written. 0, or -2 after a log line (the old file then stays).
    int UpdateSWGStateFile();
    // The monotonic clock of the cloud quiet period, in nanoseconds (null: the steady
    // clock). For tests; set before the agent reports.
    void SetStateClock(std::function<int64_t()> nowNs);
    // Starts the statistics timer unless it runs already (then a warning). From the receiver.
    void StatsStartCollecting();
    // Stops the statistics timer; the counters stay. Any thread, the timer's own included.
    void StatsStopCollecting();
    // StatsStopCollecting, then the join of the collection's thread (not from that thread).
    void StatsEndCollecting();
    // One relaxed atomic addition each, when the statistics object exists.
    void StatsIncrementTotalBypassedHostConnections();
    void StatsIncrementTotalHTTPConnections();
    void StatsIncrementTotalHTTPSConnections();
    // Hands a user message to the statistics; nothing in the agent calls it.
    void SetMsgHistoryLog(const std::string& text);
    // Posts the statistics message, or ends the collection when no plug-in is connected.
    // On the statistics timer's thread.
    void SendStats(const SERVICE_STATS& stats);
    // Hands the gateway name in use to the statistics object, if there is one.
    void SetActiveTowerName();
    // Creates the hash manager (core/SWGAgentHash.cpp) with a cache of 512; 0 or
    // SWG_E_OUTOFMEMORY.
    long InitializeHashManagerInterface();

private:
    friend class CSWGAgentTestAccess;

    // ---- steps of the start and stop order -----------------------------------------
    // core/SWGAgent.cpp
    void RunLoop();
    void RunStopSequence();
    // True, logged, when a signal has asked to stop: the start order goes no further.
    bool StopRequestedDuringStart();
    // core/SWGAgentListeners.cpp
    int StartListener(bool ipv6);
    void StopListener(bool ipv6);
    bool CreateListeners(long& error);
    // config/SWGAgentConfig.cpp
    void StartConfigMonitor();
    void StopConfigMonitor();
    // upstream/SWGAgentPublicProxy.cpp
    // Takes the reference on the proxy manager that the run keeps (StopComponents gives it
    // back), reads the system proxy and records it in g_ProxyInfo.
    void ObtainPublicProxySettings();
    // ipc/SWGAgentStats.cpp
    long StartCommunicator();
    long StartStatistics();
    // core/SWGAgentHash.cpp
    void ReleaseHashManager();

    // ---- steps of the redirection control ------------------------------------------
    // redirect/SWGAgentRedirector.cpp
    bool OpenRedirectorWithRetries();
    bool PauseBeforeOpenRetry(unsigned int pauseMs);
    bool InstallRedirectList(SVC_STARTUP_INFO& info, long& result);
    bool ReinstallRedirectList(const SVC_STARTUP_INFO& info);
    // redirect/SWGAgentDisruption.cpp
    void RunKdfRecovery();
    void RunPlannedDisruptionStart();

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
    ISocketRedirectorApi* m_pRedirector = nullptr;  // changed only under m_handleUseLock
    CServerSideCommunicator* m_pCommunicator = nullptr;
    CServiceStats* m_pServiceStats = nullptr;

    boost::recursive_mutex m_orgInfoLock;
    boost::recursive_mutex m_stateLock;
    boost::recursive_mutex m_messageLock;
    boost::recursive_mutex m_redirectorLock;
    // Held by the paths that call the handle without m_redirectorLock (the planned disruption
    // thread, the backoff paths) and by every change of m_pRedirector, so that no handle is
    // released while one of them uses it. Taken after m_redirectorLock, never before.
    std::mutex m_handleUseLock;
    boost::recursive_mutex m_unusedLock;  // constructed and never taken
    boost::recursive_mutex m_captivePortalLock;
    boost::recursive_mutex m_cacheLock;
    boost::recursive_mutex m_interfaceLock;

    std::deque<int> m_messages;
    boost_ext::condition_event m_messageEvent{true};
    boost_ext::condition_event m_unusedEvent{true};  // constructed, never signalled
    IHashManager* m_pHashManager = nullptr;
    std::atomic<int> m_stopProgress{0};
    // A signal asked the service to stop; the start order looks at it between its steps.
    std::atomic<bool> m_bStopRequested{false};
    ORGINFO m_orgInfo;
    std::atomic<uint8_t> m_kdfStopReasons{0};
    std::atomic<bool> m_kdfDisruptionHandlerBusy{false};
    std::atomic<bool> m_bRedirectorStopRequested{false};
    boost_ext::condition_event m_redirectorStopEvent{false};  // manual reset; set once
    std::string m_strCaptivePortalDomain;
    CaptivePortalDownloader m_captivePortalDownloader;  // under m_captivePortalLock

    // Resolved-address caches (one host at a time, shared key).
    std::vector<uint8_t> m_resolvedIPv6List;
    std::vector<uint32_t> m_resolvedIPv4List;
    boost::posix_time::ptime m_resolvedIPv6Time;
    boost::posix_time::ptime m_resolvedIPv4Time;
    std::string resolved_host;
    IClock* m_pCacheClock = nullptr;  // null: SystemClock()

    // State reporting, under m_stateLock.
    std::string m_lastSWGState;           // the last word a plug-in got; empty at start
    int64_t m_cloudUnavailableSince = 0;  // monotonic ns; 0: no quiet period runs
    std::function<int64_t()> m_stateClock;

    // Router and interface name of each family's default route, under m_interfaceLock.
    std::string m_strBestInterfaceV4;
    std::string m_strBestInterfaceV6;
    std::string m_strBestInterfaceNameV4;
    std::string m_strBestInterfaceNameV6;
    INetworkState* m_pNetworkState = nullptr;  // null: SystemNetworkState()
    std::function<bool(const std::string&, const std::string&, int)> m_trustedNetworkProbe;
};

// The process-wide agent.
extern CSWGAgent* g_pSWGAgent;

// The captive portal probe's fallback: a public plain-HTTP connectivity test whose body is
// "Microsoft Connect Test". Recognised by comparing a probe's URL with it whole.
extern const char g_szCaptivePortalFallbackURL[];

// 0 until main sets it to 1 for "-console".
extern int g_nAPP_MODE;
// Signalled at the end of the stop order; nothing waits on it.
extern boost_ext::condition_event ServiceEvent;

// The one signal handler: asks a running service to stop.
void TerminationHandler(int signal);
// Installs the signal table of the process.
void InstallSignalTable();
