// SPDX-License-Identifier: Apache-2.0
// CDnsLookupThread: the process-wide name resolver with a timeout, on a pool of lookup workers.
#include "resolve/DnsLookup.h"

#include <chrono>
#include <climits>
#include <functional>
#include <new>

#include "foundation/GlobalConst.h"
#include "foundation/Trace.h"

namespace {
// Trim period of the pool.
constexpr unsigned int kPoolPeriodMs = 5000;
// Pauses while no worker is free: 10, 20, ... 2560 ms, nine in all (5110 ms).
constexpr unsigned int kFirstPauseMs = 10;
constexpr unsigned int kLastPauseMs = 2560;

long long ElapsedMs(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

int ToPoolBound(unsigned int value) {
    return value > static_cast<unsigned int>(INT_MAX) ? INT_MAX : static_cast<int>(value);
}
}  // namespace

CDnsLookupThread* CDnsLookupThread::theSingleInstance = nullptr;
std::mutex CDnsLookupThread::sm_instanceLock;

CDnsLookupThread::CDnsLookupThread(unsigned int minimum, unsigned int maximum)
    : CDnsLookupThread(minimum, maximum, SystemAddressResolver(), SystemClock()) {}

CDnsLookupThread::CDnsLookupThread(unsigned int minimum, unsigned int maximum,
                                   IAddressResolver& resolver, IClock& clock)
    : m_minimum(minimum), m_maximum(maximum), m_resolver(resolver), m_clock(clock) {}

CDnsLookupThread::~CDnsLookupThread() { Deinitialize(true); }

CDnsLookupThread* CDnsLookupThread::Instance(long* error) { return Instance(0, 1, 30, error); }

CDnsLookupThread* CDnsLookupThread::Instance(unsigned int /*unused*/, unsigned int minimum,
                                             unsigned int maximum, long* error) {
    // Connection threads reach this first at the same moment; one of them must build it.
    std::lock_guard<std::mutex> hold(sm_instanceLock);
    if (theSingleInstance == nullptr) {
        theSingleInstance = new (std::nothrow) CDnsLookupThread(minimum, maximum);
        if (theSingleInstance == nullptr) {
            DNTRACE(ERR,
                    "DnsLookupThread : Failed to create the single instance, System Out Of Memory");
            if (error != nullptr) *error = SWG_E_OUTOFMEMORY;
            return nullptr;
        }
    }
    if (!theSingleInstance->m_bInitialized && !theSingleInstance->Initialize()) {
        DNTRACE(ERR, "DnsLookupThread : Failed to initialize DNS lookup object");
        delete theSingleInstance;
        theSingleInstance = nullptr;
        if (error != nullptr) *error = SWG_E_FAIL;
        return nullptr;
    }
    return theSingleInstance;
}

bool CDnsLookupThread::Initialize() {
    if (m_bInitialized) return true;
    // A pool left killed by Deinitialize(false) is joined and replaced.
    m_pool.reset();
    IAddressResolver& resolver = m_resolver;
    std::unique_ptr<CDnLookupThreadPool> pool(new (std::nothrow) CDnLookupThreadPool(
        kPoolPeriodMs, ToPoolBound(m_minimum), ToPoolBound(m_maximum),
        [&resolver] { return new (std::nothrow) CDnLookupThread(resolver); }));
    if (!pool) {
        DNTRACE(ERR, "DnsLookupThread : Failed to create thread pool object, System Out Of Memory");
        return false;
    }
    if (!pool->Initialize()) {
        DNTRACE(ERR, "DnsLookupThread : Failed to initialize thread pool object");
        return false;
    }
    // The pool logs its own start failure.
    if (pool->StartThread() != 0) return false;
    m_pool = std::move(pool);
    m_bInitialized = true;
    return true;
}

bool CDnsLookupThread::Deinitialize(bool wait) {
    if (m_pool) {
        m_pool->Kill();
        if (wait) {
            m_pool->Wait();
            m_pool->Deinitialize();
            m_pool.reset();
        }
    }
    m_bInitialized = false;
    return true;
}

bool CDnsLookupThread::Release(bool wait) {
    if (m_bInitialized) Deinitialize(wait);
    return true;
}

CDnLookupThread* CDnsLookupThread::GetThreadWithRetry() {
    if (!m_pool) {
        DNTRACE(ERR, "DNSLookup : Lookup service is not initialized");
        return nullptr;
    }
    for (unsigned int pauseMs = kFirstPauseMs;; pauseMs *= 2) {
        long error = 0;
        if (CDnLookupThread* worker = m_pool->GetThread(false, &error)) return worker;
        if (pauseMs > kLastPauseMs) break;
        DNTRACE(THREAD, "DNSLookup : Failed to get lookup thread. Wait and try again in %u ms.",
                pauseMs);
        m_clock.SleepMs(pauseMs);
    }
    DNTRACE(ERR, "DNSLookup : Failed to get lookup thread. Max try count exceeded.");
    return nullptr;
}

CDnLookupThread* CDnsLookupThread::GetThreadOnce(long& error) {
    CDnLookupThread* worker = m_pool ? m_pool->GetThread(false, &error) : nullptr;
    if (worker == nullptr) {
        DNTRACE(ERR, "DNSLookup : Failed to get lookup thread. Error Code : %d",
                static_cast<int>(error));
    }
    return worker;
}

long CDnsLookupThread::WaitForResult(CDnLookupThread& worker, unsigned int timeoutMs) {
    boost_ext::condition_event* events[1] = {&worker.ResultEvent()};
    return boost_ext::condition_event_group::WaitForMultipleObjects(1, events, false, timeoutMs);
}

namespace {
// The common part of the forward lookups, once the worker has its job: wait, read the error,
// take the results on success, log, let go of the worker.
int FinishForwardLookup(CDnLookupThread& worker, std::chrono::steady_clock::time_point start,
                        long waited, const std::function<void(CDnLookupThread&)>& takeResults) {
    int error = worker.GetLastError();
    if (error == 0) {
        if (waited == WAIT_TIMEOUT_CODE) {
            error = SWG_DNS_LOOKUP_TIMEOUT;
        } else if (waited == 0) {
            takeResults(worker);
        }
    }
    DNTRACE(TRACE, "DNSLookup : address lookup took %lld [ms], error = %d", ElapsedMs(start),
            error);
    worker.SetIdle();
    return error;
}
}  // namespace

int CDnsLookupThread::LookupIp(std::string host, unsigned int timeoutMs, int /*family*/,
                               std::vector<unsigned int>* addresses) {
    CDnLookupThread* worker = GetThreadWithRetry();
    if (worker == nullptr) return SWG_DNS_LOOKUP_TIMEOUT;
    const auto start = std::chrono::steady_clock::now();
    worker->Start(m_pool->PoolEvent(), host, true);
    const long waited = WaitForResult(*worker, timeoutMs);
    return FinishForwardLookup(*worker, start, waited,
                               [addresses](CDnLookupThread& w) { w.GetResolvedIPs(addresses); });
}

int CDnsLookupThread::LookupIp(std::string host, unsigned int timeoutMs, int /*family*/,
                               DnIPAddress** addresses) {
    if (addresses != nullptr) *addresses = nullptr;
    CDnLookupThread* worker = GetThreadWithRetry();
    if (worker == nullptr) return SWG_DNS_LOOKUP_TIMEOUT;
    const auto start = std::chrono::steady_clock::now();
    worker->Start(m_pool->PoolEvent(), host, nullptr, true);
    const long waited = WaitForResult(*worker, timeoutMs);
    return FinishForwardLookup(*worker, start, waited,
                               [addresses](CDnLookupThread& w) { w.GetResolvedIPs(addresses); });
}

int CDnsLookupThread::LookupIp(std::string host, unsigned int timeoutMs, int /*family*/,
                               std::list<boost::asio::ip::address>& addresses) {
    addresses.clear();
    long poolError = 0;
    CDnLookupThread* worker = GetThreadOnce(poolError);
    if (worker == nullptr) return static_cast<int>(poolError);
    const auto start = std::chrono::steady_clock::now();
    worker->Start(m_pool->PoolEvent(), host, nullptr, true);
    const long waited = WaitForResult(*worker, timeoutMs);
    return FinishForwardLookup(*worker, start, waited, [&addresses](CDnLookupThread& w) {
        w.GetResolvedAddresses(addresses);
    });
}

std::string CDnsLookupThread::LookupHostname(unsigned int address, unsigned int timeoutMs,
                                             int /*family*/, unsigned int* error) {
    return ReverseLookup(address, timeoutMs, error);
}

std::string CDnsLookupThread::LookupHostname(unsigned char* address16, unsigned int timeoutMs,
                                             int /*family*/, unsigned int* error) {
    return ReverseLookup(address16, timeoutMs, error);
}

template <typename Address>
std::string CDnsLookupThread::ReverseLookup(Address address, unsigned int timeoutMs,
                                            unsigned int* error) {
    long poolError = 0;
    CDnLookupThread* worker = GetThreadOnce(poolError);
    if (worker == nullptr) {
        if (error != nullptr) *error = static_cast<unsigned int>(poolError);
        return std::string();
    }
    worker->Start(m_pool->PoolEvent(), address, true);
    return AwaitReverseLookup(*worker, timeoutMs, error);
}

std::string CDnsLookupThread::AwaitReverseLookup(CDnLookupThread& worker, unsigned int timeoutMs,
                                                 unsigned int* error) {
    const auto start = std::chrono::steady_clock::now();
    const long waited = WaitForResult(worker, timeoutMs);
    const int code = worker.GetLastError();
    if (error != nullptr) *error = static_cast<unsigned int>(code);
    DNTRACE(TRACE, "DNSLookup : Reverse lookup took %lld [ms], error = %d", ElapsedMs(start), code);
    std::string name;
    if (code == 0) {
        if (waited == 0) {
            worker.GetResolvedName(name);
        } else if (waited == WAIT_TIMEOUT_CODE && error != nullptr) {
            *error = SWG_DNS_LOOKUP_TIMEOUT;
        }
    }
    worker.SetIdle();
    return name;
}
