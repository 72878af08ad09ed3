// SPDX-License-Identifier: Apache-2.0
// Tests of the lookup service: timeouts, the wait for a worker, the result forms.
#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <chrono>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "FakeAddressResolver.h"
#include "resolve/DnsLookup.h"
#include "support/ThreadTestSupport.h"

namespace {

using swg_test::Ipv4;
using swg_test::Ipv6;
using swg_test::WaitUntil;
using Addresses = std::vector<unsigned int>;
using AddressList = std::list<boost::asio::ip::address>;

// Long enough never to run out while the fake answers at once.
constexpr unsigned int kAmpleMs = 10000;
// Short: used only where the lookup is held at the gate and must time out.
constexpr unsigned int kShortMs = 30;

const std::vector<unsigned int> kRetryPauses = {10, 20, 40, 80, 160, 320, 640, 1280, 2560};

std::vector<std::string> Texts(const AddressList& list) {
    std::vector<std::string> texts;
    for (const auto& address : list) texts.push_back(address.to_string());
    return texts;
}

class DnsLookupTest : public ::testing::Test {
protected:
    void TearDown() override {
        resolver.OpenGate();
        lookups.reset();
        EXPECT_EQ(resolver.Outstanding(), 0) << "a result list was not freed";
    }

    // A service of `maximum` workers on the fake resolver and clock, initialised.
    CDnsLookupThread& Service(unsigned int maximum) {
        lookups = std::make_unique<CDnsLookupThread>(1, maximum, resolver, clock);
        EXPECT_TRUE(lookups->Initialize());
        return *lookups;
    }
    // Waits until every worker of the service is back in the idle list.
    bool AllWorkersIdle() {
        return WaitUntil([&] {
            lookups->Pool()->PurgeIdleThreads();
            return lookups->Pool()->ActiveCount() == 0;
        });
    }
    // Starts a lookup of "slow.swg.test" that the gate holds, lets it time out, and returns its
    // result. The worker stays inside the resolver until the gate opens.
    int AbandonSlowLookup(CDnsLookupThread& service) {
        // A worker must be free, or the 60 would come from the wait for one.
        EXPECT_TRUE(AllWorkersIdle());
        resolver.SetAddresses("slow.swg.test", {"198.18.0.30"});
        resolver.CloseGate();
        Addresses addresses;
        const int result = service.LookupIp("slow.swg.test", kShortMs, AF_INET, &addresses);
        EXPECT_TRUE(addresses.empty());
        EXPECT_TRUE(resolver.WaitHeld(1));
        return result;
    }

    swg_test::RecordingTrace trace;
    swg_test::FakeAddressResolver resolver;
    swg_test::FakeClock clock;
    std::unique_ptr<CDnsLookupThread> lookups;
};

// Guards the forward forms' results, order and ownership, and failures without stale results.
TEST_F(DnsLookupTest, ForwardFormsGiveTheResolverAddressesOrItsError) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10", "2001:db8::10", "198.18.0.11"});
    resolver.SetAddresses("refused.swg.test", {}, EAI_SYSTEM, ECONNREFUSED);
    CDnsLookupThread& service = Service(30);

    Addresses v4{7};
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET, &v4), 0);
    EXPECT_EQ(v4, (Addresses{Ipv4("198.18.0.10"), Ipv4("198.18.0.11")}));
    DnIPAddress* array = nullptr;
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET6, &array), 0);
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(array[0].ipv4, Ipv4("198.18.0.10"));
    EXPECT_EQ(array[1].family, AF_INET6);
    EXPECT_EQ(std::vector<uint8_t>(array[1].ipv6, array[1].ipv6 + 16), Ipv6("2001:db8::10"));
    EXPECT_EQ(array[2].family, AF_INET);
    EXPECT_EQ(array[2].ipv4, Ipv4("198.18.0.11"));
    EXPECT_EQ(array[3].family, 0);
    delete[] array;
    AddressList list{boost::asio::ip::make_address("198.18.9.9")};
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, 0, list), 0);
    EXPECT_EQ(Texts(list),
              (std::vector<std::string>{"198.18.0.10", "2001:db8::10", "198.18.0.11"}));

    for (const char* host : {"missing.swg.test", "refused.swg.test"}) {
        SCOPED_TRACE(host);
        const int expected = host[0] == 'm' ? EAI_NONAME : ECONNREFUSED;
        v4 = {7};
        EXPECT_EQ(service.LookupIp(host, kAmpleMs, AF_INET, &v4), expected);
        EXPECT_EQ(v4, Addresses{7});
        DnIPAddress sentinel{};
        array = &sentinel;
        EXPECT_EQ(service.LookupIp(host, kAmpleMs, AF_INET6, &array), expected);
        EXPECT_EQ(array, nullptr);
        EXPECT_EQ(service.LookupIp(host, kAmpleMs, 0, list), expected);
        EXPECT_TRUE(list.empty());
    }
    EXPECT_EQ(trace.CountPrefix(TRACE, "DNSLookup : address lookup took "), 9);
    EXPECT_TRUE(clock.Sleeps().empty());
}

// Guards the reverse lookups: name, resolver code, 60 on a timeout, no retry, address 0.
TEST_F(DnsLookupTest, ReverseLookupsGiveNameOrError) {
    resolver.SetName("198.18.0.10", 0, "gateway.swg.test");
    resolver.SetName("2001:db8::10", 0, "gateway6.swg.test");
    resolver.SetName("0.0.0.0", 0, "zero.swg.test");
    resolver.SetAddresses("", {"198.18.0.1"});
    // With one worker each lookup first waits for it to turn idle: reverse forms never retry.
    CDnsLookupThread& service = Service(1);
    std::vector<uint8_t> v6 = Ipv6("2001:db8::10");

    unsigned int error = 99;
    EXPECT_EQ(service.LookupHostname(Ipv4("198.18.0.10"), kAmpleMs, AF_INET, &error),
              "gateway.swg.test");
    EXPECT_EQ(error, 0u);
    ASSERT_TRUE(AllWorkersIdle());
    EXPECT_EQ(service.LookupHostname(v6.data(), kAmpleMs, AF_INET6, &error), "gateway6.swg.test");
    EXPECT_EQ(error, 0u);
    ASSERT_TRUE(AllWorkersIdle());
    EXPECT_EQ(service.LookupHostname(Ipv4("198.18.0.99"), kAmpleMs, AF_INET, &error), "");
    EXPECT_EQ(error, static_cast<unsigned int>(EAI_NONAME));
    ASSERT_TRUE(AllWorkersIdle());
    EXPECT_EQ(service.LookupHostname(Ipv4("198.18.0.99"), kAmpleMs, AF_INET, nullptr), "");
    ASSERT_TRUE(AllWorkersIdle());
    EXPECT_EQ(service.LookupHostname(0u, kAmpleMs, AF_INET, &error), "");
    EXPECT_EQ(error, 0u) << "the forward lookup of \"\" succeeded";
    ASSERT_TRUE(AllWorkersIdle());
    EXPECT_EQ(trace.CountPrefix(TRACE, "DNSLookup : Reverse lookup took "), 5);

    resolver.CloseGate();
    EXPECT_EQ(service.LookupHostname(Ipv4("198.18.0.10"), kShortMs, AF_INET, &error), "");
    EXPECT_EQ(error, static_cast<unsigned int>(SWG_DNS_LOOKUP_TIMEOUT));
    error = 99;
    EXPECT_EQ(service.LookupHostname(v6.data(), kAmpleMs, AF_INET6, &error), "");
    EXPECT_EQ(error, 0u) << "the pool gave no error";
    EXPECT_EQ(trace.Count(ERR, "DNSLookup : Failed to get lookup thread. Error Code : 0"), 1);
    EXPECT_TRUE(clock.Sleeps().empty());
}

// Guards 60 for a slow lookup, and its worker kept out of the pool until the call has ended.
TEST_F(DnsLookupTest, SlowLookupTimesOutAndItsWorkerReturnsOnlyWhenTheCallEnds) {
    CDnsLookupThread& service = Service(1);
    Addresses v4;
    ASSERT_EQ(service.LookupIp("missing.swg.test", kAmpleMs, AF_INET, &v4), EAI_NONAME);
    EXPECT_EQ(AbandonSlowLookup(service), SWG_DNS_LOOKUP_TIMEOUT);
    EXPECT_EQ(trace.CountPrefix(TRACE, "DNSLookup : address lookup took "), 2);
    EXPECT_EQ(service.Pool()->PurgeIdleThreads(), 0) << "worker came back while still resolving";
    EXPECT_EQ(service.Pool()->IdleCount(), 0u);

    resolver.OpenGate();
    ASSERT_TRUE(AllWorkersIdle());
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET, &v4), 0);
    EXPECT_EQ(v4, Addresses{Ipv4("198.18.0.10")});
    EXPECT_TRUE(clock.Sleeps().empty());
}

// Guards the retries for a worker (10 ... 2560 ms, then 60), none for the list form.
TEST_F(DnsLookupTest, AllWorkersBusyGives60AfterTheRetrySchedule) {
    CDnsLookupThread& service = Service(1);
    ASSERT_EQ(AbandonSlowLookup(service), SWG_DNS_LOOKUP_TIMEOUT);

    Addresses v4;
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET, &v4), SWG_DNS_LOOKUP_TIMEOUT);
    EXPECT_EQ(clock.Sleeps(), kRetryPauses);
    for (unsigned int pause : kRetryPauses) {
        const std::string line = "DNSLookup : Failed to get lookup thread. Wait and try again in " +
                                 std::to_string(pause) + " ms.";
        EXPECT_EQ(trace.Count(THREAD, line), 1) << line;
    }
    EXPECT_EQ(trace.Count(ERR, "DNSLookup : Failed to get lookup thread. Max try count exceeded."),
              1);
    DnIPAddress sentinel{};
    DnIPAddress* array = &sentinel;
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET6, &array), SWG_DNS_LOOKUP_TIMEOUT);
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(clock.Sleeps().size(), 18u);

    AddressList list{boost::asio::ip::make_address("198.18.9.9")};
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, 0, list), 0);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(clock.Sleeps().size(), 18u);
    EXPECT_EQ(trace.Count(ERR, "DNSLookup : Failed to get lookup thread. Error Code : 0"), 1);

    // During the third pause the abandoned lookup ends and its worker turns idle.
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    clock.OnSleep([&](std::size_t count) {
        if (count != 21) return;
        resolver.OpenGate();
        EXPECT_TRUE(AllWorkersIdle());
    });
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET, &v4), 0);
    EXPECT_EQ(v4, Addresses{Ipv4("198.18.0.10")});
    EXPECT_EQ(clock.Sleeps().size(), 21u);
}

// Guards concurrent use: lookups from many threads at once each get their own answer.
TEST_F(DnsLookupTest, ConcurrentLookupsEachGetTheirOwnAnswer) {
    constexpr int kThreads = 8;
    for (int i = 0; i < kThreads; ++i) {
        resolver.SetAddresses("host" + std::to_string(i) + ".swg.test",
                              {"198.18.1." + std::to_string(i)});
    }
    CDnsLookupThread& service = Service(30);
    // A pause while every worker is taken lets time and the pool's tick pass, as they would
    // on the real clock; on the fake one the nine pauses would otherwise run out at once.
    clock.OnSleep([this](std::size_t) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        lookups->Pool()->PurgeIdleThreads();
    });
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            const std::string expected = "198.18.1." + std::to_string(i);
            for (int round = 0; round < 25; ++round) {
                Addresses v4;
                if (service.LookupIp("host" + std::to_string(i) + ".swg.test", kAmpleMs, AF_INET,
                                     &v4) != 0 ||
                    v4 != Addresses{Ipv4(expected.c_str())}) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_LE(service.Pool()->ActiveCount() + service.Pool()->IdleCount(), 30u);
}

// Guards the life cycle: a second Initialize keeps the pool; a service taken down fails at once.
TEST_F(DnsLookupTest, LifecycleKeepsOrReplacesThePool) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    CDnsLookupThread& service = Service(2);
    CDnLookupThreadPool* pool = service.Pool();
    EXPECT_TRUE(service.Initialize());
    EXPECT_EQ(service.Pool(), pool);
    EXPECT_TRUE(service.Release(false));
    EXPECT_TRUE(service.Initialize());
    Addresses v4;
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET, &v4), 0);
    EXPECT_TRUE(service.Deinitialize(true));
    EXPECT_EQ(service.Pool(), nullptr);
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET, &v4), SWG_DNS_LOOKUP_TIMEOUT);
}

}  // namespace
