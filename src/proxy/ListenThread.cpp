// SPDX-License-Identifier: Apache-2.0
// CDnListenThread: binds the loopback listener and runs its accept loop.
#include "proxy/ListenThread.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <new>

#include "core/SWGAgent.h"
#include "foundation/GlobalConst.h"
#include "foundation/Trace.h"
#include "proxy/ConnectionThread.h"
#include "proxy/DnSocket.h"
#include "proxy/FdSet.h"
#include "proxy/ProxyLimits.h"

namespace {

// accept's fatal conditions as the code has always named them. Linux never reports these
// numbers; the test stays so that the behaviour is the same wherever they occur.
constexpr int kNetworkSystemDown = 10093;
constexpr int kNetworkDown = 10050;

// A shortage of descriptors or kernel memory lasts until some connection ends; accepting at
// once again would only spin on the same error while the connection waits in the backlog.
constexpr unsigned long kShortagePauseMs = 100;
// Any other unexpected error: a short pause, so that no error can make the loop spin.
constexpr unsigned long kUnexpectedErrorPauseMs = 10;
constexpr unsigned long kNoThreadPauseMs = 10;

bool IsShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// Failures that belong to one connection (a client that reset before the accept, a signal):
// the next accept may go ahead at once.
bool IsConnectionFailure(int error) {
    return error == ECONNABORTED || error == EINTR || error == EPROTO || error == EAGAIN ||
           error == EPERM;
}

}  // namespace

CDnListenThread::CDnListenThread(std::uint16_t port, std::uint32_t maxThreads)
    : m_ConnectionThreadPool(maxThreads), m_requestedPort(port), m_listenPort(port) {
    thread_name = "CDnListenThread";
}

CDnListenThread::~CDnListenThread() {
    if (m_isRunning) {
        Kill();
        Wait();
    }
    CloseListenSocket();
}

void CDnListenThread::CloseListenSocket() {
    std::lock_guard<std::mutex> hold(m_listenSocketLock);
    const int fd = m_listenSocket.exchange(-1);
    if (fd != -1) ::close(fd);
}

bool CDnListenThread::Initialize(bool ipv6) {
    boost::recursive_mutex::scoped_lock hold(m_initLock);
    DNTRACE(LISTEN, "Listener : Initializing...");
    m_bIPv6 = ipv6;
    if (!CDnThread::Initialize()) {
        DNTRACE(ERR, "Listener : Failed to initialize low level object");
        return false;
    }
    if (!m_ConnectionThreadPool.Initialize(ipv6)) {
        DNTRACE(ERR, "Listener : Failed to initialize ConnectionThreadPool object");
        return false;
    }
    m_listenPort = m_requestedPort;

    const int family = ipv6 ? AF_INET6 : AF_INET;
    const int fd = ::socket(family, SOCK_STREAM, 0);
    const int reuse = 1;
    if (fd != -1 && ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)) != 0)
        DNTRACE(WARN, "Listener: setsockopt reuse addr failed: %d", errno);

    sockaddr_storage address{};
    socklen_t length = 0;
    if (ipv6) {
        auto& in6 = reinterpret_cast<sockaddr_in6&>(address);
        in6.sin6_family = AF_INET6;
        in6.sin6_addr = in6addr_loopback;
        in6.sin6_port = htons(m_listenPort);
        length = sizeof(in6);
    } else {
        auto& in4 = reinterpret_cast<sockaddr_in&>(address);
        in4.sin_family = AF_INET;
        in4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        in4.sin_port = htons(m_listenPort);
        length = sizeof(in4);
    }
    if (fd == -1 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        const int error = errno;
        DNTRACE(ERR,
                "Listener : Initialization failed, failed to bind the listen port:%d type:%d "
                "err:%d",
                m_listenPort, family, error);
        if (fd != -1) ::close(fd);
        m_ConnectionThreadPool.Deinitialize();
        CDnThread::Deinitialize();
        return false;
    }
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        m_listenPort = ntohs(ipv6 ? reinterpret_cast<sockaddr_in6&>(address).sin6_port
                                  : reinterpret_cast<sockaddr_in&>(address).sin_port);
    m_listenSocket = fd;
    m_bInitialized = true;
    return true;
}

long CDnListenThread::StartThread() {
    const long poolResult = m_ConnectionThreadPool.StartThread();
    if (poolResult != 0) {
        DNTRACE(ERR, "Listener : Failed to start connection thread pool. Code : %d",
                static_cast<int>(poolResult));
        return poolResult;
    }
    long result = 0;
    try {
        result = CDnThread::StartThread();
    } catch (const boost::thread_resource_error& e) {
        result = e.code().value() != 0 ? e.code().value() : SWG_E_FAIL;
    } catch (...) {
        result = SWG_E_FAIL;
    }
    if (result != 0) {
        DNTRACE(ERR, "Listener : Failed to start listener thread. Code : %d",
                static_cast<int>(result));
        m_ConnectionThreadPool.Kill();
        m_ConnectionThreadPool.Wait();
    }
    return result;
}

bool CDnListenThread::Kill() {
    // exit_requested is set before accept is woken, so that the loop ends instead of taking
    // the wake-up for a failed accept. Linux does not end a blocking accept when another
    // thread closes the descriptor; a shutdown does. The thread closes it on its way out.
    CDnThread::Kill();
    {
        // Under the lock that CloseListenSocket takes: the number is never one that the
        // thread has closed meanwhile and the system has given to another socket.
        std::lock_guard<std::mutex> hold(m_listenSocketLock);
        const int fd = m_listenSocket.load();
        if (fd != -1) (void)::shutdown(fd, SHUT_RDWR);
    }
    if (!m_ConnectionThreadPool.Kill()) {
        DNTRACE(ERR, "Listener : m_ConnectionThreadPool.Kill failed");
        return false;
    }
    return true;
}

long CDnListenThread::Wait() {
    // A thread that never started leaves the descriptor open.
    if (!m_isRunning) CloseListenSocket();
    m_ConnectionThreadPool.Wait();
    CDnThread::Wait();
    CloseListenSocket();
    return 0;
}

bool CDnListenThread::Deinitialize() {
    boost::recursive_mutex::scoped_lock hold(m_initLock);
    Kill();
    DNTRACE(TRACE_OFF, "Waiting for Listener to exit");
    Wait();
    m_ConnectionThreadPool.Deinitialize();
    CDnThread::Deinitialize();
    m_bInitialized = false;
    return true;
}

long CDnListenThread::ActualThreadProc(void* /*arg*/) {
    const long result = StartListenerThread();
    if (static_cast<std::int32_t>(result) < 0) g_pSWGAgent->PostMessage(MSG_ID_QUIT);
    return result;
}

bool CDnListenThread::PauseOrExit(unsigned long ms) {
    boost_ext::condition_event* exitOnly[1] = {&exit_event};
    return boost_ext::condition_event_group::WaitForMultipleObjects(1, exitOnly, false, ms) == 0;
}

long CDnListenThread::StartListenerThread() {
    const int listenFd = m_listenSocket.load();
    if (::listen(listenFd, kBacklog) != 0) {
        DNTRACE(ERR, "Listener : Initialization failed, listen failed - error(%d)", errno);
        CloseListenSocket();
        return SWG_E_FAIL;
    }
    m_bListening = true;
    long exitCode = 0;
    try {
        CDnConnectionThread* thread = nullptr;
        while (!exit_requested) {
            // The worker comes first: an accepted socket never waits for one.
            if (thread == nullptr) thread = m_ConnectionThreadPool.GetConnectionThread(true);
            if (thread == nullptr) {
                DNTRACE(ERR, "Listener : Failed to get connection thread");
                boost_ext::condition_event* exitOnly[1] = {&exit_event};
                const long waited = boost_ext::condition_event_group::WaitForMultipleObjects(
                    1, exitOnly, false, kNoThreadPauseMs);
                if (waited == WAIT_TIMEOUT_CODE) continue;
                if (waited != 0)
                    DNTRACE(ERR,
                            "Listener : Unknown event occurred during wait. WaitResult : %d, "
                            "Error Code : %d",
                            static_cast<int>(waited), 0);
                break;
            }

            const int fd = ::accept(listenFd, nullptr, nullptr);
            const int error = errno;
            if (exit_requested) {
                if (fd != -1) ::close(fd);
                break;
            }
            if (fd == -1) {
                if (!HandleAcceptFailure(error)) {
                    exitCode = error;
                    break;
                }
                // The thread secured for this accept serves the next one.
                continue;
            }
            // The relay's descriptor sets hold 8192 descriptors; a larger one could never be
            // served, so the connection is refused here rather than left hanging.
            if (!CFdSet::InRange(fd)) {
                DNTRACE(WARN,
                        "Listener : Descriptor %d is beyond the relay's limit, connection closed",
                        fd);
                ::close(fd);
                continue;
            }
            if (!StartConnection(thread, fd)) {
                exitCode = SWG_E_OUTOFMEMORY;
                break;
            }
            thread = nullptr;
        }
    } catch (const std::bad_alloc&) {
        DNTRACE(ERR, "Listener : System Out Of Memory!!!");
    } catch (...) {
        DNTRACE(ERR, "Listener : Caught an exception in the accept loop...");
    }
    m_bListening = false;
    CloseListenSocket();
    DNTRACE(TRACE, "Listener : Shutting down. Exit Code : %d", static_cast<int>(exitCode));
    return exitCode;
}

bool CDnListenThread::HandleAcceptFailure(int error) {
    DNTRACE(ERR, "Listener : Invalid connection handle. Error(%d)", error);
    if (error == kNetworkSystemDown || error == kNetworkDown) {
        DNTRACE(ERR, "Listener : Network system has failed, shutting down service. Error(%d)",
                error);
        g_pSWGAgent->PostMessage(MSG_ID_QUIT);
        return false;
    }
    if (IsConnectionFailure(error)) return true;
    return !PauseOrExit(IsShortage(error) ? kShortagePauseMs : kUnexpectedErrorPauseMs);
}

bool CDnListenThread::StartConnection(CDnConnectionThread* thread, int fd) {
    DNTRACE(LISTEN, "Listener : Starting connection thread %s", thread->ThreadId());
    auto* socket = new (std::nothrow) CDnSocket(fd);
    if (socket == nullptr) {
        DNTRACE(ERR, "Listener : Failed to create kdfsocket object, System Out Of Memory");
        ::close(fd);
        g_pSWGAgent->PostMessage(MSG_ID_QUIT);
        return false;
    }
    CDnVSocket::m_dwTimeout = kConnectTimeoutSeconds;
    m_ConnectionThreadPool.KeepShareForRelays();
    if (thread->Start(m_ConnectionThreadPool.m_threadDone, socket, this, m_bIPv6, true) == 0) {
        DNTRACE(LISTEN, "Listener : Connection started");
    } else {
        DNTRACE(ERR, "Listener : Failed to start connecion. Discarding ...");
        thread->CloseConnection();
    }
    return true;
}
