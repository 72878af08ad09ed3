// SPDX-License-Identifier: Apache-2.0
// CDnConnectionThread: the job of one diverted connection, from its session record to its close.
#include "proxy/ConnectionThread.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <stdexcept>

#include <boost/bind/bind.hpp>
#include <boost/function.hpp>

#include "core/SWGAgent.h"
#include "foundation/GlobalConst.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Trace.h"
#include "platform/ProcessInfo.h"
#include "platform/SocketMark.h"
#include "proxy/DnSocket.h"
#include "proxy/ListenThread.h"
#include "proxy/SessionRecord.h"
#include "proxy/SocketPair.h"

std::atomic<std::uint16_t> CDnConnectionThread::sm_usNextIPIndex{0};
std::atomic<std::uint16_t> CDnConnectionThread::sm_usNextIPV6Index{0};

namespace {

constexpr int kRecordSize = static_cast<int>(sizeof(ngc_session_info));
constexpr std::size_t kHostNamesKept = 767;
constexpr std::size_t kProcessPathSize = 2048;
constexpr unsigned long kRetryPauseMs = 1000;
// A record that names the agent's own listener: the job ends before anything is connected.
constexpr long kLoopCode = ELOOP;
// The job's end when the pool closed it just as it reached the relay.
constexpr long kClosedByPoolCode = ECANCELED;
constexpr std::int64_t kClosedBeforeRelay = -1;

std::int64_t SteadyNow() {
    const std::int64_t now = std::chrono::steady_clock::now().time_since_epoch().count();
    return now > 0 ? now : 1;
}

// A rule as it stands before anything is set. Field by field: a temporary redirect_info
// would put its lists at a misaligned address.
void ResetRule(redirect_info& rule) {
    rule.rule_action = 0;
    rule.rule_op = 2;
    rule.rule_class = 1;
    rule.rule_pid = -1;
    rule.peer_port = htons(80);
    rule.redirect_port = htons(5001);
    rule.rule_family = AF_INET;
    rule.rule_protocol = IPPROTO_TCP;
    rule.rule_flags = 0;
    rule.reserved1 = 0;
    rule.reserved2 = 0;
    std::memset(rule.reserved_addr, 0, sizeof(rule.reserved_addr));
    rule.rule_reserved_id = -1;
    rule.rule_excluded_pid = 0;
    rule.include_addrs.clear();
    rule.exclude_addrs.clear();
    rule.exclude_hosts.clear();
    rule.include_hosts.clear();
}

}  // namespace

CDnConnectionThread::CDnConnectionThread() {
    thread_name = "CDnConnectionThread";
    ResetRule(m_noRedirectRule);
}

CDnConnectionThread::~CDnConnectionThread() {
    if (m_isRunning) Kill();
    // The job uses this object until it returns; join before the members go.
    CDnThread::Wait();
    DeleteSockets();
}

// ---- lifecycle ---------------------------------------------------------------------------

bool CDnConnectionThread::Initialize() {
    if (!CDnEventThread::Initialize()) {
        DNTRACE(ERR, "Connection : Failed to initialize low level object");
        return false;
    }
    thread_name = "CDnConnectionThread";
    ResetDefaults();
    return true;
}

bool CDnConnectionThread::Deinitialize() {
    // A thread whose loop has ended may still be leaving KickIt: join it before the object
    // can be deleted.
    if (exit_requested || work_state == kEnded) CDnThread::Wait();
    CDnEventThread::Deinitialize();
    DeleteSockets();
    ResetDefaults();
    return true;
}

long CDnConnectionThread::StartThread() {
    try {
        return CDnEventThread::StartThread();
    } catch (const boost::thread_resource_error& e) {
        const int code = e.code().value();
        DNTRACE(ERR, "Connection : Failed to start thread. Error Code : %d", code);
        return code != 0 ? code : SWG_E_FAIL;
    } catch (...) {
        DNTRACE(ERR, "Connection : Failed to start thread. Error Code : %d",
                static_cast<int>(SWG_E_FAIL));
        return SWG_E_FAIL;
    }
}

bool CDnConnectionThread::Kill() {
    CloseKdfConnection();
    return CDnEventThread::Kill();
}

long CDnConnectionThread::Wait() { return CDnThread::Wait(); }

long CDnConnectionThread::Start(boost_ext::condition_event& done, CDnVSocket* socket,
                                CDnListenThread* listener, bool ipv6, bool force) {
    {
        std::lock_guard<std::mutex> hold(m_socketLock);
        delete m_pKdfSocket;
        delete m_pExternalSocket;
        m_pExternalSocket = nullptr;
        m_pKdfSocket = socket;
    }
    m_pListener = listener;
    m_bIPv6 = ipv6;
    m_beforeRelaySince = SteadyNow();
    DNTRACE(TRACE_OFF, "Connection Thread - starting base thread");
    return CDnEventThread::Start(done, force);
}

void CDnConnectionThread::ResetDefaults() {
    m_host.clear();
    CMode = 0;
    TMode = 0;
    m_statsConnMode = 2;
}

void CDnConnectionThread::DeleteSockets() {
    std::lock_guard<std::mutex> hold(m_socketLock);
    delete m_pKdfSocket;
    delete m_pExternalSocket;
    m_pKdfSocket = nullptr;
    m_pExternalSocket = nullptr;
}

void CDnConnectionThread::DeleteExternalSocket() {
    std::lock_guard<std::mutex> hold(m_socketLock);
    delete m_pExternalSocket;
    m_pExternalSocket = nullptr;
}

// ---- the job -------------------------------------------------------------------------------

long CDnConnectionThread::ProcessEvent() {
    SetLocalNoDelay();
    PrepareSessionRecord();
    const long code = HandleConnection();
    if (code == 0 && !m_bFailureReported)
        g_pSWGAgent->SendSWGState("protected", SWG_STATE_UPDATE_NORMAL);
    m_bFailureReported = false;
    CloseConnection();
    (void)RemoveCurrentNoRedirectKdfException();
    EndJob();
    return code;
}

void CDnConnectionThread::EndJob() {
    const bool closedByPool = m_beforeRelaySince.exchange(0) == kClosedBeforeRelay;
    const bool outgoingTimedOut = m_pExternalSocket != nullptr && m_pExternalSocket->TimedOut();
    if (closedByPool) {
        DNTRACE(WARN, "Connection : Closed before the relay to keep threads for other clients, %s",
                FlowText().c_str());
    } else if (outgoingTimedOut || (m_pKdfSocket != nullptr && m_pKdfSocket->TimedOut())) {
        const char* what = !outgoingTimedOut ? m_clientWait
                           : TMode != 0      ? "gateway's answer"
                                             : "destination to take the request";
        DNTRACE(WARN, "Connection : Timed out waiting for the %s, closed %s", what,
                FlowText().c_str());
    }
    // The block and the line buffers would otherwise stay with the idle thread.
    m_headers.Reset();
    if (m_pKdfSocket != nullptr) m_pKdfSocket->ResetBuffer();
    if (m_pExternalSocket != nullptr) m_pExternalSocket->ResetBuffer();
}

bool CDnConnectionThread::CloseBeforeRelay(std::int64_t since) {
    std::int64_t expected = since;
    if (since <= 0 || !m_beforeRelaySince.compare_exchange_strong(expected, kClosedBeforeRelay))
        return false;
    Kill();
    return true;
}

bool CDnConnectionThread::ReachRelay() {
    std::int64_t since = m_beforeRelaySince.load();
    if (since == kClosedBeforeRelay || !m_beforeRelaySince.compare_exchange_strong(since, 0))
        return false;
    if (m_pKdfSocket != nullptr) m_pKdfSocket->ClearDeadline();
    if (m_pExternalSocket != nullptr) m_pExternalSocket->ClearDeadline();
    return true;
}

void CDnConnectionThread::StartWait(CDnVSocket* socket, int ms) {
    if (socket != nullptr)
        socket->SetDeadline(std::chrono::steady_clock::now() + std::chrono::milliseconds(ms));
}

std::string CDnConnectionThread::FlowText() const {
    sockaddr_storage target{};
    (void)OriginalTarget(target, m_bIPv6);
    return m_processName + "(" + std::to_string(m_pid) + ") -> " +
           SockaddrToAddress(reinterpret_cast<const sockaddr*>(&target)) + ":" +
           std::to_string(ntohs(m_origDstPort));
}

void CDnConnectionThread::SetLocalNoDelay() {
    if (m_pKdfSocket == nullptr) return;
    const int on = 1;
    m_pKdfSocket->SetSockOptions(IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on),
                                 sizeof(on));
}

void CDnConnectionThread::PrepareSessionRecord() {
    const int fd = m_pKdfSocket != nullptr ? m_pKdfSocket->GetSocket() : -1;
    if (fd == -1) return;
    ngc_session_info record;
    if (!MakeDivertedSessionRecord(fd, m_bIPv6, record)) return;
    m_pKdfSocket->SetReceivePrefix(reinterpret_cast<const char*>(&record), kRecordSize);
    DNTRACE(LISTEN, "Connection : Redirected connection of process %d, record made on accept",
            static_cast<int>(record.process_id));
}

long CDnConnectionThread::HandleConnection() {
    long code = 0;
    try {
        ResetJobState();
        m_clientWait = "session record";
        StartWait(m_pKdfSocket, m_clientWaitMs);
        code = ReadSessionRecord();
        if (code != 0) return code;
        if (IsLoopToListener()) return kLoopCode;
        ResetForJob();

        code = SelectInitialMode();
        if (code != 0) {
            DNTRACE(ERR, "Connection : Failed to select modes. Code : %d", static_cast<int>(code));
            return code;
        }
        if (ExitRequested()) return 0;

        const bool backedOff = ApplyBackoff();
        if (!backedOff) {
            if (TMode == 2) {
                TMode = 0;
                DNTRACE(TRACE,
                        "Connection : Tunnel type is plain and request is via proxy, bypassing "
                        "it. CMode : %d TMode : %d",
                        CMode, TMode);
            }
            if (CMode == 2) {
                m_clientWait = "header block";
                code = ReadHttpHeaders();
                if (code != 0) {
                    DNTRACE(ERR, "Connection : Failed to read http headers");
                    throw static_cast<unsigned int>(code);
                }
                if (ExitRequested()) return 0;
            }
            if (CMode != 0) SetupHost();
            if (m_bIPv6 && TMode != 0) ChooseGatewayFamily();
        }
        if (g_pSWGAgent->IsCaptivePortalMode()) {
            TMode = 0;
            DNTRACE(TRACE,
                    "Connection : CP detected already. Bypassing connection (%s) [CMode : %d "
                    "TMode : %d].",
                    m_processName.c_str(), CMode, TMode);
        }

        // From here the client is only written to: the refusal page, the gateway's answer.
        m_clientWait = "client to take the answer";
        StartWait(m_pKdfSocket, m_clientWaitMs);
        code = ConnectAndExchange();
        if (code != 0) return code;
        if (exit_requested) return 0;  // logged where it was seen
        if (!ReachRelay()) return kClosedByPoolCode;

        if (!backedOff) CountConnection();
        if (TMode != 0) g_pSWGAgent->SetCaptivePortalMode(false);
        code = BridgeConnections();
        m_statsConnMode = 2;
        m_bBypassed = false;
        return code;
    } catch (unsigned int thrown) {
        DNTRACE(ERR, "Connection : Caught exception. Code : %d", static_cast<int>(thrown));
        m_bBypassed = false;
        return static_cast<long>(thrown);
    } catch (...) {
        DNTRACE(ERR, "Connection : Caught unknown exception");
        return code;
    }
}

bool CDnConnectionThread::ExitRequested() {
    if (!exit_requested) return false;
    DNTRACE(BRIDGE, "Connection : Exit event set, exiting from HandleConnection ...");
    return true;
}

long CDnConnectionThread::ReadSessionRecord() {
    ngc_session_info record;
    std::memset(&record, 0, sizeof(record));
    m_pid = -1;
    char* const bytes = reinterpret_cast<char*>(&record);
    // A -1 from Recv takes one off the count and the loop reads on. A close, or a count
    // that turns negative, leaves no record: such a job must not go on with a destination
    // it never read. A wait that ran out is logged when the job ends.
    int count = 0;
    while (count < kRecordSize) {
        const int received = m_pKdfSocket->Recv(bytes + count, kRecordSize - count, 0);
        if (received == -1 && m_pKdfSocket->TimedOut()) return ETIMEDOUT;
        if (received == 0) break;
        if (received > 0) DNTRACE(TRACE_OFF, "Connection : Recv received %d bytes", received);
        count += received;
        if (count < 0) break;
    }
    if (count != kRecordSize) {
        DNTRACE(LISTEN, "Connection : Failed to read ngc_session_info from socket");
        std::lock_guard<std::mutex> hold(m_socketLock);
        (void)m_pKdfSocket->CloseSocket();
        return 1;
    }

    if (!m_bIPv6) {
        std::memcpy(&m_origDstV4, record.orig_dst.raw + 4, sizeof(m_origDstV4));
        m_origDstPort = record.orig_dst.v4.sin_port;
        const unsigned char* a = record.orig_dst.raw + 4;
        DNTRACE(LISTEN, "Connection: orig dst_addr=%d.%d.%d.%d and dst_port=%d from kdf", a[0],
                a[1], a[2], a[3], ntohs(m_origDstPort));
    } else {
        std::memcpy(m_origDstV6, &record.orig_dst.v6.sin6_addr, sizeof(m_origDstV6));
        m_origDstPort = record.orig_dst.v6.sin6_port;
    }
    std::memset(m_hostNames, 0, sizeof(m_hostNames));
    std::memcpy(m_hostNames, record.host_names, strnlen(record.host_names, kHostNamesKept));

    DNTRACE(LISTEN, "Connection : Hostnames from KDF are %s", m_hostNames);
    m_pid = record.process_id;
    m_processName = getProcessName(static_cast<unsigned int>(m_pid));
    return 0;
}

bool CDnConnectionThread::IsLoopToListener() {
    if (m_pListener == nullptr) return false;
    sockaddr_storage target{};
    (void)OriginalTarget(target, m_bIPv6);
    if (!IsListenerDestination(target, m_pListener->ListenPort())) return false;
    DNTRACE(WARN,
            "Connection : Original destination is the agent's own listener (port %d), closing "
            "the looped connection of process %d",
            static_cast<int>(m_pListener->ListenPort()), static_cast<int>(m_pid));
    std::lock_guard<std::mutex> hold(m_socketLock);
    (void)m_pKdfSocket->CloseSocket();
    return true;
}

void CDnConnectionThread::ResetJobState() {
    m_origDstV4 = 0;
    std::memset(m_origDstV6, 0, sizeof(m_origDstV6));
    m_origDstPort = 0;
    std::memset(m_hostNames, 0, sizeof(m_hostNames));
    m_pid = -1;
    m_processName.clear();
    m_bIPv6ViaIPv4 = false;
    m_bBypassed = false;
    m_bFailureReported = false;
    m_statsConnMode = 2;
    ResetDefaults();
    m_headers.Reset();
    m_proxyInfo = LOCAL_PROXY_INFO();
}

void CDnConnectionThread::ResetForJob() {
    CMode = 0;
    TMode = 0;
    m_headers.Reset();
    m_host.clear();
    if (g_pSWGAgent->IsCaptivePortalMode()) g_pSWGAgent->DetectCaptivePortalPresence(5);
    m_proxyInfo = LOCAL_PROXY_INFO();
}

bool CDnConnectionThread::ApplyBackoff() {
    bool backedOff = false;
    {
        // The flag's writer holds m_orgInfoLock; reading under the same lock keeps the
        // reader in step with it.
        boost::recursive_mutex::scoped_lock hold(g_pSWGAgent->m_orgInfoLock);
        backedOff = g_pSWGAgent->m_bBackedOff;
    }
    if (backedOff) {
        CMode = 0;
        TMode = 0;
        DNTRACE(BRIDGE, "Connection : Trusted network detected. CMode : %d TMode : %d", CMode,
                TMode);
    }
    return backedOff;
}

void CDnConnectionThread::ChooseGatewayFamily() {
    const bool ipv6Enabled = g_pSWGAgent->GetOrgInfo().bIPv6Enabled;
    if (!ipv6Enabled || !g_pSWGAgent->GetAnycastV6Available()) {
        m_bIPv6 = false;
    } else if (IsIPAddress(g_pSWGAgent->GetSWGProxyName(true))) {
        m_bIPv6 = false;
    }
    m_bIPv6ViaIPv4 = !m_bIPv6;
    TMode = 1;
}

long CDnConnectionThread::ConnectAndExchange() {
    bool retry = true;
    for (;;) {
        StartSetConnectTime();
        const long code = GetExternalConnection();
        if (ExitRequested()) return 0;
        if (code != 0 && retry) {
            DNTRACE(ERR, "Connection : Failed to connect externally. Code : %d, retry only once...",
                    static_cast<int>(code));
            DeleteExternalSocket();
            if (!PauseBeforeRetry()) return 0;
            retry = false;
            continue;
        }
        if (code != 0) {
            DNTRACE(ERR, "Connection : Failed to connect externally. Code : %d",
                    static_cast<int>(code));
            if (!OnConnectionFailure(FAILURE_CONNECT)) return code;
            if (ExitRequested()) return 0;
        }
        StartWait(m_pExternalSocket, m_outgoingWaitMs);

        const bool failOpen = g_pSWGAgent->GetOrgInfo().bFailOpen;
        bool again = false;
        if (CMode == 1 && TMode != 0) {
            again = TunnelThroughGateway(failOpen);
        } else if (CMode == 2) {
            again = SendHeaderBlock(failOpen);
        }
        if (!again) return 0;
        retry = false;
    }
}

bool CDnConnectionThread::PauseBeforeRetry() {
    // The pause ends early when the thread is told to stop.
    boost_ext::condition_event* exitOnly[1] = {&exit_event};
    (void)boost_ext::condition_event_group::WaitForMultipleObjects(1, exitOnly, false,
                                                                   kRetryPauseMs);
    return !ExitRequested();
}

void CDnConnectionThread::CountConnection() {
    if (TMode == 0) {
        m_bBypassed = true;
        m_statsConnMode = 1;
        g_pSWGAgent->StatsIncrementTotalBypassedHostConnections();
        return;
    }
    m_statsConnMode = 0;
    if (CMode == 1) g_pSWGAgent->StatsIncrementTotalHTTPSConnections();
    if (CMode == 2) g_pSWGAgent->StatsIncrementTotalHTTPConnections();
}

// ---- outgoing side -------------------------------------------------------------------------

socklen_t CDnConnectionThread::OriginalTarget(sockaddr_storage& target, bool ipv6) const {
    target = sockaddr_storage{};
    if (!ipv6) {
        auto& in4 = reinterpret_cast<sockaddr_in&>(target);
        in4.sin_family = AF_INET;
        in4.sin_port = m_origDstPort;
        std::memcpy(&in4.sin_addr, &m_origDstV4, sizeof(in4.sin_addr));
        return sizeof(sockaddr_in);
    }
    auto& in6 = reinterpret_cast<sockaddr_in6&>(target);
    in6.sin6_family = AF_INET6;
    in6.sin6_port = m_origDstPort;
    std::memcpy(&in6.sin6_addr, m_origDstV6, sizeof(in6.sin6_addr));
    return sizeof(sockaddr_in6);
}

int CDnConnectionThread::BridgeConnections() {
    if (m_pExternalSocket == nullptr || m_pKdfSocket == nullptr) {
        // The failure policy may go on without an outgoing socket; there is nothing to relay.
        DNTRACE(BRIDGE, "Connection : No outgoing connection to relay to");
        return static_cast<int>(SWG_E_POINTER);
    }
    boost::function<bool()> callback =
        boost::bind(&CDnConnectionThread::RemoveCurrentNoRedirectKdfException, this);
    CSocketPair pair(*m_pExternalSocket, *m_pKdfSocket, exit_requested, callback);
    return pair.ProxyLoop();
}

// ---- closing -----------------------------------------------------------------------------

void CDnConnectionThread::CloseConnection() {
    std::lock_guard<std::mutex> hold(m_socketLock);
    if (m_pKdfSocket != nullptr) {
        (void)m_pKdfSocket->Shutdown(SHUT_RDWR);
        (void)m_pKdfSocket->CloseSocket();
    }
    if (m_pExternalSocket != nullptr) {
        if (m_pKdfSocket != nullptr) (void)m_pKdfSocket->Shutdown(SHUT_RDWR);
        (void)m_pExternalSocket->CloseSocket();
    }
}

void CDnConnectionThread::CloseKdfConnection() {
    // Both sockets are shut down, neither is closed here. A shutdown wakes a blocked recv,
    // select or connect as surely as a close, while a close would free the descriptor
    // number under a job that may be about to use it: a number that another connection may
    // own by then. The job unwinds and closes both in CloseConnection.
    std::lock_guard<std::mutex> hold(m_socketLock);
    if (m_pKdfSocket != nullptr) (void)m_pKdfSocket->Shutdown(SHUT_RDWR);
    if (m_pExternalSocket != nullptr) (void)m_pExternalSocket->Shutdown(SHUT_RDWR);
}

// ---- no-redirect exception --------------------------------------------------------------

bool CDnConnectionThread::MakeNoRedirectKdfException(const sockaddr& destination) {
    if (!RemoveCurrentNoRedirectKdfException()) return false;

    ngc_cidr_addr cidr{};
    cidr.cidr_family = destination.sa_family;
    std::uint16_t port = 0;
    if (destination.sa_family == AF_INET6) {
        const auto& in6 = reinterpret_cast<const sockaddr_in6&>(destination);
        std::memcpy(cidr.cidr_addr, &in6.sin6_addr, 16);
        cidr.cidr_prefix_bits = 128;
        port = in6.sin6_port;
    } else {
        const auto& in4 = reinterpret_cast<const sockaddr_in&>(destination);
        std::memcpy(cidr.cidr_addr, &in4.sin_addr, 4);
        cidr.cidr_prefix_bits = 32;
        port = in4.sin_port;
    }

    ResetRule(m_noRedirectRule);
    m_noRedirectRule.rule_action = 0;
    m_noRedirectRule.rule_op = 1;
    m_noRedirectRule.rule_class = 1;
    m_noRedirectRule.rule_pid = m_pid;
    m_noRedirectRule.peer_port = port;
    m_noRedirectRule.redirect_port = 0;
    m_noRedirectRule.rule_family = destination.sa_family;
    m_noRedirectRule.rule_protocol = IPPROTO_TCP;
    m_noRedirectRule.rule_reserved_id = -1;
    m_noRedirectRule.rule_excluded_pid = -1;
    m_noRedirectRule.include_addrs.assign(1, cidr);
    if (m_pid != -1) m_noRedirectRule.rule_flags |= 1;

    const bool applied = g_pSWGAgent->SetKdfRedirectRule(m_noRedirectRule);
    if (applied) m_bNoRedirectActive = true;
    return applied;
}

bool CDnConnectionThread::RemoveCurrentNoRedirectKdfException() {
    if (!m_bNoRedirectActive) return true;
    m_noRedirectRule.rule_action = 1;
    if (!g_pSWGAgent->SetKdfRedirectRule(m_noRedirectRule)) return false;
    m_bNoRedirectActive = false;
    ResetRule(m_noRedirectRule);
    return true;
}

// ---- helpers --------------------------------------------------------------------------------

std::string CDnConnectionThread::getProcessName(unsigned int pid) {
    char path[kProcessPathSize];
    if (ServiceUtils::GetProcessFilePath(pid, path, sizeof(path)) != 0) return std::string();
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? std::string(slash + 1) : std::string(path);
}
