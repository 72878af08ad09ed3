// SPDX-License-Identifier: Apache-2.0
// The redirector on nftables: recorded rules, the table that enforces them, the watcher.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/linux/NftRedirector.h"

#include <arpa/inet.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <set>
#include <utility>

#include "foundation/Trace.h"
#include "platform/SocketMark.h"
#include "platform/linux/NftCommand.h"
#include "platform/linux/NftHostFacts.h"

namespace {

constexpr uint16_t kTrialPort = 80;
constexpr uint16_t kTrialRedirectPort = 5002;

bool SameCidrs(const std::list<ngc_cidr_addr>& a, const std::list<ngc_cidr_addr>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const ngc_cidr_addr& x, const ngc_cidr_addr& y) {
                          return std::memcmp(&x, &y, sizeof(x)) == 0;
                      });
}

// Equal in everything but rule_action: what a removal names.
bool SameRule(const redirect_info& a, const redirect_info& b) {
    redirect_info_head left = a;
    redirect_info_head right = b;
    left.rule_action = right.rule_action = 0;
    return std::memcmp(&left, &right, sizeof(left)) == 0 &&
           SameCidrs(a.include_addrs, b.include_addrs) &&
           SameCidrs(a.exclude_addrs, b.exclude_addrs) && a.exclude_hosts == b.exclude_hosts &&
           a.include_hosts == b.include_hosts;
}

bool TableKind(NftRuleKind kind) {
    return kind == NftRuleKind::Divert || kind == NftRuleKind::OtherProcess;
}

// A table with one rule of every kind the real one uses, added and deleted in the same
// transaction: it proves kernel support without ever diverting a packet.
std::string TrialScript(const std::vector<std::string>& cgroups) {
    NftDivertRule rule;
    rule.port = kTrialPort;
    rule.redirectPort = kTrialRedirectPort;
    NftRuleset trial;
    trial.passMark = SWG_SOCKET_MARK;
    trial.bypassCgroups = cgroups;
    for (const int family : {AF_INET, AF_INET6}) {
        NftAddressRange everything;
        everything.family = family;
        everything.high.fill(0xFF);
        rule.family = family;
        rule.exclude = {everything};
        trial.rules.push_back(rule);
    }
    return RenderNftRuleset(trial) + RenderNftTableRemoval();
}

std::string FirstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

const char* FamilyName(int family) { return family == AF_INET ? "IPv4" : "IPv6"; }

}  // namespace

CNftRedirector::CNftRedirector(NftRedirectorOptions options) : m_options(std::move(options)) {}

CNftRedirector::~CNftRedirector() { (void)ClosePlugin(); }

int CNftRedirector::ProbeAccess() {
    std::string error;
    if (RunNftCommand("list tables", nullptr, &error) == 0) return 0;
    DNTRACE(ERR, "Redirector: nftables cannot be used by this process: %s",
            FirstLine(error).c_str());
    return EPERM;
}

int CNftRedirector::OpenPlugin(IKdfApiCB* callback) {
    {
        std::lock_guard<std::mutex> hold(m_lock);
        std::string error;
        // Also the replacement of a table that a crashed run left in force.
        if (RunNftCommand(TrialScript({}), nullptr, &error) != 0) {
            DNTRACE(ERR, "Redirector: nftables refused the diversion table: %s",
                    FirstLine(error).c_str());
            return EIO;
        }
        m_callback = callback;
        m_open = true;
        m_started = false;
        m_rules.clear();
        m_resolved.clear();
        m_cgroups.clear();
        m_applied.clear();
        if (m_watcher.joinable()) return 0;
        m_stopWatcher = false;
    }
    m_watcher = std::thread([this] { WatchLoop(); });
    DNTRACE(TRACE, "Redirector: opened, table %s %s replaced", kNftTableFamily, kNftTableName);
    return 0;
}

int CNftRedirector::ClosePlugin() {
    {
        std::lock_guard<std::mutex> hold(m_lock);
        const bool wasOpen = m_open || !m_applied.empty();
        m_open = false;
        m_started = false;
        m_callback = nullptr;
        m_rules.clear();
        m_resolved.clear();
        m_cgroups.clear();
        if (wasOpen) {
            std::string error;
            if (RunNftCommand(RenderNftTableRemoval(), nullptr, &error) != 0) {
                DNTRACE(ERR, "Redirector: could not remove the table: %s",
                        FirstLine(error).c_str());
            }
        }
        m_applied.clear();
    }
    StopWatcher();
    return 0;
}

int CNftRedirector::Clear(int /*what*/) {
    std::lock_guard<std::mutex> hold(m_lock);
    if (!m_open) return NGC_ERROR_DISCONNECTED;
    m_rules.clear();
    m_resolved.clear();
    m_cgroups.clear();
    return ApplyLocked();
}

int CNftRedirector::SetRedirects(std::list<redirect_info>& rules) {
    std::lock_guard<std::mutex> hold(m_lock);
    if (!m_open) return NGC_ERROR_DISCONNECTED;
    bool tableAffected = false;
    for (const redirect_info& rule : rules) {
        if (rule.rule_action == 0) {
            RecordLocked(rule, tableAffected);
        } else if (rule.rule_action == 1) {
            ForgetLocked(rule, tableAffected);
        }
    }
    // Per-connection exceptions come twice per connection: they must not cost a table.
    return tableAffected ? ApplyLocked() : 0;
}

void CNftRedirector::RecordLocked(const redirect_info& rule, bool& tableAffected) {
    const NftRuleKind kind = ClassifyNftRule(rule, static_cast<int32_t>(getpid()));
    if (kind == NftRuleKind::DivertWithoutPort) {
        DNTRACE(WARN, "Redirector: redirect rule for port 0 recorded but not enforced");
    } else if (kind == NftRuleKind::OtherProcess) {
        (void)CgroupForLocked(rule.rule_pid);
    }
    m_rules.push_back(rule);
    tableAffected = tableAffected || TableKind(kind);
}

void CNftRedirector::ForgetLocked(const redirect_info& rule, bool& tableAffected) {
    const auto same = [&rule](const redirect_info& kept) { return SameRule(kept, rule); };
    const auto found = std::find_if(m_rules.begin(), m_rules.end(), same);
    if (found == m_rules.end()) return;
    const NftRuleKind kind = ClassifyNftRule(*found, static_cast<int32_t>(getpid()));
    m_rules.erase(found);
    tableAffected = tableAffected || TableKind(kind);
}

std::string CNftRedirector::CgroupForLocked(int32_t pid) {
    const auto known = m_cgroups.find(pid);
    if (known != m_cgroups.end()) return known->second;
    std::string why;
    std::string path = m_options.cgroupOf ? m_options.cgroupOf(pid) : CgroupV2PathOf(pid, why);
    std::string error;
    if (!path.empty() && RunNftCommand(TrialScript({path}), nullptr, &error) != 0) {
        why = "nftables cannot match cgroup " + path + ": " + FirstLine(error);
        path.clear();
    }
    if (path.empty()) {
        DNTRACE(WARN, "Redirector: no-redirect rule for process %d not supported (%s)",
                static_cast<int>(pid), why.empty() ? "no cgroup" : why.c_str());
    }
    m_cgroups[pid] = path;
    return path;
}

int CNftRedirector::Start() {
    std::lock_guard<std::mutex> hold(m_lock);
    if (!m_open) return NGC_ERROR_DISCONNECTED;
    m_started = true;
    m_waitLogged = false;
    m_fastPolls = 0;
    return ApplyLocked();
}

int CNftRedirector::Stop() {
    std::lock_guard<std::mutex> hold(m_lock);
    if (!m_open) return NGC_ERROR_DISCONNECTED;
    m_started = false;
    return ApplyLocked();
}

int CNftRedirector::ClearDnsCache() {
    std::lock_guard<std::mutex> hold(m_lock);
    m_resolved.clear();
    return ApplyLocked();
}

std::list<redirect_info> CNftRedirector::RecordedRules() const {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_rules;
}

bool CNftRedirector::TableInstalled() const {
    std::lock_guard<std::mutex> hold(m_lock);
    return !m_applied.empty();
}

NftBuildInputs CNftRedirector::GatherInputsLocked(bool& waiting) {
    NftBuildInputs inputs;
    inputs.ownPid = static_cast<int32_t>(getpid());
    inputs.passMark = SWG_SOCKET_MARK;
    std::set<std::pair<int, uint16_t>> down;
    for (const redirect_info& rule : m_rules) {
        const NftRuleKind kind = ClassifyNftRule(rule, inputs.ownPid);
        if (kind == NftRuleKind::OtherProcess) {
            inputs.cgroupOfPid[rule.rule_pid] = CgroupForLocked(rule.rule_pid);
        }
        if (kind != NftRuleKind::Divert) continue;
        for (const auto* names : {&rule.exclude_hosts, &rule.include_hosts}) {
            for (const std::string& name : *names) {
                // Resolved when the rules are applied; kept until the rules or the cache go.
                if (m_resolved.count(name) == 0) {
                    m_resolved[name] =
                        m_options.resolve ? m_options.resolve(name) : ResolveNftHostAddresses(name);
                }
                inputs.resolvedNames[name] = m_resolved[name];
            }
        }
        const int family = rule.rule_family;  // a packed field: copied, never referenced
        const std::pair<int, uint16_t> listener{family, ntohs(rule.redirect_port)};
        if (inputs.listening.count(listener) != 0 || down.count(listener) != 0) continue;
        const bool up = m_options.isListening
                            ? m_options.isListening(listener.first, listener.second)
                            : IsLoopbackPortListening(listener.first, listener.second);
        if (up) {
            inputs.listening.insert(listener);
            continue;
        }
        down.insert(listener);
        if (!m_waitLogged) {
            DNTRACE(TRACE, "Redirector: %s diversion waits for a listener on port %d",
                    FamilyName(listener.first), static_cast<int>(listener.second));
        }
    }
    waiting = !down.empty();
    if (waiting) m_waitLogged = true;
    return inputs;
}

// Brings the kernel in line with the recorded rules; nothing is sent when the table would
// not change.
int CNftRedirector::ApplyLocked() {
    std::string desired;
    bool waiting = false;
    if (m_open && m_started) {
        const NftRuleset ruleset = BuildNftRuleset(m_rules, GatherInputsLocked(waiting));
        if (!ruleset.rules.empty()) desired = RenderNftRuleset(ruleset);
    }
    // Wakes the watcher so that it polls the listener at the faster pace.
    if (waiting && !m_waitingForListener) m_wake.notify_all();
    m_waitingForListener = waiting;
    if (desired == m_applied) return 0;
    std::string error;
    const std::string script = desired.empty() ? RenderNftTableRemoval() : desired;
    if (RunNftCommand(script, nullptr, &error) != 0) {
        DNTRACE(ERR, "Redirector: nftables refused the %s: %s",
                desired.empty() ? "removal of the table" : "diversion table",
                FirstLine(error).c_str());
        return EIO;
    }
    if (m_applied.empty() != desired.empty()) {
        DNTRACE(TRACE, "Redirector: table %s %s %s", kNftTableFamily, kNftTableName,
                desired.empty() ? "removed" : "in force");
    }
    m_applied = desired;
    return 0;
}

void CNftRedirector::StopWatcher() {
    {
        std::lock_guard<std::mutex> hold(m_lock);
        m_stopWatcher = true;
    }
    m_wake.notify_all();
    if (!m_watcher.joinable()) return;
    // A callback that closed the plug-in on the watcher's own thread cannot join it.
    if (m_watcher.get_id() == std::this_thread::get_id()) {
        m_watcher.detach();
    } else {
        m_watcher.join();
    }
}

void CNftRedirector::WatchLoop() {
    // The agent's signal handler works on the redirector; run on this thread while it holds
    // m_lock, it would wait for itself.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    std::unique_lock<std::mutex> hold(m_lock);
    while (!m_stopWatcher) {
        const bool fast = m_waitingForListener && m_fastPolls < m_options.listenerPollLimit;
        const auto period =
            std::chrono::milliseconds(fast ? m_options.listenerPollMs : m_options.watchPeriodMs);
        // An early or spurious wake-up only makes the next look come sooner.
        m_wake.wait_for(hold, period);
        if (m_stopWatcher) break;
        if (fast) ++m_fastPolls;
        IKdfApiCB* notify = WatchOnceLocked() ? m_callback : nullptr;
        if (notify == nullptr) continue;
        hold.unlock();
        try {
            notify->OnKdfDisruption();
        } catch (const std::exception& e) {
            DNTRACE(ERR, "Redirector: disruption notice failed: %s", e.what());
        }
        hold.lock();
    }
}

// True when the table vanished under the redirector: the plug-in is then disconnected.
bool CNftRedirector::WatchOnceLocked() {
    if (!m_open) return false;
    if (!m_applied.empty()) {
        const std::string list = std::string("list table ") + kNftTableFamily + " " + kNftTableName;
        if (RunNftCommand(list) != 0) {
            DNTRACE(WARN, "Redirector: table %s %s vanished; diversion is off", kNftTableFamily,
                    kNftTableName);
            // What was in the kernel is gone; the agent closes and opens again.
            m_open = false;
            m_started = false;
            m_applied.clear();
            m_rules.clear();
            return true;
        }
    }
    // Listeners that came or went change the table.
    if (m_started) (void)ApplyLocked();
    return false;
}
