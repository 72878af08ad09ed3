// SPDX-License-Identifier: Apache-2.0
// Test helpers: a scripted resolver with a gate that holds calls inside, and a clock moved by hand.
#pragma once

#include <sys/socket.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/AddressResolver.h"
#include "platform/Clock.h"

namespace swg_test {

// What a forward lookup of one name gives: a resolver code, and on 0 the addresses (text, IPv4
// or IPv6) in the order the resolver lists them.
struct FakeAnswer {
    int code = 0;
    int savedErrno = 0;  // left in errno when code is EAI_SYSTEM
    std::vector<std::string> addresses;
};

// One getnameinfo call as the resolver saw it.
struct FakeNameCall {
    int family;
    socklen_t length;
    uint16_t port;  // host order
    std::string address;
    std::size_t hostLength;
    int flags;
};

// Answers from tables. Forward answers honour the family of the hints, as the C library does.
// Unknown names and addresses give EAI_NONAME. Lists are allocated with exact record sizes so
// that an over-read shows under AddressSanitizer. While the gate is closed every call waits
// inside until it opens: that is how a test makes a lookup slow for exactly as long as it
// wants. Any thread may call anything.
class FakeAddressResolver : public IAddressResolver {
public:
    ~FakeAddressResolver() override;

    void SetAnswer(const std::string& node, FakeAnswer answer);
    void SetAddresses(const std::string& node, std::vector<std::string> addresses);
    // Reverse: `address` is text; `code` 0 gives `name`.
    void SetName(const std::string& address, int code, const std::string& name);

    void CloseGate();
    void OpenGate();
    // Waits (hang guard) until `count` calls are held at the closed gate.
    bool WaitHeld(int count);
    int Held();

    std::vector<std::string> Nodes();
    std::vector<addrinfo> Hints();
    std::vector<FakeNameCall> NameCalls();
    // Lists handed out by GetAddrInfo and not yet freed.
    int Outstanding();

    int GetAddrInfo(const char* node, const addrinfo& hints, addrinfo** result) override;
    void FreeAddrInfo(addrinfo* list) override;
    int GetNameInfo(const sockaddr* address, socklen_t length, char* host, std::size_t hostLength,
                    int flags) override;

private:
    void PassGate();
    static addrinfo* MakeEntry(const std::string& text);
    static void DeleteList(addrinfo* list);

    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_gateOpen = true;
    int m_held = 0;
    int m_outstanding = 0;
    std::map<std::string, FakeAnswer> m_answers;
    std::map<std::string, std::pair<int, std::string>> m_names;
    std::vector<std::string> m_nodes;
    std::vector<addrinfo> m_hints;
    std::vector<FakeNameCall> m_nameCalls;
};

// UTC time that moves only when told to; every sleep is recorded and moves the time by its
// length at once. A hook may run after each sleep (on the sleeping thread).
class FakeClock : public IClock {
public:
    FakeClock() : m_now(boost::posix_time::time_from_string("2024-03-01 12:00:00.000")) {}

    boost::posix_time::ptime UniversalTime() override {
        std::lock_guard<std::mutex> hold(m_lock);
        return m_now;
    }
    void SleepMs(unsigned int ms) override {
        std::function<void(std::size_t)> hook;
        std::size_t count = 0;
        {
            std::lock_guard<std::mutex> hold(m_lock);
            m_sleeps.push_back(ms);
            m_now += boost::posix_time::milliseconds(ms);
            hook = m_onSleep;
            count = m_sleeps.size();
        }
        if (hook) hook(count);
    }

    void Set(const boost::posix_time::ptime& now) {
        std::lock_guard<std::mutex> hold(m_lock);
        m_now = now;
    }
    void Advance(const boost::posix_time::time_duration& by) {
        std::lock_guard<std::mutex> hold(m_lock);
        m_now += by;
    }
    std::vector<unsigned int> Sleeps() {
        std::lock_guard<std::mutex> hold(m_lock);
        return m_sleeps;
    }
    // `hook(n)` runs after the n-th sleep.
    void OnSleep(std::function<void(std::size_t)> hook) {
        std::lock_guard<std::mutex> hold(m_lock);
        m_onSleep = std::move(hook);
    }

private:
    std::mutex m_lock;
    boost::posix_time::ptime m_now;
    std::vector<unsigned int> m_sleeps;
    std::function<void(std::size_t)> m_onSleep;
};

// Network-order IPv4 address of `text`.
uint32_t Ipv4(const char* text);
// The 16 bytes of the IPv6 address `text`.
std::vector<uint8_t> Ipv6(const char* text);

}  // namespace swg_test
