// SPDX-License-Identifier: Apache-2.0
// libFuzzer target: the session record at the head of an accepted connection, as the job reads
// it, checks it against its own listener, and as the record made on accept is read back.
// Input: one flags byte (bit 0: the IPv6 listener; bits 1-7 times 8: how many bytes come
// before the socket's, as a record made on accept does), then the bytes of the connection.
#include <arpa/inet.h>
#include <ifaddrs.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>

#include "FuzzSupport.h"
#include "proxy/ConnectionThread.h"
#include "proxy/ListenThread.h"
#include "proxy/SessionRecord.h"

namespace {

constexpr std::size_t kRecordSize = sizeof(ngc_session_info);

// Runs a job on `bytes` until the record is read and checked: the job is told to stop before
// it connects anywhere. Returns the job's code; `unread` gets what it left of the stream.
long ReadRecord(CDnConnectionThread& thread, bool ipv6, const std::string& prefix,
                const std::string& bytes, std::string& unread) {
    static CDnListenThread listener;  // never started: only its port is asked for
    swg_fuzz::Peer client;
    thread.m_pKdfSocket = client.agentSide;
    if (thread.m_pKdfSocket == nullptr || !client.Feed(bytes)) return -1;
    thread.m_pKdfSocket->SetReceivePrefix(prefix.data(), static_cast<int>(prefix.size()));
    thread.m_pListener = &listener;
    thread.m_bIPv6 = ipv6;
    thread.exit_requested = true;
    const long code = thread.HandleConnection();
    unread = swg_fuzz::Unread(*thread.m_pKdfSocket);
    return code;
}

// The destination the job read, as a socket address.
sockaddr_storage Destination(const CDnConnectionThread& thread, bool ipv6) {
    sockaddr_storage out{};
    if (ipv6) {
        auto& in6 = reinterpret_cast<sockaddr_in6&>(out);
        in6.sin6_family = AF_INET6;
        in6.sin6_port = thread.m_origDstPort;
        std::memcpy(&in6.sin6_addr, thread.m_origDstV6, sizeof(in6.sin6_addr));
    } else {
        auto& in4 = reinterpret_cast<sockaddr_in&>(out);
        in4.sin_family = AF_INET;
        in4.sin_port = thread.m_origDstPort;
        std::memcpy(&in4.sin_addr, &thread.m_origDstV4, sizeof(in4.sin_addr));
    }
    return out;
}

// The addresses this host answers on, as text: a record naming one of them at the
// listener's port is a loop as much as one naming 127.0.0.1.
const std::set<std::string>& OwnAddresses() {
    static const std::set<std::string> own = [] {
        std::set<std::string> out;
        ifaddrs* list = nullptr;
        if (::getifaddrs(&list) != 0) return out;
        for (const ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
            if (it->ifa_addr == nullptr) continue;
            const int family = it->ifa_addr->sa_family;
            if (family != AF_INET && family != AF_INET6) continue;
            char text[INET6_ADDRSTRLEN] = {};
            const void* address = family == AF_INET
                                      ? static_cast<const void*>(
                                            &reinterpret_cast<sockaddr_in*>(it->ifa_addr)->sin_addr)
                                      : &reinterpret_cast<sockaddr_in6*>(it->ifa_addr)->sin6_addr;
            if (::inet_ntop(family, address, text, sizeof(text)) != nullptr) out.insert(text);
        }
        ::freeifaddrs(list);
        return out;
    }();
    return own;
}

// The destination the job read is the agent's own listener, by the text of its address:
// loopback, the unspecified address, their mapped forms, or an address of this host.
bool NamesListener(const CDnConnectionThread& thread, bool ipv6) {
    if (ntohs(thread.m_origDstPort) != CDnListenThread::kListenPort) return false;
    char text[INET6_ADDRSTRLEN] = {};
    const void* address = ipv6 ? static_cast<const void*>(thread.m_origDstV6) : &thread.m_origDstV4;
    ::inet_ntop(ipv6 ? AF_INET6 : AF_INET, address, text, sizeof(text));
    std::string name = text;
    const std::string mapped = "::ffff:";
    if (ipv6 && name.compare(0, mapped.size(), mapped) == 0 && name.find('.') != std::string::npos)
        name = name.substr(mapped.size());
    return name.compare(0, 4, "127.") == 0 || name == "0.0.0.0" || name == "::1" || name == "::" ||
           OwnAddresses().count(name) != 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    swg_fuzz::QuietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 1 || size > swg_fuzz::kMaxInput) return -1;
    const bool ipv6 = (data[0] & 1) != 0;
    const std::string stream(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::size_t split = std::min<std::size_t>(stream.size(), (data[0] >> 1) * 8u);

    CDnConnectionThread thread;
    std::string unread;
    const long code =
        ReadRecord(thread, ipv6, stream.substr(0, split), stream.substr(split), unread);
    if (code == -1) return -1;
    // A connection that ends before its record is closed; nothing of it is used.
    if (stream.size() < kRecordSize) {
        if (code != 1) __builtin_trap();
        return 0;
    }

    ngc_session_info record;
    std::memcpy(&record, stream.data(), kRecordSize);
    const sockaddr_storage destination = Destination(thread, ipv6);
    const bool loop = NamesListener(thread, ipv6);
    if (code != (loop ? ELOOP : 0)) __builtin_trap();
    // The fields sit where the redirector puts them; the host names stay a bounded text.
    const unsigned char* raw = record.orig_dst.raw;
    if (std::memcmp(&thread.m_origDstPort, raw + 2, 2) != 0) __builtin_trap();
    const void* address = ipv6 ? static_cast<const void*>(thread.m_origDstV6) : &thread.m_origDstV4;
    if (std::memcmp(address, raw + (ipv6 ? 8 : 4), ipv6 ? 16 : 8) != 0) __builtin_trap();
    if (thread.m_pid != record.process_id || thread.m_hostNames[767] != '\0' ||
        std::strncmp(thread.m_hostNames, record.host_names, 767) != 0)
        __builtin_trap();
    // The client's own bytes behind the record stay for the job.
    if (!loop && unread != stream.substr(kRecordSize)) __builtin_trap();

    // The record made on accept for that destination reads back as the same destination.
    ngc_session_info made;
    FillSessionRecord(destination, thread.m_pid, made);
    CDnConnectionThread again;
    const std::string madeBytes(reinterpret_cast<const char*>(&made), kRecordSize);
    if (ReadRecord(again, ipv6, madeBytes, std::string(), unread) == -1) return -1;
    const sockaddr_storage readBack = Destination(again, ipv6);
    if (std::memcmp(&readBack, &destination, sizeof(readBack)) != 0 ||
        again.m_pid != thread.m_pid || again.m_hostNames[0] != '\0')
        __builtin_trap();
    return 0;
}
