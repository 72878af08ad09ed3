// SPDX-License-Identifier: Apache-2.0
// CDnsLookupThread: the process-wide name resolver with a timeout, on a pool of lookup workers.
#pragma once

#include <boost/asio/ip/address.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/ThreadPoolThread.h"
#include "platform/AddressResolver.h"
#include "platform/Clock.h"
#include "resolve/DnIPAddress.h"
#include "resolve/LookupThread.h"

// Result of a lookup whose wait timed out or that found no free worker. This is the agent's own
// code (60), kept as it stands whatever the host's ETIMEDOUT is.
constexpr int SWG_DNS_LOOKUP_TIMEOUT = 60;

using CDnLookupThreadPool = CDnThreadPoolThread<CDnLookupThread>;

// Takes a worker from its pool, gives it the job and waits for it at most the caller's timeout.
// A lookup that runs past its timeout is abandoned: the caller gets SWG_DNS_LOOKUP_TIMEOUT at
// once and the worker returns to the pool only when the resolver call ends. So a stuck resolver
// can tie up at most the maximum number of workers, and a caller loses at most its timeout plus
// the 5110 ms of waiting for a worker.
//
// Threads: any number of threads may look up at once, each on its own worker; the lookups take
// no lock of this object. Error values are 0, the resolver's EAI_* code (negative on Linux),
// the errno behind EAI_SYSTEM, or SWG_DNS_LOOKUP_TIMEOUT. The `family` arguments are accepted
// and not used: the overload decides.
class CDnsLookupThread {
public:
    // Bounds of the pool: `minimum` workers are kept, at most `maximum` exist. The system's
    // resolver and clock.
    CDnsLookupThread(unsigned int minimum = 1, unsigned int maximum = 30);
    // As above with the resolver the workers call and the clock the retry pauses sleep on; both
    // must outlive this object.
    CDnsLookupThread(unsigned int minimum, unsigned int maximum, IAddressResolver& resolver,
                     IClock& clock);
    // Deinitialize(true): joins every worker, waiting for lookups still in the resolver.
    ~CDnsLookupThread();
    CDnsLookupThread(const CDnsLookupThread&) = delete;
    CDnsLookupThread& operator=(const CDnsLookupThread&) = delete;

    // The process-wide instance, created and initialised on first use with 1 to 30 workers.
    // Null, with SWG_E_OUTOFMEMORY or SWG_E_FAIL in `*error` (if given), when that fails; a
    // later call tries again. It lives until the process ends.
    static CDnsLookupThread* Instance(long* error);
    // As above; `minimum` and `maximum` apply only to the call that creates the instance. The
    // first number is not used.
    static CDnsLookupThread* Instance(unsigned int unused, unsigned int minimum,
                                      unsigned int maximum, long* error);

    // Creates and starts the pool (trim period 5000 ms) unless already initialised. False
    // (logged) when the pool cannot be created, initialised or started.
    bool Initialize();
    // Kills the pool; with `wait` also joins, deinitialises and destroys it. Clears the
    // initialised mark. Returns true.
    bool Deinitialize(bool wait);
    // Deinitialize(wait), only if initialised. Returns true.
    bool Release(bool wait);
    // The object's own lock, for callers that want one; the lookups do not take it.
    void Lock() { m_lock.lock(); }
    void Unlock() { m_lock.unlock(); }

    // Forward lookup of `host`, IPv4 results (network order) into `*addresses` on success.
    // Waits up to 5110 ms for a free worker, then gives SWG_DNS_LOOKUP_TIMEOUT.
    int LookupIp(std::string host, unsigned int timeoutMs, int family,
                 std::vector<unsigned int>* addresses);
    // Forward lookup of `host`, all families. `*addresses` is nulled first and on success gets
    // an array ending with family 0, which the caller frees with delete[]. Retries as above.
    int LookupIp(std::string host, unsigned int timeoutMs, int family, DnIPAddress** addresses);
    // Forward lookup of `host`, all families, in the resolver's order; `addresses` is emptied
    // first. No retry: with no free worker returns the pool's error, 0 if it gave none.
    int LookupIp(std::string host, unsigned int timeoutMs, int family,
                 std::list<boost::asio::ip::address>& addresses);
    // Reverse lookup of the IPv4 `address` (network order): the name, or "" with the error in
    // `*error` (if given). No retry when no worker is free.
    std::string LookupHostname(unsigned int address, unsigned int timeoutMs, int family,
                               unsigned int* error);
    // Reverse lookup of the 16-byte IPv6 `address16` (not null), as above.
    std::string LookupHostname(unsigned char* address16, unsigned int timeoutMs, int family,
                               unsigned int* error);

    // The pool, null until initialised; for diagnostics and tests.
    CDnLookupThreadPool* Pool() { return m_pool.get(); }

private:
    // A worker, retrying with pauses of 10 to 2560 ms; null after the last pause.
    CDnLookupThread* GetThreadWithRetry();
    // One attempt; logs the failure with the pool's error, which goes to `error`.
    CDnLookupThread* GetThreadOnce(long& error);
    // Waits for `worker`'s result event: 0 or WAIT_TIMEOUT_CODE.
    static long WaitForResult(CDnLookupThread& worker, unsigned int timeoutMs);
    // Starts a reverse lookup of `address` (IPv4 in network order, or 16 IPv6 bytes) on a
    // worker; empty with the pool's error when none is free.
    template <typename Address>
    std::string ReverseLookup(Address address, unsigned int timeoutMs, unsigned int* error);
    // Waits for a started reverse lookup; the name, or empty with the code in `error`.
    std::string AwaitReverseLookup(CDnLookupThread& worker, unsigned int timeoutMs,
                                   unsigned int* error);

    // Fields in their fixed order.
    std::unique_ptr<CDnLookupThreadPool> m_pool;
    boost::recursive_mutex m_lock;
    unsigned int m_minimum;
    unsigned int m_maximum;
    bool m_bInitialized = false;

    IAddressResolver& m_resolver;
    IClock& m_clock;

    // Owning; never destroyed, so that no exit-time destructor has to join a worker that is
    // stuck in the resolver.
    static CDnsLookupThread* theSingleInstance;
    static std::mutex sm_instanceLock;
};
