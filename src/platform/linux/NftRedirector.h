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
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/SocketRedirectorApi.h"
#include "platform/linux/NftRuleset.h"

// Seams and timings of CNftRedirector. An empty function means the real one.
struct NftRedirectorOptions {
    // How often the watcher looks for a vanished table and for listeners that came or went.
    unsigned int watchPeriodMs = 2000;
    // The faster period while a rule waits for its listener, for at most this many looks.
    unsigned int listenerPollMs = 100;
    unsigned int listenerPollLimit = 100;
    // Addresses of a host name of the rules (getaddrinfo).
    std::function<std::vector<NftAddress>(const std::string& name)> resolve;
    // Whether a listener takes connections on loopback `port` for `family`
    // (/proc/thread-self/net/tcp and tcp6).
    std::function<bool(int family, uint16_t port)> isListening;
    // cgroup v2 path of a process that nftables can match, or "" (/proc/<pid>/cgroup, then a
    // trial transaction).
    std::function<std::string(int32_t pid)> cgroupOf;
};

// Owns the table `inet tsc_swg` of the network namespace it was opened in, and nothing
// else of the ruleset. The table exists only while the plug-in is open and started, a
// redirect rule is in force and its listener takes connections; rules wait for their
// listener so that no connection is diverted to a closed port. The watcher thread runs from
// OpenPlugin to ClosePlugin; the callback is called from it, without any lock held.
// Every operation may be called from any thread; one mutex serialises them.
class CNftRedirector : public ISocketRedirectorApi {
public:
    explicit CNftRedirector(NftRedirectorOptions options = {});
    // Closes the plug-in (removing the table) if it is open.
    ~CNftRedirector() override;
    CNftRedirector(const CNftRedirector&) = delete;
    CNftRedirector& operator=(const CNftRedirector&) = delete;

    // Replaces any table of that name (a crashed run's) after a trial transaction of every
    // kind of rule the table uses; EIO when nftables refuses it. Starts the watcher.
    int OpenPlugin(IKdfApiCB* callback) override;
    // Removes the table and every rule, stops the watcher. Always 0.
    int ClosePlugin() override;
    // Forgets every rule and removes the table. NGC_ERROR_DISCONNECTED when not open.
    int Clear(int what) override;
    // Records each rule (a copy) or removes an equal one, then brings the table in line:
    // EIO when nftables refuses the new table (the previous one stays in force).
    // Per-connection exceptions and the agent's own rules are recorded only: the socket
    // mark enforces them. NGC_ERROR_DISCONNECTED when not open.
    int SetRedirects(std::list<redirect_info>& rules) override;
    // Enforces the rules (EIO when refused); NGC_ERROR_DISCONNECTED when not open.
    int Start() override;
    // Removes the table; the rules stay recorded. NGC_ERROR_DISCONNECTED when not open.
    int Stop() override;
    // Forgets resolved host names and resolves them again when the table is in force.
    int ClearDnsCache() override;

    // Copies of the recorded rules, in the order they were added.
    std::list<redirect_info> RecordedRules() const;
    // Whether the table is believed to be in the kernel.
    bool TableInstalled() const;

    // 0 when this process may manage nftables in its namespace; EPERM otherwise.
    static int ProbeAccess();

private:
    int ApplyLocked();
    NftBuildInputs GatherInputsLocked(bool& waiting);
    void RecordLocked(const redirect_info& rule, bool& tableAffected);
    void ForgetLocked(const redirect_info& rule, bool& tableAffected);
    std::string CgroupForLocked(int32_t pid);
    void StopWatcher();
    void WatchLoop();
    bool WatchOnceLocked();

    const NftRedirectorOptions m_options;
    mutable std::mutex m_lock;
    std::condition_variable m_wake;
    std::thread m_watcher;
    bool m_stopWatcher = false;

    // Guarded by m_lock.
    IKdfApiCB* m_callback = nullptr;
    bool m_open = false;
    bool m_started = false;
    bool m_waitingForListener = false;
    bool m_waitLogged = false;
    unsigned int m_fastPolls = 0;
    std::list<redirect_info> m_rules;
    std::map<std::string, std::vector<NftAddress>> m_resolved;
    std::map<int32_t, std::string> m_cgroups;
    std::string m_applied;  // the script in force; empty when there is no table
};
