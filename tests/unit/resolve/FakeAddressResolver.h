// SPDX-License-Identifier: Apache-2.0
// Test helper: a scripted resolver with a gate that holds calls inside.
#pragma once

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/AddressResolver.h"
#include "support/FakeClock.h"

namespace swg_test {

// Network-order IPv4 address of `text`.
inline uint32_t Ipv4(const char* text) {
    in_addr address{};
    inet_pton(AF_INET, text, &address);
    return address.s_addr;
}
// The 16 bytes of the IPv6 address `text`.
inline std::vector<uint8_t> Ipv6(const char* text) {
    in6_addr address{};
    inet_pton(AF_INET6, text, &address);
    return std::vector<uint8_t>(address.s6_addr, address.s6_addr + 16);
}

// Answers from tables. Forward answers honour the family of the hints, as the C library does;
// a reverse call must give a whole address record and ask for a name (NI_NAMEREQD), or it fails.
// Unknown names and addresses give EAI_NONAME. Records are allocated with their exact sizes so
// that an over-read shows under AddressSanitizer. While the gate is closed every call waits
// inside until it opens: that is how a test makes a lookup slow for exactly as long as it
// wants. Any thread may call anything.
class FakeAddressResolver : public IAddressResolver {
public:
    // Forward: `node` gives `addresses` (IPv4 or IPv6 texts, in the resolver's order), or with
    // a `code` other than 0 that code, `savedErrno` left in errno.
    void SetAddresses(const std::string& node, std::vector<std::string> addresses, int code = 0,
                      int savedErrno = 0) {
        std::lock_guard<std::mutex> hold(m_lock);
        m_answers[node] = {code, savedErrno, std::move(addresses)};
    }
    // Reverse: `address` is text; `code` 0 gives `name`.
    void SetName(const std::string& address, int code, const std::string& name) {
        std::lock_guard<std::mutex> hold(m_lock);
        m_names[address] = {code, name};
    }

    void CloseGate() {
        std::lock_guard<std::mutex> hold(m_lock);
        m_gateOpen = false;
    }
    void OpenGate() {
        std::lock_guard<std::mutex> hold(m_lock);
        m_gateOpen = true;
        m_changed.notify_all();
    }
    // Waits (hang guard) until `count` calls are held at the closed gate.
    bool WaitHeld(int count) {
        std::unique_lock<std::mutex> hold(m_lock);
        return m_changed.wait_for(hold, std::chrono::seconds(10), [&] { return m_held >= count; });
    }
    // Lists handed out by GetAddrInfo and not yet freed.
    int Outstanding() {
        std::lock_guard<std::mutex> hold(m_lock);
        return m_outstanding;
    }

    int GetAddrInfo(const char* node, const addrinfo& hints, addrinfo** result) override {
        *result = nullptr;
        FakeAnswer answer;
        answer.code = EAI_NONAME;
        {
            std::lock_guard<std::mutex> hold(m_lock);
            auto found = m_answers.find(node);
            if (found != m_answers.end()) answer = found->second;
        }
        PassGate();
        if (answer.code != 0) {
            errno = answer.savedErrno;
            return answer.code;
        }
        addrinfo** tail = result;
        for (const std::string& text : answer.addresses) {
            addrinfo* entry = MakeEntry(text);
            if (hints.ai_family != AF_UNSPEC && hints.ai_family != entry->ai_family) {
                FreeList(entry);
                continue;
            }
            *tail = entry;
            tail = &entry->ai_next;
        }
        if (*result == nullptr) return EAI_NONAME;
        std::lock_guard<std::mutex> hold(m_lock);
        ++m_outstanding;
        return 0;
    }
    void FreeAddrInfo(addrinfo* list) override {
        if (list == nullptr) return;
        {
            std::lock_guard<std::mutex> hold(m_lock);
            --m_outstanding;
        }
        FreeList(list);
    }
    int GetNameInfo(const sockaddr* address, socklen_t length, char* host, std::size_t hostLength,
                    int flags) override {
        char text[INET6_ADDRSTRLEN] = {};
        if (address->sa_family == AF_INET && length == sizeof(sockaddr_in)) {
            inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text,
                      sizeof text);
        } else if (address->sa_family == AF_INET6 && length == sizeof(sockaddr_in6)) {
            inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text,
                      sizeof text);
        } else {
            return EAI_FAMILY;
        }
        if (flags != NI_NAMEREQD) return EAI_BADFLAGS;
        std::pair<int, std::string> answer{EAI_NONAME, std::string()};
        {
            std::lock_guard<std::mutex> hold(m_lock);
            auto found = m_names.find(text);
            if (found != m_names.end()) answer = found->second;
        }
        PassGate();
        if (answer.first != 0) return answer.first;
        if (answer.second.size() + 1 > hostLength) return EAI_OVERFLOW;
        std::memcpy(host, answer.second.c_str(), answer.second.size() + 1);
        return 0;
    }

private:
    struct FakeAnswer {
        int code = 0;
        int savedErrno = 0;
        std::vector<std::string> addresses;
    };

    void PassGate() {
        std::unique_lock<std::mutex> hold(m_lock);
        if (m_gateOpen) return;
        ++m_held;
        m_changed.notify_all();
        m_changed.wait(hold, [&] { return m_gateOpen; });
        --m_held;
    }
    static addrinfo* MakeEntry(const std::string& text) {
        auto* entry = new addrinfo{};
        entry->ai_socktype = SOCK_STREAM;
        entry->ai_protocol = IPPROTO_TCP;
        if (text.find(':') == std::string::npos) {
            auto* address = new sockaddr_in{};
            address->sin_family = AF_INET;
            inet_pton(AF_INET, text.c_str(), &address->sin_addr);
            entry->ai_addr = reinterpret_cast<sockaddr*>(address);
            entry->ai_addrlen = sizeof *address;
        } else {
            auto* address = new sockaddr_in6{};
            address->sin6_family = AF_INET6;
            inet_pton(AF_INET6, text.c_str(), &address->sin6_addr);
            entry->ai_addr = reinterpret_cast<sockaddr*>(address);
            entry->ai_addrlen = sizeof *address;
        }
        entry->ai_family = entry->ai_addr->sa_family;
        return entry;
    }
    static void FreeList(addrinfo* list) {
        while (list != nullptr) {
            addrinfo* next = list->ai_next;
            if (list->ai_family == AF_INET) {
                delete reinterpret_cast<sockaddr_in*>(list->ai_addr);
            } else {
                delete reinterpret_cast<sockaddr_in6*>(list->ai_addr);
            }
            delete list;
            list = next;
        }
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_gateOpen = true;
    int m_held = 0;
    int m_outstanding = 0;
    std::map<std::string, FakeAnswer> m_answers;
    std::map<std::string, std::pair<int, std::string>> m_names;
};

}  // namespace swg_test
