// SPDX-License-Identifier: Apache-2.0
// Test helpers: a scripted resolver with a gate that holds calls inside.
#include "FakeAddressResolver.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace swg_test {

namespace {
constexpr std::chrono::seconds kHangGuard{10};
}  // namespace

uint32_t Ipv4(const char* text) {
    in_addr address{};
    inet_pton(AF_INET, text, &address);
    return address.s_addr;
}

std::vector<uint8_t> Ipv6(const char* text) {
    in6_addr address{};
    inet_pton(AF_INET6, text, &address);
    return std::vector<uint8_t>(address.s6_addr, address.s6_addr + 16);
}

FakeAddressResolver::~FakeAddressResolver() = default;

void FakeAddressResolver::SetAnswer(const std::string& node, FakeAnswer answer) {
    std::lock_guard<std::mutex> hold(m_lock);
    m_answers[node] = std::move(answer);
}

void FakeAddressResolver::SetAddresses(const std::string& node,
                                       std::vector<std::string> addresses) {
    FakeAnswer answer;
    answer.addresses = std::move(addresses);
    SetAnswer(node, std::move(answer));
}

void FakeAddressResolver::SetName(const std::string& address, int code, const std::string& name) {
    std::lock_guard<std::mutex> hold(m_lock);
    m_names[address] = {code, name};
}

void FakeAddressResolver::CloseGate() {
    std::lock_guard<std::mutex> hold(m_lock);
    m_gateOpen = false;
}

void FakeAddressResolver::OpenGate() {
    std::lock_guard<std::mutex> hold(m_lock);
    m_gateOpen = true;
    m_changed.notify_all();
}

bool FakeAddressResolver::WaitHeld(int count) {
    std::unique_lock<std::mutex> hold(m_lock);
    return m_changed.wait_for(hold, kHangGuard, [&] { return m_held >= count; });
}

int FakeAddressResolver::Held() {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_held;
}

std::vector<std::string> FakeAddressResolver::Nodes() {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_nodes;
}

std::vector<addrinfo> FakeAddressResolver::Hints() {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_hints;
}

std::vector<FakeNameCall> FakeAddressResolver::NameCalls() {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_nameCalls;
}

int FakeAddressResolver::Outstanding() {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_outstanding;
}

void FakeAddressResolver::PassGate() {
    std::unique_lock<std::mutex> hold(m_lock);
    if (m_gateOpen) return;
    ++m_held;
    m_changed.notify_all();
    m_changed.wait(hold, [&] { return m_gateOpen; });
    --m_held;
}

addrinfo* FakeAddressResolver::MakeEntry(const std::string& text) {
    auto* entry = new addrinfo{};
    entry->ai_socktype = SOCK_STREAM;
    entry->ai_protocol = IPPROTO_TCP;
    in_addr v4{};
    in6_addr v6{};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
        auto* address = new sockaddr_in{};
        address->sin_family = AF_INET;
        address->sin_addr = v4;
        entry->ai_family = AF_INET;
        entry->ai_addr = reinterpret_cast<sockaddr*>(address);
        entry->ai_addrlen = sizeof *address;
    } else if (inet_pton(AF_INET6, text.c_str(), &v6) == 1) {
        auto* address = new sockaddr_in6{};
        address->sin6_family = AF_INET6;
        address->sin6_addr = v6;
        entry->ai_family = AF_INET6;
        entry->ai_addr = reinterpret_cast<sockaddr*>(address);
        entry->ai_addrlen = sizeof *address;
    }
    return entry;
}

int FakeAddressResolver::GetAddrInfo(const char* node, const addrinfo& hints, addrinfo** result) {
    *result = nullptr;
    FakeAnswer answer;
    answer.code = EAI_NONAME;
    {
        std::lock_guard<std::mutex> hold(m_lock);
        m_nodes.emplace_back(node);
        m_hints.push_back(hints);
        auto found = m_answers.find(node);
        if (found != m_answers.end()) answer = found->second;
    }
    PassGate();
    if (answer.code != 0) {
        errno = answer.savedErrno;
        return answer.code;
    }
    addrinfo* head = nullptr;
    addrinfo** tail = &head;
    for (const std::string& text : answer.addresses) {
        addrinfo* entry = MakeEntry(text);
        const bool wanted = hints.ai_family == AF_UNSPEC || hints.ai_family == entry->ai_family;
        if (!wanted) {
            DeleteList(entry);
            continue;
        }
        *tail = entry;
        tail = &entry->ai_next;
    }
    if (head == nullptr) return EAI_NONAME;
    std::lock_guard<std::mutex> hold(m_lock);
    ++m_outstanding;
    *result = head;
    return 0;
}

void FakeAddressResolver::FreeAddrInfo(addrinfo* list) {
    if (list == nullptr) return;
    {
        std::lock_guard<std::mutex> hold(m_lock);
        --m_outstanding;
    }
    DeleteList(list);
}

void FakeAddressResolver::DeleteList(addrinfo* list) {
    while (list != nullptr) {
        addrinfo* next = list->ai_next;
        if (list->ai_family == AF_INET) {
            delete reinterpret_cast<sockaddr_in*>(list->ai_addr);
        } else if (list->ai_family == AF_INET6) {
            delete reinterpret_cast<sockaddr_in6*>(list->ai_addr);
        }
        delete list;
        list = next;
    }
}

int FakeAddressResolver::GetNameInfo(const sockaddr* address, socklen_t length, char* host,
                                     std::size_t hostLength, int flags) {
    FakeNameCall call{address->sa_family, length, 0, std::string(), hostLength, flags};
    char text[INET6_ADDRSTRLEN] = {};
    if (address->sa_family == AF_INET) {
        sockaddr_in v4{};
        std::memcpy(&v4, address, sizeof v4);
        call.port = ntohs(v4.sin_port);
        inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
    } else if (address->sa_family == AF_INET6) {
        sockaddr_in6 v6{};
        std::memcpy(&v6, address, sizeof v6);
        call.port = ntohs(v6.sin6_port);
        inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
    }
    call.address = text;
    std::pair<int, std::string> answer{EAI_NONAME, std::string()};
    {
        std::lock_guard<std::mutex> hold(m_lock);
        m_nameCalls.push_back(call);
        auto found = m_names.find(call.address);
        if (found != m_names.end()) answer = found->second;
    }
    PassGate();
    if (answer.first != 0) return answer.first;
    if (answer.second.size() + 1 > hostLength) return EAI_OVERFLOW;
    std::memcpy(host, answer.second.c_str(), answer.second.size() + 1);
    return 0;
}

}  // namespace swg_test
