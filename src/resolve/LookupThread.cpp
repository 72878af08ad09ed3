// SPDX-License-Identifier: Apache-2.0
// CDnLookupThread: a worker that performs one blocking name lookup at a time.
#include "resolve/LookupThread.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <new>

#include "foundation/Trace.h"

namespace {
// Size of the host buffer handed to getnameinfo.
constexpr std::size_t kHostBufferSize = 256;

boost::asio::ip::address_v6 ToAddressV6(const sockaddr_in6& address) {
    boost::asio::ip::address_v6::bytes_type bytes;
    std::memcpy(bytes.data(), &address.sin6_addr, bytes.size());
    return boost::asio::ip::address_v6(bytes, address.sin6_scope_id);
}
}  // namespace

CDnLookupThread::CDnLookupThread() : CDnLookupThread(SystemAddressResolver()) {}

CDnLookupThread::CDnLookupThread(IAddressResolver& resolver) : m_resolver(resolver) {
    thread_name = "CDnLookupThread";
}

CDnLookupThread::~CDnLookupThread() {
    // ProcessEvent uses this object's members: the thread must be gone before they are.
    Kill();
    Wait();
}

bool CDnLookupThread::Initialize() {
    if (!CDnEventThread::Initialize()) {
        DNTRACE(ERR, "DnLookupThread : Failed to intialize base lavel object");
        return false;
    }
    m_bIPv6Mode = false;
    ClearJob();
    return true;
}

bool CDnLookupThread::Deinitialize() {
    // The base step joins a thread that was told to stop; only then is the job ours to clear.
    const bool result = CDnEventThread::Deinitialize();
    ClearJob();
    return result;
}

void CDnLookupThread::ClearJob() {
    m_name.clear();
    m_ipv4 = 0;
    std::memset(m_ipv6, 0, sizeof m_ipv6);
    m_addressArray.reset();
    m_addressList.clear();
    m_ipv4Results.clear();
    m_lastError = 0;
}

long CDnLookupThread::ProcessEvent() {
    const bool reverse = m_bIPv6Mode ? m_name.empty() : m_ipv4 != 0;
    if (reverse) {
        LookupName();
    } else {
        LookupAddress();
    }
    m_resultEvent.notify();
    HoldResults();
    m_idleEvent.reset();
    m_ipv4 = 0;
    m_name.clear();
    return 0;
}

void CDnLookupThread::HoldResults() {
    // Exit first: a worker told to stop drops what it holds.
    boost_ext::condition_event* events[2] = {&exit_event, &m_idleEvent};
    for (;;) {
        const long result = boost_ext::condition_event_group::WaitForMultipleObjects(
            2, events, false, WAIT_INFINITE);
        if (result == 0 || result == 1) return;
        // An empty wake-up is not a reason to let go of results the caller may still read.
        if (result == WAIT_TIMEOUT_CODE) continue;
        DNTRACE(WARN, "LookupThread : WAIT_FAILED");
        return;
    }
}

void CDnLookupThread::SetResolverError(int code, int savedErrno) {
    m_lastError = (code == EAI_SYSTEM) ? savedErrno : code;
}

void CDnLookupThread::LookupName() {
    sockaddr_storage storage{};
    socklen_t length = 0;
    if (m_bIPv6Mode) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        std::memcpy(&address.sin6_addr, m_ipv6, sizeof m_ipv6);
        std::memcpy(&storage, &address, sizeof address);
        length = sizeof address;
    } else {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = m_ipv4;
        std::memcpy(&storage, &address, sizeof address);
        length = sizeof address;
    }
    m_name.clear();
    char host[kHostBufferSize] = {};
    const int code = m_resolver.GetNameInfo(reinterpret_cast<const sockaddr*>(&storage), length,
                                            host, sizeof host, NI_NAMEREQD);
    const int savedErrno = errno;
    if (code != 0) {
        SetResolverError(code, savedErrno);
        return;
    }
    m_lastError = 0;
    host[sizeof host - 1] = '\0';
    m_name = host;
}

void CDnLookupThread::LookupAddress() {
    addrinfo hints{};
    hints.ai_flags = AI_CANONNAME;
    hints.ai_family = m_bIPv6Mode ? AF_UNSPEC : AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    if (m_bIPv6Mode) {
        std::memset(m_ipv6, 0, sizeof m_ipv6);
    } else {
        m_ipv4 = 0;
    }
    addrinfo* results = nullptr;
    const int code = m_resolver.GetAddrInfo(m_name.c_str(), hints, &results);
    const int savedErrno = errno;
    if (code != 0) {
        SetResolverError(code, savedErrno);
        return;
    }
    m_lastError = 0;
    if (m_bIPv6Mode) {
        LookupAddressAllFamilies(results);
    } else {
        LookupAddressIPv4(results);
    }
    m_resolver.FreeAddrInfo(results);
}

void CDnLookupThread::LookupAddressIPv4(const addrinfo* results) {
    m_ipv4Results.clear();
    bool first = true;
    for (const addrinfo* entry = results; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_family != AF_INET || entry->ai_addr == nullptr ||
            entry->ai_addrlen < sizeof(sockaddr_in)) {
            continue;
        }
        sockaddr_in address{};
        std::memcpy(&address, entry->ai_addr, sizeof address);
        if (first) {
            m_ipv4 = address.sin_addr.s_addr;
            first = false;
        }
        m_ipv4Results.push_back(address.sin_addr.s_addr);
        m_addressList.emplace_back(boost::asio::ip::address_v4(ntohl(address.sin_addr.s_addr)));
    }
}

void CDnLookupThread::LookupAddressAllFamilies(const addrinfo* results) {
    // The IPv6 field takes the bytes at sin6_addr's place in the first result, whatever its
    // family; only bytes inside that result's record are read (an IPv4 one gives zeros).
    constexpr std::size_t kOffset = offsetof(sockaddr_in6, sin6_addr);
    if (results != nullptr && results->ai_addr != nullptr && results->ai_addrlen > kOffset) {
        const std::size_t available = results->ai_addrlen - kOffset;
        std::memcpy(m_ipv6, reinterpret_cast<const uint8_t*>(results->ai_addr) + kOffset,
                    std::min(sizeof m_ipv6, available));
    }
    std::size_t count = 0;
    for (const addrinfo* entry = results; entry != nullptr; entry = entry->ai_next) ++count;
    // Zero-initialised, so the element after the last one filled is the terminator.
    std::unique_ptr<DnIPAddress[]> array(new (std::nothrow) DnIPAddress[count + 1]());
    if (!array) return;
    std::size_t filled = 0;
    for (const addrinfo* entry = results; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_addr == nullptr) continue;
        DnIPAddress& element = array[filled];
        if (entry->ai_family == AF_INET && entry->ai_addrlen >= sizeof(sockaddr_in)) {
            sockaddr_in address{};
            std::memcpy(&address, entry->ai_addr, sizeof address);
            element.family = AF_INET;
            element.ipv4 = address.sin_addr.s_addr;
            m_addressList.emplace_back(boost::asio::ip::address_v4(ntohl(address.sin_addr.s_addr)));
            ++filled;
        } else if (entry->ai_family == AF_INET6 && entry->ai_addrlen >= sizeof(sockaddr_in6)) {
            sockaddr_in6 address{};
            std::memcpy(&address, entry->ai_addr, sizeof address);
            element.family = AF_INET6;
            std::memcpy(element.ipv6, &address.sin6_addr, sizeof element.ipv6);
            m_addressList.emplace_back(ToAddressV6(address));
            ++filled;
        }
    }
    m_addressArray = std::move(array);
}

long CDnLookupThread::Start(boost_ext::condition_event& done, unsigned int address, bool force) {
    m_bIPv6Mode = false;
    m_name.clear();
    m_ipv4 = address;
    m_addressList.clear();
    return BeginJob(done, force);
}

long CDnLookupThread::Start(boost_ext::condition_event& done, const std::string& host, bool force) {
    m_bIPv6Mode = false;
    m_name = host;
    m_ipv4 = 0;
    m_addressList.clear();
    return BeginJob(done, force);
}

long CDnLookupThread::Start(boost_ext::condition_event& done, unsigned char* address16,
                            bool force) {
    m_bIPv6Mode = true;
    m_name.clear();
    std::memcpy(m_ipv6, address16, sizeof m_ipv6);
    m_addressList.clear();
    return BeginJob(done, force);
}

long CDnLookupThread::Start(boost_ext::condition_event& done, const std::string& host,
                            DnIPAddress** /*reserved*/, bool force) {
    m_bIPv6Mode = true;
    m_name = host;
    std::memset(m_ipv6, 0, sizeof m_ipv6);
    m_addressArray.reset();
    m_addressList.clear();
    return BeginJob(done, force);
}

long CDnLookupThread::BeginJob(boost_ext::condition_event& done, bool force) {
    // A job that times out must not report the error of the job before it.
    m_lastError = 0;
    m_resultEvent.reset();
    return CDnEventThread::Start(done, force);
}

void CDnLookupThread::SetIdle() { m_idleEvent.notify(); }

void CDnLookupThread::GetResolvedName(std::string& name) { name = m_name; }

void CDnLookupThread::GetResolvedIPs(std::vector<unsigned int>* addresses) {
    if (addresses == nullptr) return;
    *addresses = std::move(m_ipv4Results);
    m_ipv4Results.clear();
}

void CDnLookupThread::GetResolvedIPs(DnIPAddress** addresses) {
    if (addresses == nullptr) return;
    *addresses = m_addressArray.release();
}

void CDnLookupThread::GetResolvedAddresses(std::list<boost::asio::ip::address>& addresses) {
    addresses = m_addressList;
}

int CDnLookupThread::GetLastError() { return m_lastError; }
