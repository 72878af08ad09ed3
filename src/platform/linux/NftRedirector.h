// SPDX-License-Identifier: Apache-2.0
// The socket redirector on Linux: the agent's rules as one nftables table of its own.
#if !defined(__linux__)
#error "Linux adapter"
#endif
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/SocketRedirectorApi.h"
#include "platform/linux/NftCommand.h"
#include "platform/linux/NftGuardian.h"
#include "platform/linux/NftNameSchedule.h"
#include "platform/linux/NftRuleset.h"

// Resolves a host name of the rules within about `timeoutMs`: 0 with its addresses, or an
// error value. Called on the redirector's watcher thread with no lock of the redirector held.
using NftHostLookup =
    std::function<int(const std::string& name, unsigned int timeoutMs, std::vector<NftAddress>&)>;

// Seams and timings of CNftRedirector. An empty function means the real one.
struct NftRedirectorOptions {
    // Whether the table carries the owner flag (ProbeSupport tells whether the kernel takes
    // it). Without it a guardian process removes the table when the agent dies.
    bool owned = true;
    // How often the watcher compares the table with what it installed and looks for
    // listeners that came or went.
    unsigned int watchPeriodMs = 2000;
    // The faster period while a rule waits for its listener, for at most this many looks.
    unsigned int listenerPollMs = 100;
    unsigned int listenerPollLimit = 100;
    // Host names of the rules: the lookup (getaddrinfo when empty), its timeout and schedule.
    NftHostLookup lookup;
    unsigned int lookupTimeoutMs = 2000;
    NftNameTiming nameTiming;
    // Whether a listener takes connections on loopback `port` for `family`
    // (/proc/thread-self/net/tcp and tcp6).
    std::function<bool(int family, uint16_t port)> isListening;
    // cgroup v2 path of a process that nftables can match, or "" (/proc/<pid>/cgroup, then a
    // trial transaction).
    std::function<std::string(int32_t pid)> cgroupOf;
};

// Owns the table `inet tsc_swg` of the network namespace it was opened in, and its companion
// `inet tsc_swg_keep`, and nothing else of the ruleset. The table exists only while the
// plug-in is open and started, a redirect rule is in force and its listener takes
// connections; rules wait for their listener so that no connection is diverted to a closed
// port. The companion exists while the plug-in is open: it keeps the connections that the
// table diverted translated while the table is absent or replaced.
//
// Every change of the table goes through one libnftables context that lives from OpenPlugin
// to ClosePlugin: an owned table is the kernel's to remove when that context's socket closes,
// also when the process dies. The record of what is installed is what the kernel listed
// right after the last change; the watcher thread (OpenPlugin to ClosePlugin) compares the
// kernel's table with it, and a table that vanished or differs is a disruption: the plug-in
// removes what is left, counts as disconnected and calls the callback from the watcher,
// without any lock held. Other nftables errors are logged and retried by the watcher. The
// watcher also resolves the host names of the rules, outside the lock, and applies changed
// answers to the sets alone. Every operation may be called from any thread; one mutex
// serialises them and the context.
class CNftRedirector : public ISocketRedirectorApi {
public:
    explicit CNftRedirector(NftRedirectorOptions options = {});
    // Closes the plug-in (removing the table) if it is open.
    ~CNftRedirector() override;
    CNftRedirector(const CNftRedirector&) = delete;
    CNftRedirector& operator=(const CNftRedirector&) = delete;

    // Opens the context, removes tables of those names that a crashed run left, makes the
    // companion (a failure is logged, not returned), starts the guardian of an unowned table
    // and the watcher. EIO when no context can be had, EPERM when another process owns a
    // table of those names.
    int OpenPlugin(IKdfApiCB* callback) override;
    // Removes both tables and every rule, frees the context, stops guardian and watcher (which
    // may first finish a name lookup). Always 0.
    int ClosePlugin() override;
    // Forgets every rule and removes the table; the last answers of host names are kept for
    // rules that name them again. NGC_ERROR_DISCONNECTED when not open.
    int Clear(int what) override;
    // Records each rule (a copy) or removes an equal one, then brings the table in line.
    // Host names are looked up by the watcher at once and enforced when they resolve.
    // Per-connection exceptions and the agent's own rules are recorded only: the socket
    // mark enforces them. 0 also when nftables failed for now (the watcher retries); EIO when
    // it refused the table. NGC_ERROR_DISCONNECTED when not open.
    int SetRedirects(std::list<redirect_info>& rules) override;
    // Enforces the rules; results as SetRedirects.
    int Start() override;
    // Removes the table; the rules stay recorded. NGC_ERROR_DISCONNECTED when not open.
    int Stop() override;
    // Holds back every change of the table until ApplyHeldChanges, also those of the watcher.
    // NGC_ERROR_DISCONNECTED when not open.
    int HoldChanges() override;
    // Brings the table in line with the calls since HoldChanges in one transaction; results
    // as Start.
    int ApplyHeldChanges() override;
    // Looks up every host name again at once, failed ones included; the old addresses stay
    // in force until new ones arrive. After a network change this is the call to make.
    int ClearDnsCache() override;

    // Copies of the recorded rules, in the order they were added.
    std::list<redirect_info> RecordedRules() const;
    // Whether the kernel took the table at the last change.
    bool TableInstalled() const;

    // 0 when this process may manage nftables in its namespace; EPERM otherwise.
    static int ProbeAccess();
    // Checks, in a transaction that the kernel discards, a table of the real shape (sets,
    // NAT redirect, reject, mark) with the owner flag, then without. 0 with `owned` telling
    // which was taken; EOPNOTSUPP (the reason logged) when neither was.
    static int ProbeSupport(bool& owned);

private:
    enum class TableCheck { Fine, Vanished, Changed };

    int ApplyLocked();
    int FailedApplyLocked(const NftOutcome& outcome, bool setUpdate);
    void ReadBackLocked();
    NftBuildInputs GatherInputsLocked(bool& waiting);
    void RecordLocked(const redirect_info& rule, bool& tableAffected);
    void ForgetLocked(const redirect_info& rule, bool& tableAffected);
    void UpdateNamesLocked();
    std::string CgroupForLocked(int32_t pid);
    void InstallKeepTableLocked();
    void ResetLocked();
    void StopWatcher();
    void WatchLoop();
    TableCheck CheckTableLocked();
    IKdfApiCB* DisconnectLocked(TableCheck why);
    void ResolveDueNames(std::unique_lock<std::mutex>& hold);
    int Lookup(const std::string& name, std::vector<NftAddress>& addresses) const;

    const NftRedirectorOptions m_options;
    mutable std::mutex m_lock;
    std::condition_variable m_wake;
    std::thread m_watcher;
    bool m_stopWatcher = false;

    // Guarded by m_lock.
    std::unique_ptr<CNftContext> m_context;
    std::unique_ptr<CNftGuardian> m_guardian;
    IKdfApiCB* m_callback = nullptr;
    bool m_open = false;
    bool m_started = false;
    bool m_holding = false;        // HoldChanges without ApplyHeldChanges yet
    bool m_keepInstalled = false;  // the companion table of this context is in place
    bool m_waitingForListener = false;
    bool m_waitLogged = false;
    unsigned int m_fastPolls = 0;
    std::list<redirect_info> m_rules;
    CNftNameSchedule m_names;
    std::map<int32_t, std::string> m_cgroups;
    NftRuleset m_installed;       // the table the kernel took last; no rules: no table
    std::string m_kernelListing;  // the kernel's listing of it right after
    bool m_listingKnown = true;   // false while that listing could not be read
    bool m_retryApply = false;    // the last change failed; the watcher tries again
    TableCheck m_disruption = TableCheck::Fine;  // found by a change, for the watcher
    std::string m_lastError;                     // the last error logged, to log a repeat only once
};

// Creates a redirector on nftables whose host names are looked up by `lookup` (getaddrinfo
// when empty), after ProbeAccess and ProbeSupport. Returns 0, or their error value with
// `*out` untouched; EINVAL for a null `out`, ENOMEM.
int CreateNftRedirector(ISocketRedirectorApi** out, NftHostLookup lookup);
