// SPDX-License-Identifier: Apache-2.0
// The agent's one-host caches of resolved addresses and the redirector's name-cache command.
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <string>
#include <vector>

#include "core/SWGAgent.h"
#include "foundation/GlobalConst.h"
#include "foundation/Trace.h"
#include "platform/Clock.h"

namespace {
// How long a cached list spares its host a fresh resolution.
const boost::posix_time::seconds kCacheLifetime(31);

// Whether a list stamped at `stamp` is still fresh at `now`. An unset stamp is never fresh, and
// neither is one from the future (the wall clock was set back): its age is unknown.
bool IsFresh(const boost::posix_time::ptime& stamp, const boost::posix_time::ptime& now) {
    if (stamp.is_special() || now.is_special()) return false;
    const boost::posix_time::time_duration age = now - stamp;
    return !age.is_negative() && age < kCacheLifetime;
}

boost::posix_time::ptime CacheNow(IClock* clock) {
    return (clock != nullptr ? *clock : SystemClock()).UniversalTime();
}

// One family's get: a copy of `list` on a hit; on a miss `list` is emptied (its stamp is left
// alone) and an empty list comes back.
template <typename Address>
std::vector<Address> GetCached(const std::string& host, const std::string& cachedHost,
                               std::vector<Address>& list, const boost::posix_time::ptime& stamp,
                               const boost::posix_time::ptime& now) {
    if (host == cachedHost && IsFresh(stamp, now)) return list;
    list.clear();
    return {};
}
}  // namespace

void CSWGAgent::SetCacheClock(IClock* clock) {
    boost::recursive_mutex::scoped_lock hold(m_cacheLock);
    m_pCacheClock = clock;
}

std::vector<unsigned int> CSWGAgent::GetCachedResolvedIPList(const std::string& host) {
    boost::recursive_mutex::scoped_lock hold(m_cacheLock);
    const boost::posix_time::ptime now = CacheNow(m_pCacheClock);
    return GetCached(host, resolved_host, m_resolvedIPv4List, m_resolvedIPv4Time, now);
}

std::vector<unsigned char> CSWGAgent::GetCachedResolvedIPv6List(const std::string& host) {
    boost::recursive_mutex::scoped_lock hold(m_cacheLock);
    const boost::posix_time::ptime now = CacheNow(m_pCacheClock);
    return GetCached(host, resolved_host, m_resolvedIPv6List, m_resolvedIPv6Time, now);
}

void CSWGAgent::CacheResolvedIPList(const std::string& host,
                                    const std::vector<unsigned int>& addresses) {
    boost::recursive_mutex::scoped_lock hold(m_cacheLock);
    m_resolvedIPv4List = addresses;
    // The key is shared: the IPv6 list keeps whatever host it was stored for.
    resolved_host = host;
    m_resolvedIPv4Time = CacheNow(m_pCacheClock);
}

void CSWGAgent::CacheResolvedIPV6List(const std::string& host,
                                      const std::vector<unsigned char>& addresses) {
    boost::recursive_mutex::scoped_lock hold(m_cacheLock);
    m_resolvedIPv6List = addresses;
    resolved_host = host;
    m_resolvedIPv6Time = CacheNow(m_pCacheClock);
}

void CSWGAgent::sendClearDNSCacheCommand() {
    boost::recursive_mutex::scoped_lock hold(m_redirectorLock);
    if (m_pRedirector == nullptr) {
        DNTRACE(ERR, "CSWGAgent: SocketRedirectorApi is null, couldn't complete clear DNS cache");
        return;
    }
    if (ClearRedirectorDnsCache()) {
        DNTRACE(TRACE, "CSWGAgent: ClearDnsCache call successful");
    } else {
        // The redirector's own code is not carried back; the general failure stands for it.
        DNTRACE(ERR, "CSWGAgent: ClearDnsCache call not successful %d",
                static_cast<int>(SWG_E_FAIL));
    }
}
