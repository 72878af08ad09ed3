// SPDX-License-Identifier: Apache-2.0
// CDnLookupThread: a worker that performs one blocking name lookup at a time.
#pragma once

#include <atomic>
#include <boost/asio/ip/address.hpp>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "foundation/ConditionEvent.h"
#include "foundation/DnEventThread.h"
#include "platform/AddressResolver.h"
#include "resolve/DnIPAddress.h"

// One lookup per job, forward (getaddrinfo) or reverse (getnameinfo), through the resolver
// given at construction.
//
// Hand-over: a caller takes the worker from its pool, calls one Start form, waits on
// ResultEvent(), reads the results and calls SetIdle. After the result event the worker holds
// its results and stays busy until SetIdle (or Kill), so a caller may read them at leisure. A
// caller that gives up before the result event calls SetIdle at once: the lookup runs on to its
// end, the worker sees the idle event already signalled, clears itself and only then turns idle
// for its pool. The caller must not touch the worker after SetIdle.
//
// The job fields are written by the caller before Start and by the worker until the result
// event; the events order those writes. Only the last error is read while the lookup may still
// run (after a timeout), which is why it is atomic.
class CDnLookupThread : public CDnEventThread {
public:
    // Uses the C library's resolver.
    CDnLookupThread();
    // Uses `resolver`, which must outlive the worker.
    explicit CDnLookupThread(IAddressResolver& resolver);
    // Stops and joins the thread if it still runs (waiting for a lookup in progress), then
    // frees the address array.
    ~CDnLookupThread() override;

    // Base step, then clears IPv6 mode and the job. False (logged) when the base fails.
    bool Initialize() override;
    // Base step (which joins a thread that was told to stop), then clears the job: name, both
    // address fields, array, list and vector. Returns the base's result.
    bool Deinitialize() override;
    // The job: lookup, result event, hold until SetIdle or exit. Returns 0.
    long ProcessEvent() override;

    // Each form resets the job, resets the result event and hands the job to the thread with
    // CDnEventThread::Start(done, force): 0 when handed over, 1 when the thread was busy and
    // `force` false. `done` is notified when the worker has let go of the job.
    //
    // Reverse lookup of an IPv4 `address` (network order). The address 0 is taken for a
    // forward lookup of an empty name.
    long Start(boost_ext::condition_event& done, unsigned int address, bool force);
    // Forward lookup of `host`, IPv4 results.
    long Start(boost_ext::condition_event& done, const std::string& host, bool force);
    // Reverse lookup of the 16-byte IPv6 `address16` (not null).
    long Start(boost_ext::condition_event& done, unsigned char* address16, bool force);
    // Forward lookup of `host`, all families; `reserved` is not used.
    long Start(boost_ext::condition_event& done, const std::string& host, DnIPAddress** reserved,
               bool force);

    // The caller is done with the worker, whether or not the lookup has ended.
    void SetIdle();
    // The name of the last reverse lookup ("" on failure).
    void GetResolvedName(std::string& name);
    // Moves the IPv4 results of the last forward lookup into `*addresses` and leaves the
    // worker's vector empty. Null is ignored.
    void GetResolvedIPs(std::vector<unsigned int>* addresses);
    // Hands the array of the last all-families lookup to `*addresses` (null when there is
    // none) and forgets it; the caller frees it with delete[]. Null is ignored.
    void GetResolvedIPs(DnIPAddress** addresses);
    // Copies the results of the last forward lookup, in the resolver's order.
    void GetResolvedAddresses(std::list<boost::asio::ip::address>& addresses);
    // 0, the resolver's EAI_* code, or the errno behind EAI_SYSTEM.
    int GetLastError();
    // Manual reset; signalled when the lookup has ended. Reset by every Start.
    boost_ext::condition_event& ResultEvent() { return m_resultEvent; }

private:
    void ClearJob();
    // Clears the last error, resets the result event and hands the job to the thread.
    long BeginJob(boost_ext::condition_event& done, bool force);
    void LookupName();
    void LookupAddress();
    void LookupAddressIPv4(const addrinfo* results);
    void LookupAddressAllFamilies(const addrinfo* results);
    // Stores the resolver's failure `code` as the last error (errno for EAI_SYSTEM).
    void SetResolverError(int code, int savedErrno);
    // Step 4 of the job: waits for SetIdle or the exit event.
    void HoldResults();

    IAddressResolver& m_resolver;

    // Fields in their fixed order.
    uint32_t m_ipv4 = 0;  // network order
    uint8_t m_ipv6[16] = {};
    std::vector<unsigned int> m_ipv4Results;
    std::unique_ptr<DnIPAddress[]> m_addressArray;
    std::list<boost::asio::ip::address> m_addressList;
    std::string m_name;
    boost_ext::condition_event m_idleEvent{false};
    boost_ext::condition_event m_resultEvent{false};
    std::atomic<int> m_lastError{0};
    bool m_bIPv6Mode = false;
};
