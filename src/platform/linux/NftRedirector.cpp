// SPDX-License-Identifier: Apache-2.0
// The redirector on nftables: recorded rules, the table that enforces them, the watcher.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/linux/NftRedirector.h"

#include <arpa/inet.h>
#include <netdb.h>
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
#include "platform/linux/NftHostFacts.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr uint16_t kTrialPort = 80;
constexpr uint16_t kTrialRedirectPort = 5002;
constexpr char kTrialTable[] = "tsc_swg_trial";

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

// A table of the real shape under another name: one rule of every kind the real one uses.
// Run as a dry run it proves kernel support without changing anything.
std::string TrialScript(bool owned, const std::vector<std::string>& cgroups) {
    NftDivertRule rule;
    rule.port = kTrialPort;
    rule.redirectPort = kTrialRedirectPort;
    NftRuleset trial;
    trial.table = kTrialTable;
    trial.owned = owned;
    trial.passMark = SWG_SOCKET_MARK;
    trial.bypassCgroups = cgroups;
    for (const int family : {AF_INET, AF_INET6}) {
        NftAddressRange everything;
        everything.family = family;
        everything.high.fill(0xFF);
        rule.family = family;
        rule.exclude = {everything};
        rule.inclusive = true;
        rule.include = {everything};
        trial.rules.push_back(rule);
    }
    return RenderNftRuleset(trial);
}

std::string ListTableCommand() {
    return std::string("list table ") + kNftTableFamily + " " + kNftTableName;
}

const char* FamilyName(int family) { return family == AF_INET ? "IPv4" : "IPv6"; }

// A listing of the table without the elements of its sets.
std::string ListingShape(std::string listing) {
    for (size_t at = listing.find("elements = {"); at != std::string::npos;
         at = listing.find("elements = {", at)) {
        const size_t end = listing.find('}', at);
        listing.erase(at, end == std::string::npos ? std::string::npos : end + 1 - at);
    }
    return listing;
}

}  // namespace

CNftRedirector::CNftRedirector(NftRedirectorOptions options)
    : m_options(std::move(options)), m_names(m_options.nameTiming) {
    m_installed.owned = m_options.owned;
}

CNftRedirector::~CNftRedirector() { (void)ClosePlugin(); }

int CNftRedirector::ProbeAccess() {
    std::string error;
    if (RunNftCommand("list tables", nullptr, &error) == 0) return 0;
    DNTRACE(ERR, "Redirector: nftables cannot be used by this process: %s",
            FirstNftLine(error).c_str());
    return EPERM;
}

int CNftRedirector::ProbeSupport(bool& owned) {
    std::string ownedError;
    if (RunNftCommand(TrialScript(true, {}), nullptr, &ownedError, true) == 0) {
        owned = true;
        return 0;
    }
    std::string error;
    if (RunNftCommand(TrialScript(false, {}), nullptr, &error, true) == 0) {
        DNTRACE(WARN,
                "Redirector: the kernel refuses tables owned by the agent (%s); a guardian "
                "process removes the table if the agent dies",
                FirstNftLine(ownedError).c_str());
        owned = false;
        return 0;
    }
    DNTRACE(ERR, "Redirector: nftables cannot build the diversion table: %s",
            FirstNftLine(error).c_str());
    return EOPNOTSUPP;
}

int CNftRedirector::OpenPlugin(IKdfApiCB* callback) {
    {
        std::lock_guard<std::mutex> hold(m_lock);
        if (!m_installed.rules.empty()) {
            // Reopened while open: the table goes, the context stays.
            (void)m_context->Run(RenderNftTableRemoval(m_options.owned));
        }
        std::string why;
        if (!m_context) m_context = CNftContext::Open(why);
        if (!m_context) {
            DNTRACE(ERR, "Redirector: cannot talk to nftables: %s", why.c_str());
            return EIO;
        }
        // A table of that name left by a crashed run of the fallback; an owned one of a
        // dead process is gone already, one of a live process refuses. The companion of this
        // context is kept over a reopen.
        std::string staleScript = RenderNftTableRemoval(false);
        if (!m_keepInstalled) staleScript += RenderNftTableRemoval(false, kNftKeepTableName);
        const NftOutcome stale = m_context->Run(staleScript);
        if (stale.result != 0) {
            DNTRACE(ERR, "Redirector: table %s %s belongs to another process: %s", kNftTableFamily,
                    kNftTableName, FirstNftLine(stale.error).c_str());
            m_context.reset();
            return EPERM;
        }
        if (!m_options.owned && !m_guardian) {
            m_guardian = CNftGuardian::Start(why);
            if (!m_guardian) {
                DNTRACE(WARN,
                        "Redirector: no guardian for the table (%s); after a crash only the "
                        "service's stop step removes it",
                        why.c_str());
            }
        }
        InstallKeepTableLocked();
        ResetLocked();
        m_callback = callback;
        m_open = true;
        if (m_watcher.joinable()) return 0;
        m_stopWatcher = false;
    }
    m_watcher = std::thread([this] { WatchLoop(); });
    DNTRACE(TRACE, "Redirector: opened, table %s %s replaced", kNftTableFamily, kNftTableName);
    return 0;
}

// The companion table lives from the open to the close: a change or removal of the diversion
// table, a backoff, a stop, then never strands the connections that it diverted.
void CNftRedirector::InstallKeepTableLocked() {
    if (m_keepInstalled) return;
    const NftOutcome kept = m_context->Run(RenderNftKeepTable(m_options.owned));
    m_keepInstalled = kept.result == 0;
    if (!m_keepInstalled) {
        DNTRACE(WARN,
                "Redirector: no table %s %s (%s); a change of the diversion may break the "
                "connections it diverted",
                kNftTableFamily, kNftKeepTableName, FirstNftLine(kept.error).c_str());
    }
}

void CNftRedirector::ResetLocked() {
    m_open = false;
    m_holding = false;
    m_started = false;
    m_callback = nullptr;
    m_rules.clear();
    m_names = CNftNameSchedule(m_options.nameTiming);
    m_cgroups.clear();
    m_installed.rules.clear();
    m_kernelListing.clear();
    m_listingKnown = true;
    m_retryApply = false;
    m_disruption = TableCheck::Fine;
    m_lastError.clear();
}

int CNftRedirector::ClosePlugin() {
    {
        std::lock_guard<std::mutex> hold(m_lock);
        if (m_context) {
            const NftOutcome removed =
                m_context->Run(RenderNftTableRemoval(m_options.owned) +
                               RenderNftTableRemoval(m_options.owned, kNftKeepTableName));
            if (removed.result != 0) {
                DNTRACE(ERR, "Redirector: could not remove the table: %s",
                        FirstNftLine(removed.error).c_str());
            }
        }
        // Freeing the context closes its socket: the kernel removes an owned table in any case.
        m_context.reset();
        m_guardian.reset();
        m_keepInstalled = false;
        ResetLocked();
    }
    StopWatcher();
    return 0;
}

int CNftRedirector::Clear(int /*what*/) {
    std::lock_guard<std::mutex> hold(m_lock);
    if (!m_open) return NGC_ERROR_DISCONNECTED;
    m_rules.clear();
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
    if (!tableAffected) return 0;
    UpdateNamesLocked();
    return ApplyLocked();
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

// The names of the redirect rules go to the schedule; new ones are looked up at once.
void CNftRedirector::UpdateNamesLocked() {
    std::set<std::string> names;
    const int32_t ownPid = static_cast<int32_t>(getpid());
    for (const redirect_info& rule : m_rules) {
        if (ClassifyNftRule(rule, ownPid) != NftRuleKind::Divert) continue;
        names.insert(rule.exclude_hosts.begin(), rule.exclude_hosts.end());
        names.insert(rule.include_hosts.begin(), rule.include_hosts.end());
    }
    const auto before = m_names.NextDue();
    m_names.SetNames(names, SteadyClock::now());
    if (m_names.NextDue() != before) m_wake.notify_all();
}

std::string CNftRedirector::CgroupForLocked(int32_t pid) {
    const auto known = m_cgroups.find(pid);
    if (known != m_cgroups.end()) return known->second;
    std::string why;
    std::string path = m_options.cgroupOf ? m_options.cgroupOf(pid) : CgroupV2PathOf(pid, why);
    std::string error;
    if (!path.empty() &&
        RunNftCommand(TrialScript(m_options.owned, {path}), nullptr, &error, true) != 0) {
        why = "nftables cannot match cgroup " + path + ": " + FirstNftLine(error);
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

int CNftRedirector::HoldChanges() {
    std::lock_guard<std::mutex> hold(m_lock);
    if (!m_open) return NGC_ERROR_DISCONNECTED;
    m_holding = true;
    return 0;
}

int CNftRedirector::ApplyHeldChanges() {
    std::lock_guard<std::mutex> hold(m_lock);
    m_holding = false;
    if (!m_open) return NGC_ERROR_DISCONNECTED;
    return ApplyLocked();
}

int CNftRedirector::ClearDnsCache() {
    std::lock_guard<std::mutex> hold(m_lock);
    m_names.DueAll(SteadyClock::now());
    m_wake.notify_all();
    return 0;
}

std::list<redirect_info> CNftRedirector::RecordedRules() const {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_rules;
}

bool CNftRedirector::TableInstalled() const {
    std::lock_guard<std::mutex> hold(m_lock);
    return !m_installed.rules.empty();
}

NftBuildInputs CNftRedirector::GatherInputsLocked(bool& waiting) {
    NftBuildInputs inputs;
    inputs.ownPid = static_cast<int32_t>(getpid());
    inputs.passMark = SWG_SOCKET_MARK;
    inputs.resolvedNames = m_names.Answers();
    std::set<std::pair<int, uint16_t>> down;
    for (const redirect_info& rule : m_rules) {
        const NftRuleKind kind = ClassifyNftRule(rule, inputs.ownPid);
        if (kind == NftRuleKind::OtherProcess) {
            inputs.cgroupOfPid[rule.rule_pid] = CgroupForLocked(rule.rule_pid);
        }
        if (kind != NftRuleKind::Divert) continue;
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

// Brings the kernel in line with the recorded rules: nothing when the table would not
// change, the set elements alone when only they differ, else the whole table in one
// transaction. While changes are held, nothing: ApplyHeldChanges comes.
int CNftRedirector::ApplyLocked() {
    if (m_holding) return 0;
    NftRuleset desired;
    bool waiting = false;
    if (m_open && m_started) desired = BuildNftRuleset(m_rules, GatherInputsLocked(waiting));
    desired.owned = m_options.owned;
    // Wakes the watcher so that it polls the listener at the faster pace.
    if (waiting && !m_waitingForListener) m_wake.notify_all();
    m_waitingForListener = waiting;
    if (!m_context) return NGC_ERROR_DISCONNECTED;

    // m_installed changes only when the kernel took a change, so an equal table means there
    // is nothing to do, also after failures.
    const std::optional<std::string> update = RenderNftSetUpdate(m_installed, desired);
    const std::string script = update ? *update : RenderNftRuleset(desired);
    if (update ? update->empty() : script == RenderNftRuleset(m_installed)) {
        m_retryApply = false;
        return 0;
    }
    if (update) {
        // The listing read back after the update becomes the record: a table changed by
        // another program meanwhile must be noticed first, not adopted.
        const TableCheck check = CheckTableLocked();
        if (check != TableCheck::Fine) {
            m_disruption = check;
            m_wake.notify_all();
            return EIO;
        }
    }
    const NftOutcome outcome = m_context->Run(script);
    if (outcome.result != 0) return FailedApplyLocked(outcome, update.has_value());
    if (m_installed.rules.empty() != desired.rules.empty()) {
        DNTRACE(TRACE, "Redirector: table %s %s %s", kNftTableFamily, kNftTableName,
                desired.rules.empty() ? "removed" : "in force");
    }
    if (m_retryApply) DNTRACE(TRACE, "Redirector: nftables took the table again");
    m_installed = std::move(desired);
    m_retryApply = false;
    m_lastError.clear();
    const std::string before = m_kernelListing;
    const bool knewBefore = m_listingKnown;
    ReadBackLocked();
    // After an update of elements alone, anything else that differs was changed by another
    // program between the check and the read-back.
    if (update && knewBefore && m_listingKnown &&
        ListingShape(m_kernelListing) != ListingShape(before)) {
        m_disruption = TableCheck::Changed;
        m_wake.notify_all();
    }
    return 0;
}

// A refused change leaves the kernel's table as it was (each script is one transaction).
int CNftRedirector::FailedApplyLocked(const NftOutcome& outcome, bool setUpdate) {
    const NftErrorKind kind = ClassifyNftError(outcome.error);
    if (setUpdate && kind == NftErrorKind::NotFound) {
        // The sets went with the table: a disruption, which the watcher reports.
        m_disruption = TableCheck::Vanished;
        m_wake.notify_all();
        return EIO;
    }
    m_retryApply = true;
    const std::string error = FirstNftLine(outcome.error);
    if (error != m_lastError) {
        m_lastError = error;
        if (kind == NftErrorKind::Transient) {
            DNTRACE(WARN, "Redirector: nftables failed for now, trying again: %s", error.c_str());
        } else {
            DNTRACE(ERR, "Redirector: nftables refused the diversion table: %s", error.c_str());
        }
    }
    return kind == NftErrorKind::Transient ? 0 : EIO;
}

// What the kernel holds after a change becomes the record the watcher compares with.
void CNftRedirector::ReadBackLocked() {
    m_kernelListing.clear();
    m_listingKnown = m_installed.rules.empty();
    if (m_listingKnown) return;
    const NftOutcome listed = m_context->Run(ListTableCommand());
    m_listingKnown = listed.result == 0;
    if (m_listingKnown) m_kernelListing = listed.output;
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
    // Termination signals belong to the agent's signal thread; SIGXFSZ stays deliverable, as
    // a file size fault raised on this thread is forwarded from here.
    sigset_t all;
    sigfillset(&all);
    sigdelset(&all, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    std::unique_lock<std::mutex> hold(m_lock);
    while (!m_stopWatcher) {
        const bool fast = m_waitingForListener && m_fastPolls < m_options.listenerPollLimit;
        auto deadline =
            SteadyClock::now() +
            std::chrono::milliseconds(fast ? m_options.listenerPollMs : m_options.watchPeriodMs);
        const auto names = m_open ? m_names.NextDue() : std::nullopt;
        if (names && *names < deadline) deadline = *names;
        // An early or spurious wake-up only makes the next look come sooner.
        if (m_disruption == TableCheck::Fine) m_wake.wait_until(hold, deadline);
        if (m_stopWatcher) break;
        if (fast) ++m_fastPolls;
        const TableCheck check = CheckTableLocked();
        if (check != TableCheck::Fine) {
            IKdfApiCB* notify = DisconnectLocked(check);
            if (notify == nullptr) continue;
            hold.unlock();
            try {
                notify->OnKdfDisruption();
            } catch (const std::exception& e) {
                DNTRACE(ERR, "Redirector: disruption notice failed: %s", e.what());
            }
            hold.lock();
            continue;
        }
        // Listeners that came or went, and changes that failed for now, change the table.
        if (m_started || m_retryApply) (void)ApplyLocked();
        ResolveDueNames(hold);
    }
}

// Compares the kernel's table with the record of the last change. Only a missing table (or
// a part of it) and a different one count; any other failure to look is retried.
CNftRedirector::TableCheck CNftRedirector::CheckTableLocked() {
    if (!m_open) return TableCheck::Fine;
    if (m_disruption != TableCheck::Fine) return m_disruption;
    if (m_installed.rules.empty()) return TableCheck::Fine;
    const NftOutcome listed = m_context->Run(ListTableCommand());
    if (listed.result != 0) {
        if (ClassifyNftError(listed.error) == NftErrorKind::NotFound) return TableCheck::Vanished;
        const std::string error = FirstNftLine(listed.error);
        if (error != m_lastError) {
            m_lastError = error;
            DNTRACE(WARN, "Redirector: could not read the table, trying again: %s", error.c_str());
        }
        return TableCheck::Fine;
    }
    if (!m_listingKnown) {
        m_kernelListing = listed.output;
        m_listingKnown = true;
    }
    return listed.output == m_kernelListing ? TableCheck::Fine : TableCheck::Changed;
}

// The plug-in counts as disconnected; returns the callback to notify, if any.
IKdfApiCB* CNftRedirector::DisconnectLocked(TableCheck why) {
    if (why == TableCheck::Changed) {
        DNTRACE(WARN, "Redirector: table %s %s was changed by another program; diversion is off",
                kNftTableFamily, kNftTableName);
        // Whatever it holds now is not what the agent installed.
        (void)m_context->Run(RenderNftTableRemoval(m_options.owned));
    } else {
        DNTRACE(WARN, "Redirector: table %s %s vanished; diversion is off", kNftTableFamily,
                kNftTableName);
    }
    IKdfApiCB* notify = m_callback;
    // What was in the kernel is gone; the agent closes and opens again.
    ResetLocked();
    return notify;
}

int CNftRedirector::Lookup(const std::string& name, std::vector<NftAddress>& addresses) const {
    if (m_options.lookup) return m_options.lookup(name, m_options.lookupTimeoutMs, addresses);
    addresses = ResolveNftHostAddresses(name);
    return addresses.empty() ? EAI_NONAME : 0;
}

// Looks up the names that are due, one by one, without the lock: the agent's calls never wait
// for a resolver. Changed answers go to the sets.
void CNftRedirector::ResolveDueNames(std::unique_lock<std::mutex>& hold) {
    bool changed = false;
    for (const std::string& name : m_names.Due(SteadyClock::now())) {
        std::vector<NftAddress> addresses;
        hold.unlock();
        const int result = Lookup(name, addresses);
        hold.lock();
        if (m_stopWatcher || !m_open) return;
        const unsigned int failuresBefore = m_names.Failures(name);
        if (m_names.Record(name, result == 0, addresses, SteadyClock::now())) changed = true;
        if (result != 0 || addresses.empty()) {
            if (failuresBefore == 0) {
                DNTRACE(WARN, "Redirector: host name %s does not resolve (%d); trying again",
                        name.c_str(), result);
            }
        } else if (failuresBefore != 0) {
            DNTRACE(TRACE, "Redirector: host name %s resolves again", name.c_str());
        }
    }
    if (changed && m_started) (void)ApplyLocked();
}

int CreateNftRedirector(ISocketRedirectorApi** out, NftHostLookup lookup) {
    if (out == nullptr) return EINVAL;
    // Without CAP_NET_ADMIN or nftables there is no redirector: the agent runs undiverted.
    const int access = CNftRedirector::ProbeAccess();
    if (access != 0) return access;
    NftRedirectorOptions options;
    const int support = CNftRedirector::ProbeSupport(options.owned);
    if (support != 0) return support;
    options.lookup = std::move(lookup);
    CNftRedirector* redirector = new (std::nothrow) CNftRedirector(std::move(options));
    if (redirector == nullptr) return ENOMEM;
    *out = redirector;
    return 0;
}
