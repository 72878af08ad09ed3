// SPDX-License-Identifier: Apache-2.0
// CDnConnectionThread: carries one diverted connection at a time from accepted socket to end.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include "foundation/DnEventThread.h"
#include "platform/RedirectorRecords.h"
#include "proxy/HttpHeaders.h"
#include "proxy/ProxyLimits.h"
#include "upstream/ProxyInfo.h"

class CDnListenThread;
class CDnVSocket;

// The worker of the connection path. The pool creates it, Initialize and StartThread make it
// ready, and each Start hands it one accepted socket; ProcessEvent then runs the job on the
// thread's own stack: read the session record, choose the modes, connect the outgoing side,
// relay both ways, close.
//
// Ownership: owns both sockets of its current job from Start on; they are deleted at the
// next Start, by Deinitialize or by the destructor. The listener is not owned.
//
// Threading: the job runs on the thread. Start runs on the listener thread while the thread
// waits; Kill may come from any thread at any time and touches only the two sockets (under
// m_socketLock) and the exit flag. Everything else belongs to the thread.
class CDnConnectionThread : public CDnEventThread {
public:
    // What a failed outgoing connection is put down to; the failure policy decides by it.
    enum CONN_FAILURE_REASON : int32_t {
        FAILURE_LICENSE = 0,
        FAILURE_CONNECT = 1,
        FAILURE_SECURE_CONNECT = 2,
        FAILURE_PEER_IDENTITY = 3,
        FAILURE_PROXY_RESPONSE = 4,
        FAILURE_PROXY_CONNECT = 5,
        FAILURE_PROXY_CREDENTIALS = 6,
        FAILURE_PROXY_CREDENTIALS_REQUIRED = 7,
    };

    CDnConnectionThread();
    // Stops and joins the thread if it runs, then deletes both sockets.
    ~CDnConnectionThread() override;

    // ---- lifecycle (ConnectionThread.cpp) ----------------------------------------------
    // CDnEventThread::Initialize, then the per-object defaults (no sockets, modes 0, no
    // connection being relayed). Returns false, logging, when the base fails.
    bool Initialize() override;
    // Deletes both sockets and resets as Initialize does; joins a thread told to stop.
    // Returns true.
    bool Deinitialize() override;
    // Starts the system thread. Returns 0, or the error code of a thread that could not be
    // created (logged).
    long StartThread() override;
    // Wakes a job blocked on either socket (CloseKdfConnection), then sets exit_requested and
    // signals exit_event. Any thread; does not wait. Returns true.
    bool Kill() override;
    // Joins the thread. Returns 0. Not from the thread itself.
    long Wait() override;
    using CDnThread::Wait;

    // Hands the thread a job: deletes the sockets of the last job, takes ownership of
    // `socket` (the accepted connection, non-null), remembers `listener`, sets m_bIPv6 from
    // `ipv6`, and wakes the thread with `done` as the event to signal at the end.
    // Returns CDnEventThread::Start's result: 0, or 1 when the thread is busy and `force` is
    // false (the socket is then owned all the same and closed by the next Start).
    long Start(boost_ext::condition_event& done, CDnVSocket* socket, CDnListenThread* listener,
               bool ipv6, bool force);

    // ---- the job (ConnectionThread.cpp) ------------------------------------------------
    // Runs HandleConnection, reports "protected" after a normal end, closes both sockets and
    // removes the no-redirect exception. Returns HandleConnection's code. On the thread.
    long ProcessEvent() override;
    // The connection from accepted socket to the end of the relay. Returns 0 for a
    // connection that came to its normal end (or was told to stop), 1 when the session record
    // could not be read, or the code of the step that gave up. Never throws.
    long HandleConnection();
    // Relays between the two sockets until one side ends (CSocketPair). Returns the relay's
    // result: 0, 10058 for a side that finished, or an error code.
    int BridgeConnections();

    // Shuts down and closes the local socket; closes the outgoing one. The objects live on
    // until the next Start. Any thread.
    void CloseConnection();
    // Kill's way to wake a job blocked in a read: shuts down both sockets (the job closes
    // them when it unwinds). Any thread.
    void CloseKdfConnection();

    // Installs a no-redirect exception for the outgoing connect to `destination` (a
    // sockaddr_in or sockaddr_in6), after removing any still active. Returns whether the
    // redirector accepted it; the caller connects either way.
    bool MakeNoRedirectKdfException(const sockaddr& destination);
    // Removes the exception installed for this job, if any. Returns false when the
    // redirector refused the removal (the exception stays marked for a later attempt).
    bool RemoveCurrentNoRedirectKdfException();

    // 0 relaying through the gateway, 1 relaying in bypass, 2 no connection being relayed.
    int GetStatsConnMode() const { return m_statsConnMode; }

    // The last component of the executable path of process `pid`; the whole path when it
    // has no "/"; empty when the path can't be had.
    static std::string getProcessName(unsigned int pid);

    // ---- mode selection and the client's header block (ConnectionThreadModes.cpp) ------
    // Looks at the client's first bytes and sets CMode and TMode. 0 or a code.
    long SelectInitialMode();
    // Reads the client's header block into m_headers; bytes behind it stay in the socket's
    // line buffer. Blocks until the block ends. Returns 0, or the reader's code, logged (1
    // when the client closed, the job was killed or told to stop first).
    long ReadHttpHeaders();
    // Sets m_host, the host named in the gateway request: an HTTP client's Host value cut
    // before its first ":", else (and when that is empty) the original destination address.
    // On an IPv6 connection an IPv6 literal in Host gives the address too. Never fails.
    void SetupHost();
    // Appends the licence header lines to `headers`; false when they could not be had.
    bool ModifyHttpHeaders(CDnHttpHeaders* headers);
    // Records the original destination as the upstream proxy the client talks to, in
    // g_ProxyInfo and m_proxyInfo. Returns 0, or -1 when the destination has no IPv4
    // address text (always so on an IPv6 connection: proxies are recorded as IPv4 only).
    long SetProxyDetails();
    // Puts g_ProxyInfo back to the default record. Never fails.
    void ResetProxyDetails();
    // The address of the local interface that the licence header names: the local address
    // of the outgoing socket. False, logging, with `out` empty when there is no connected
    // outgoing socket.
    bool GetBestInterfaceIP(std::string& out);

    // ---- gateway connection (ConnectionThreadGateway.cpp) ------------------------------
    // Opens the outgoing socket of the current modes and connects it: the original
    // destination in bypass, the gateway otherwise. Returns 0 with m_pExternalSocket
    // connected; the code of the failure with no outgoing socket left; -1 when no target
    // could be had. Never throws.
    long GetExternalConnection();
    // The gateway's IPv4 address (network order) for `name`: an IPv4 literal as it stands,
    // else the agent's cache or a lookup of up to 5000 ms (which fills the cache), picked round
    // robin across all threads. False for an empty name, an IPv6 literal or a failed lookup.
    bool resolveToIPV4(std::string& name, unsigned long& address);
    // The same for IPv6 into the 16 bytes at `address`. The pick copies 16 bytes from byte
    // `index` of the cached list (not from entry `index`). False for an empty name or when no
    // IPv6 address can be had.
    bool resolveToIPV6(std::string& name, unsigned char* address);
    // Moves the anycast address of the failed connect (m_anycastIP) from the front of its
    // list to the back, through SetOrgInfo. Nothing when the list has fewer than two entries
    // or another thread has already moved it.
    void handleAnycastFailure();
    // Writes "CONNECT host:port" with Content-Length 0, Host and, with `addLicence`, the
    // licence lines to the outgoing socket; the host is bracketed when m_bIPv6ViaIPv4 is set.
    // Returns CDnHttpHeaders::Write's result: 0, -1, or 0x80070057 without a socket.
    long DoProxyConnect(std::string host, unsigned short port, std::string reserved,
                        bool addLicence);
    // Reads the gateway's answer to CONNECT and proves it by its Via header. 0 for a 200 with
    // a gateway Via (its body read and dropped); 0x80004005 for no such Via, or for any other
    // status, whose header block and body then go to the client (unless `noForward`: 0);
    // the read's code, with `connectionLost`, when no header block came; 0x8007000E when the
    // body cannot be held; -1 when the body cannot be passed on. 0 when told to stop.
    // `status` gets the status code. Blocks on the outgoing socket.
    long ProcessProxyResponse(bool& connectionLost, int& status, bool noForward);
    // Records the start of a gateway connect / stores the time since then in m_connectMillis.
    void StartSetConnectTime();
    void EndSetConnectTime();

    // ---- failure policy (ConnectionThreadFailure.cpp) ----------------------------------
    // Applies the failure policy after both connect attempts failed: a bypass retry, the
    // refusal page, or nothing. True when the job may go on (an outgoing connection stands,
    // or reason 0 under fail open, which makes none). Sends "cloud_service_unavailable" for a
    // gateway connection and sets m_bFailureReported.
    bool OnConnectionFailure(CONN_FAILURE_REASON reason);
    // After a failed gateway step: runs the captive portal test unless the mode is on; with
    // the mode on or fail open, turns TMode to 0 and, unless `keepSocket`, deletes the
    // outgoing socket. `message` names the failed stage for the log.
    void handleCaptivePortal(const std::string& message, bool keepSocket);
    // Sends `socket` the "HTTP/1.1 499 Fail close" page naming `reason`, in the user's
    // language. True when the header block was written (the body's send is not checked);
    // false, logged, otherwise (a null socket included).
    bool SendFailCloseMessageToBrowser(CDnVSocket* socket, CONN_FAILURE_REASON reason,
                                       bool reserved);
    // The translated reason text, then " " and the translated policy sentence.
    std::string GetConnectionFailureMsg(CONN_FAILURE_REASON reason);

    // ---- the job's state ---------------------------------------------------------------
    // What a client speaks (0 unknown, 1 TLS, 2 HTTP) and how its connection travels
    // (0 bypass, 1 gateway, 2 plain tunnel through a proxy, turned into 0).
    int32_t CMode = 0;
    int32_t TMode = 0;

    static std::atomic<std::uint16_t> sm_usNextIPIndex;
    static std::atomic<std::uint16_t> sm_usNextIPV6Index;

    // The client's header block when CMode is 2; reset for every job.
    CDnHttpHeaders m_headers{256};
    // The upstream proxy of this connection; reset for every job.
    LOCAL_PROXY_INFO m_proxyInfo;
    // How long SelectInitialMode waits for a client's first bytes, in 10 ms rounds: 2000.
    // Tests shorten it so that a client that sends no line end decides quickly.
    int m_firstBytesWaitMs = 2000;
    // How long the job waits on its client before the relay (session record and header
    // block together; then each write to the client), and on the outgoing side for the
    // gateway's answer. Tests shorten them.
    int m_clientWaitMs = kClientWaitMs;
    int m_outgoingWaitMs = kGatewayAnswerWaitMs;

    // ---- jobs before the relay (the pool's share) ------------------------------------------
    // When the job in hand began, as a steady-clock count; 0 when there is none or it has
    // reached the relay. Any thread.
    std::int64_t BeforeRelaySince() const { return m_beforeRelaySince.load(); }
    // Closes the job in hand if it is still the one that began at `since` and has not
    // reached the relay: the thread is killed (its sockets shut down) and ends after the job.
    // True when it was closed. Any thread.
    bool CloseBeforeRelay(std::int64_t since);

    // Fields of the job, in the order of the record.
    std::uint64_t m_origDstV4 = 0;  // the 8 record bytes after the port; low 32 bits the address
    unsigned char m_origDstV6[16] = {};
    std::uint16_t m_origDstPort = 0;  // network order
    char m_hostNames[768] = {};
    int32_t m_statsConnMode = 2;
    std::string m_host;
    CDnVSocket* m_pKdfSocket = nullptr;       // the accepted socket, owned
    CDnVSocket* m_pExternalSocket = nullptr;  // the outgoing socket, owned, null until made
    bool m_bBypassed = false;
    bool m_bNoRedirectActive = false;
    redirect_info m_noRedirectRule;
    int32_t m_pid = -1;
    std::string m_towerIP;
    CDnListenThread* m_pListener = nullptr;
    bool m_bIPv6 = false;
    bool m_bIPv6ViaIPv4 = false;
    bool m_bAnycastFallback = false;
    std::string m_anycastIP;
    std::int64_t m_connectMillis = 0;
    boost::posix_time::ptime m_connectStart;
    std::string m_processName;
    bool m_bFailureReported = false;

private:
    // ---- steps of the job (ConnectionThread.cpp) ---------------------------------------
    long ReadSessionRecord();
    bool IsLoopToListener();
    // Puts everything a job reads back to its initial value, so that nothing of the last
    // job (its destination above all) can serve this one.
    void ResetJobState();
    void ResetForJob();
    // Starts the wait of the job's stage on `socket`: `ms` from now.
    static void StartWait(CDnVSocket* socket, int ms);
    // Leaves the stage before the relay; false when the pool has closed the job meanwhile.
    bool ReachRelay();
    // After the job: logs a wait that ran out or a close by the pool, and gives back the
    // memory of the job's buffers.
    void EndJob();
    // "process(pid) -> address:port" of the job, for the log.
    std::string FlowText() const;
    bool ApplyBackoff();
    void ChooseGatewayFamily();
    // Connects the outgoing side (one retry after a pause, then the failure policy) and
    // runs the gateway step of the modes. Returns 0 when the relay may start (or the job
    // was told to stop), the connect's code when the failure policy ends the job; throws
    // the code of a gateway step that ends it.
    long ConnectAndExchange();
    // Waits the pause before the one connect retry. False when told to stop meanwhile.
    bool PauseBeforeRetry();
    void CountConnection();
    bool ExitRequested();
    // The original destination as a socket address of the family the job leaves on.
    socklen_t OriginalTarget(sockaddr_storage& target, bool ipv6) const;
    // Makes the session record of a connection that the kernel redirected and puts it in
    // front of the accepted socket's bytes.
    void PrepareSessionRecord();
    // Turns off Nagle on the accepted socket, as on the outgoing one: the relay writes what it
    // has as soon as it has it, and a small write must not wait for the client's delayed ACK.
    void SetLocalNoDelay();
    void DeleteExternalSocket();
    void DeleteSockets();
    void ResetDefaults();

    // ---- steps of mode selection (ConnectionThreadModes.cpp) ---------------------------
    long WaitForFirstBytes(unsigned long& readable, int& remainingMs);
    // One round of that wait: up to 10 ms, less when the client's first bytes arrive.
    void WaitOneRound();
    long SelectHttpModes(const std::string& line);
    void CheckSystemProxy();

    // ---- steps of the gateway connection (ConnectionThreadGateway.cpp) -----------------
    socklen_t GatewayTarget(sockaddr_storage& target);
    bool LookupIPv6List(const std::string& name, std::vector<unsigned char>& ipv6);
    bool ForwardProxyStatus(CDnHttpHeaders& response, int status, bool noForward, long& code);
    long ReadProxyResponseBody(CDnHttpHeaders& response, bool& connectionLost, int status,
                               long code);
    // The TLS client's tunnel: CONNECT through the gateway and its answer. The header-block
    // step: the HTTP client's header block (with the licence lines on the gateway leg) to
    // the outgoing side. Each returns true when the job is to go round again in bypass, false
    // when it may go on or was told to stop; a failure that ends the job throws its code.
    bool TunnelThroughGateway(bool failOpen);
    bool SendHeaderBlock(bool failOpen);

    // ---- steps of the failure policy (ConnectionThreadFailure.cpp) ---------------------
    bool RetryInBypass();
    // After a failed gateway step (`stage` names it for the log): the captive portal test,
    // then true when the job may go round again in bypass, which needs `mayBypass` and the
    // portal mode or `failOpen`.
    bool GatewayStepFailed(const char* stage, bool mayBypass, bool failOpen);

    // Guards the two socket pointers and their descriptors against Kill: a socket is
    // created, closed or deleted only under it, so Kill never touches a freed object or a
    // descriptor number that another connection already reuses.
    std::mutex m_socketLock;
    // BeforeRelaySince; kClosedBeforeRelay once the pool has closed the job.
    std::atomic<std::int64_t> m_beforeRelaySince{0};
    // What the job waits for from its client, for the log of a wait that ran out.
    const char* m_clientWait = "";
};
