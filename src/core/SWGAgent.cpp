// SPDX-License-Identifier: Apache-2.0
// The agent object's lifecycle: start, main loop, stop, signals.
#include "core/SWGAgent.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <new>
#include <string>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/permissions.hpp>
#include <boost/interprocess/sync/named_semaphore.hpp>
#include <boost/thread/thread.hpp>

#include "core/MessageLoop.h"
#include "core/OsEvents.h"
#include "foundation/DirectSyslog.h"
#include "foundation/GlobalConst.h"
#include "foundation/GlobalUtils.h"
#include "foundation/SSFileTrace.h"
#include "foundation/Trace.h"
#include "upstream/PublicProxyManager.h"

namespace {
CSWGAgent g_agent;

constexpr rlim_t kOpenFilesSoftLimit = 0x2000;
constexpr unsigned long kAddrChangeWindowMs = 5000;
const char kStopRule[] = "-----------------------------------------------------";  // 53

// Drives CMessageLoop with the agent's two events and the real clock.
class CAgentLoopHost : public IMessageLoopHost {
public:
    explicit CAgentLoopHost(CSWGAgent& agent) : m_agent(agent) {}

    long WaitForEvents(unsigned long timeoutMs) override {
        boost_ext::condition_event* events[2] = {&m_agent.m_messageEvent, &g_IPAddrChangeEvent};
        return boost_ext::condition_event_group::WaitForMultipleObjects(2, events, false,
                                                                        timeoutMs);
    }
    boost::posix_time::ptime Now() override {
        return boost::posix_time::microsec_clock::universal_time();
    }
    void TakeActionOnAddrChange() override { m_agent.takeActionOnAddrChange(); }
    void ResetAddrChangeEvent() override { g_IPAddrChangeEvent.reset(); }
    bool DrainMessages() override {
        bool quit = false;
        for (;;) {
            int id = 0;
            {
                boost::recursive_mutex::scoped_lock lock(m_agent.m_messageLock);
                if (m_agent.m_messages.empty()) break;
                id = m_agent.m_messages.front();
                m_agent.m_messages.pop_front();
            }
            if (id == MSG_ID_QUIT) {
                quit = true;
                DNTRACE(TRACE, "CSWGAgent::RunMessageLoop MSG_ID_QUIT");
            }
        }
        return quit;
    }

private:
    CSWGAgent& m_agent;
};

void AdjustOpenFilesLimit() {
    // Zeroed first: a failed read then writes a hard limit of 0, and the write fails.
    struct rlimit limits {};
    if (getrlimit(RLIMIT_NOFILE, &limits) == 0) {
        DNTRACE(TRACE, "SWG : Get RLIMIT_NOFILE soft=%d, hard=%d\n",
                static_cast<int>(limits.rlim_cur), static_cast<int>(limits.rlim_max));
    } else {
        const int error = errno;
        DNTRACE(TRACE, "SWG: Error to get RLIMIT_NOFILE = %d\n", error);
    }
    limits.rlim_cur = kOpenFilesSoftLimit;
    if (setrlimit(RLIMIT_NOFILE, &limits) == 0) {
        DNTRACE(TRACE, "SWG: Set RLIMIT_NOFILE soft=%d, hard=%d\n",
                static_cast<int>(limits.rlim_cur), static_cast<int>(limits.rlim_max));
    } else {
        const int error = errno;
        DNTRACE(TRACE, "SWG: Error to set RLIMIT_NOFILE = %d\n", error);
    }
}
}  // namespace

CSWGAgent* g_pSWGAgent = &g_agent;
int g_nAPP_MODE = 0;
boost_ext::condition_event ServiceEvent(false);

CSWGAgent::CSWGAgent() = default;
CSWGAgent::~CSWGAgent() = default;

long CSWGAgent::Init() {
    if (!LoadOrgInfo(m_orgInfo)) return SWG_E_FAIL;
    // Power and console-user events are not heard on this platform; the routing
    // notices that matter come from ListenForOSEvents.
    AdjustOpenFilesLimit();
    return SWG_S_OK;
}

bool CSWGAgent::InitializeLogging(const char* logFile) {
    if (g_pTraceObject != nullptr) return true;
    CSSFileTrace* trace = new (std::nothrow) CSSFileTrace();
    if (trace == nullptr) {
        SwgSyslog(LOG_ERR, "SWG : Failed to initialize logging engine, System Out Of Memory\n\n");
        return false;
    }
    g_pTraceObject = trace;
    const unsigned int mask = GetOrgInfo().bDefaultLogLevel ? TRACE_MASK_DEFAULT : TRACE_MASK_DEBUG;
    const std::string directory = GetExecutableDirectory();
    const long result = trace->Initialize(g_szAPP_PROCESS_NAME, directory.c_str(), logFile,
                                          g_nAPP_MODE, mask, true, false, 10, 10000, 100, 1, 0, 60);
    if (result == 0) return true;
    SwgSyslog(LOG_ERR, "\n%s: Failed to initialise trace object %s. Error: %ld", g_szPRODUCT_NAME,
              logFile, result);
    g_pTraceObject = nullptr;
    delete trace;
    return false;
}

void CSWGAgent::PostMessage(unsigned long id) {
    boost::recursive_mutex::scoped_lock lock(m_messageLock);
    m_messages.push_back(static_cast<int>(id));
    m_messageEvent.notify();
}

long CSWGAgent::UnInit() { return 0; }

void CSWGAgent::LogEventEx(const char* text, unsigned short /*unused*/) {
    if (text != nullptr) SwgSyslog(LOG_ERR, "%s", text);
}

bool CSWGAgent::IsIPv6Installed() {
    const int probe = socket(AF_INET6, SOCK_STREAM, 0);
    if (probe < 0) return false;
    close(probe);
    return true;
}

void CSWGAgent::RunMessageLoop() {
    // Opened and closed at once: a second instance is not refused.
    try {
        boost::interprocess::permissions perms(0644);
        boost::interprocess::named_semaphore semaphore(boost::interprocess::open_or_create,
                                                       g_szSERVICE_MUTEX_NAME, 1, perms);
    } catch (const boost::interprocess::interprocess_exception& e) {
        DNTRACE(WARN, "CSWGAgent: named semaphore %s unavailable: %s", g_szSERVICE_MUTEX_NAME,
                e.what());
    }
    DNTRACE(TRACE, "CSWGAgent: power and console user events are not monitored on this platform");

    StartOsEventThreads();

    long error = 0;
    // A stop asked for before this point starts nothing; the quit message is queued.
    if (!StopRequestedDuringStart()) {
        CreateListeners(error);
        if (error == 0) error = StartComponents();
    }
    if (error != 0) {
        DNTRACE(ERR, "Failed to start SWG Service, will terminate now. Error Code : %ld", error);
    } else {
        RunLoop();
    }
    RunStopSequence();
}

bool CSWGAgent::StopRequestedDuringStart() {
    if (!m_bStopRequested) return false;
    DNTRACE(TRACE, "CSWGAgent: stop requested during start-up, starting no further");
    return true;
}

void CSWGAgent::RunLoop() {
    CAgentLoopHost host(*this);
    CMessageLoop loop(host, kAddrChangeWindowMs);
    loop.Run();
}

void CSWGAgent::RunStopSequence() {
    g_bStopIPAddrChangeThread = true;
    StopConfigMonitor();
    StopComponents();
    ServiceEvent.notify();
    boost::interprocess::named_semaphore::remove(g_szSERVICE_MUTEX_NAME);
    DNTRACE(TRACE, "%s", kStopRule);
    DNTRACE(
        TRACE, "Service stopped. %s",
        boost::posix_time::to_simple_string(boost::posix_time::second_clock::local_time()).c_str());
    DNTRACE(TRACE, "%s", kStopRule);
}

int CSWGAgent::StartComponents() {
    if (m_serviceState != Stopped) {
        DNTRACE(TRACE, "CSWGAgent::StartComponents Service not in stopped state - ignore");
        return 0;
    }
    DNTRACE(THREAD, "CSWGAgent::StartComponents");
    m_serviceState = Starting;

    // A missing hash manager is reported inside and does not stop the start.
    (void)InitializeHashManagerInterface();
    // A stop that has come ends the start between steps (its signal queued the quit
    // message); the stop order then undoes what was started, from the state Starting.
    if (StopRequestedDuringStart()) return 0;
    // The redirector is started before the listeners exist; it holds its rules back until
    // a listener listens, so no connection is diverted to a closed port.
    (void)StartKDF(0);
    if (StopRequestedDuringStart()) return 0;

    const long statsResult = StartStatistics();
    if (statsResult != 0) return static_cast<int>(statsResult);

    {
        boost::recursive_mutex::scoped_lock lock(m_orgInfoLock);
        const long commResult = StartCommunicator();
        if (commResult != 0) {
            DNTRACE(ERR, "Failed to start server communicator. Code : %d",
                    static_cast<int>(commResult));
            return static_cast<int>(commResult);
        }
    }

    ObtainPublicProxySettings();
    UpdateFedRampMode();
    if (StopRequestedDuringStart()) return 0;

    for (const bool ipv6 : {false, true}) {
        if (ipv6 && !m_bIPv6Present) break;
        const char* family = ipv6 ? "IPv6" : "IPv4";
        DNTRACE(TRACE, "Starting %s Listener...", family);
        const int listenerResult = StartListener(ipv6);
        if (listenerResult != 0) {
            if (listenerResult == 1) {
                DNTRACE(ERR, "Error : Failed to initialize %s Listener", family);
            } else {
                DNTRACE(ERR, "Error : Failed to start %s Listener", family);
            }
            DNTRACE(ERR, "Error : Thus call CloseRedirectorInterface");
            StopRedirectorRetries();
            CloseRedirectorInterface(0);
            ReleaseHashManager();
            return static_cast<int>(SWG_E_FAIL);
        }
    }

    (void)checkInterfaceChanges();
    if (StopRequestedDuringStart()) return 0;

    m_serviceState = Running;
    DNTRACE(TRACE, "Service started successfully");
    StartConfigMonitor();
    DNTRACE(THREAD, "CSWGAgent::StartComponents done");
    return 0;
}

void CSWGAgent::StopComponents() {
    m_stopProgress = 1;
    if (m_serviceState == Stopping || m_serviceState == Stopped) return;
    DNTRACE(TRACE, "Stopping components...");
    m_serviceState = Stopping;

    // Diversion ends first, while the listeners still serve what is in flight.
    StopRedirectorRetries();
    CloseRedirectorInterface(0);
    StatsEndCollecting();
    SendSWGState("unprotected", SWG_STATE_UPDATE_FORCED);
    m_serviceState = Stopped;
    m_stopProgress += 2;

    // Gives back the reference the start took: the holder's release at the end of this
    // function, after the listeners, takes the manager, its credentials and its key away.
    CSmartPtrInstance<PublicProxyManager> proxyManager(
        PublicProxyManager::AcquireSingletonInstance());
    PublicProxyManager::ReleaseSingletonInstance(proxyManager.get());

    m_stopProgress += 1;
    if (m_pIPv4Listener != nullptr) {
        DNTRACE(TRACE, "Stopping IPv4 Listener...");
        StopListener(false);
        DNTRACE(TRACE, "IPv4 Listener stopped");
    }
    m_stopProgress += 1;
    if (m_pIPv6Listener != nullptr) {
        DNTRACE(TRACE, "Stopping IPv6 Listener...");
        StopListener(true);
        DNTRACE(TRACE, "IPv6 Listener stopped");
    }
    m_stopProgress += 2;
    ReleaseHashManager();
    m_stopProgress += 1;
    boost::this_thread::sleep_for(boost::chrono::milliseconds(100));
}

void TerminationHandler(int signal) {
    CSWGAgent* agent = g_pSWGAgent;
    const AgentRunState state = agent->m_serviceState;
    if (state == Starting || state == Running) {
        DNTRACE(TRACE,
                "TerminationHandler with signal %d, posting QUIT message to mobile connector",
                signal);
        // Set first: the start order stops at its next step, even while the close below
        // waits for a redirector start to finish.
        agent->m_bStopRequested = true;
        // A start still retrying the redirector gives up its lock instead of holding the close.
        agent->StopRedirectorRetries();
        agent->CloseRedirectorInterface(0);
        agent->PostMessage(MSG_ID_QUIT);
    } else if (state == Stopped && agent->m_stopProgress == 0) {
        // The start order has not begun: it will not, and the main loop quits at once.
        DNTRACE(TRACE, "TerminationHandler with signal %d during start-up, stopping once it allows",
                signal);
        agent->m_bStopRequested = true;
        agent->PostMessage(MSG_ID_QUIT);
    } else {
        DNTRACE(TRACE, "TerminationHandler with signal %d but service not running", signal);
    }
}

namespace {
// Signals sent from outside the process (a supervisor, a terminal, a resource limit).
// They are blocked in every thread and taken by one thread with sigwait, so that
// TerminationHandler runs in thread context: it takes locks and writes to syslog, which a
// handler that interrupts a thread inside syslog or holding those locks would deadlock on.
// Faults raised by the process itself (SIGILL, SIGABRT, SIGFPE, SIGSYS) cannot be taken
// that way and keep the handler installed by signal().
const int kExternalSignals[] = {SIGHUP,  SIGINT,  SIGQUIT,   SIGTERM,
                                SIGXCPU, SIGXFSZ, SIGVTALRM, SIGPROF};

pthread_t g_signalThread;

void SignalThreadBody(sigset_t signals) {
    for (;;) {
        int signal = 0;
        if (sigwait(&signals, &signal) == 0) TerminationHandler(signal);
    }
}

// SIGXFSZ also comes from the process itself: a write past RLIMIT_FSIZE raises it on the
// writing thread only, where sigwait on another thread never sees it. So every thread but
// the signal thread leaves it unblocked, and this handler passes it on (pthread_kill is
// async-signal-safe).
void ForwardToSignalThread(int signal) { (void)pthread_kill(g_signalThread, signal); }
}  // namespace

void InstallSignalTable() {
    // In the order of their numbers; SIGKILL is asked for although it cannot be caught.
    struct Entry {
        int signal;
        bool ignore;
    };
    static const Entry table[] = {
        {SIGHUP, false},  {SIGINT, false},  {SIGQUIT, false},   {SIGILL, false},
        {SIGABRT, false}, {SIGFPE, false},  {SIGKILL, false},   {SIGSYS, false},
        {SIGPIPE, true},  {SIGALRM, true},  {SIGTERM, false},   {SIGURG, true},
        {SIGXCPU, false}, {SIGXFSZ, false}, {SIGVTALRM, false}, {SIGPROF, false},
    };
    for (const Entry& entry : table) {
        (void)std::signal(entry.signal, entry.ignore ? SIG_IGN : TerminationHandler);
    }

    // Blocked before any other thread exists, so every thread inherits the mask.
    sigset_t external;
    sigemptyset(&external);
    for (const int signal : kExternalSignals) sigaddset(&external, signal);
    pthread_sigmask(SIG_BLOCK, &external, nullptr);
    boost::thread signalThread(&SignalThreadBody, external);
    g_signalThread = signalThread.native_handle();
    signalThread.detach();

    // Threads started from here on inherit SIGXFSZ unblocked; the signal thread keeps it
    // blocked and takes what the forwarder sends it.
    (void)std::signal(SIGXFSZ, ForwardToSignalThread);
    sigset_t fileSize;
    sigemptyset(&fileSize);
    sigaddset(&fileSize, SIGXFSZ);
    pthread_sigmask(SIG_UNBLOCK, &fileSize, nullptr);
}
