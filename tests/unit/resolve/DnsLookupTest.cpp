// SPDX-License-Identifier: Apache-2.0
// Tests of the lookup service: timeouts, the wait for a worker, the result forms.
#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "FakeAddressResolver.h"
#include "resolve/DnsLookup.h"
#include "unit/foundation/ThreadTestSupport.h"

namespace {

using swg_test::FakeAddressResolver;
using swg_test::FakeClock;
using swg_test::Ipv4;
using swg_test::Ipv6;
using swg_test::RecordingTrace;
using swg_test::WaitUntil;

// Long enough never to run out while the fake answers at once.
constexpr unsigned int kAmpleMs = 10000;
// Short: used only where the lookup is held at the gate and must time out.
constexpr unsigned int kShortMs = 30;

const std::vector<unsigned int> kRetryPauses = {10, 20, 40, 80, 160, 320, 640, 1280, 2560};

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
        std::vector<unsigned int> addresses;
        const int result = service.LookupIp("slow.swg.test", kShortMs, AF_INET, &addresses);
        EXPECT_TRUE(addresses.empty());
        EXPECT_EQ(resolver.Held(), 1);
        return result;
    }

    RecordingTrace trace;
    FakeAddressResolver resolver;
    FakeClock clock;
    std::unique_ptr<CDnsLookupThread> lookups;
};

// Guards the three forward forms against losing, reordering or mixing up results, and the
// ownership of the array.
TEST_F(DnsLookupTest, ForwardFormsGiveTheResolverAddresses) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10", "2001:db8::10", "198.18.0.11"});
    CDnsLookupThread& service = Service(30);

    std::vector<unsigned int> v4;
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET, &v4), 0);
    EXPECT_EQ(v4, (std::vector<unsigned int>{Ipv4("198.18.0.10"), Ipv4("198.18.0.11")}));

    DnIPAddress* array = nullptr;
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET6, &array), 0);
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(array[0].family, AF_INET);
    EXPECT_EQ(array[1].family, AF_INET6);
    EXPECT_EQ(std::vector<uint8_t>(array[1].ipv6, array[1].ipv6 + 16), Ipv6("2001:db8::10"));
    EXPECT_EQ(array[2].ipv4, Ipv4("198.18.0.11"));
    EXPECT_EQ(array[3].family, 0);
    delete[] array;

    std::list<boost::asio::ip::address> list{boost::asio::ip::make_address("198.18.9.9")};
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, 0, list), 0);
    std::vector<std::string> texts;
    for (const auto& address : list) texts.push_back(address.to_string());
    EXPECT_EQ(texts, (std::vector<std::string>{"198.18.0.10", "2001:db8::10", "198.18.0.11"}));

    EXPECT_EQ(trace.CountPrefix(TRACE, "DNSLookup : address lookup took "), 3);
    EXPECT_TRUE(clock.Sleeps().empty());
}

// Guards the failure of a lookup: the resolver's code reaches the caller, and no stale or
// partial result does.
TEST_F(DnsLookupTest, ResolverFailurePassesThroughWithoutResults) {
    CDnsLookupThread& service = Service(30);
    std::vector<unsigned int> v4{7};
    EXPECT_EQ(service.LookupIp("missing.swg.test", kAmpleMs, AF_INET, &v4), EAI_NONAME);
    EXPECT_EQ(v4, std::vector<unsigned int>{7});

    DnIPAddress sentinel{};
    DnIPAddress* array = &sentinel;
    EXPECT_EQ(service.LookupIp("missing.swg.test", kAmpleMs, AF_INET6, &array), EAI_NONAME);
    EXPECT_EQ(array, nullptr);

    std::list<boost::asio::ip::address> list{boost::asio::ip::make_address("198.18.9.9")};
    EXPECT_EQ(service.LookupIp("missing.swg.test", kAmpleMs, 0, list), EAI_NONAME);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(trace.CountPrefix(TRACE, "DNSLookup : address lookup took "), 3);
}

// Guards the central promise: a lookup slower than its timeout returns 60 at the timeout, and
// its worker is not reused until the resolver call has ended, not when the caller gave up.
TEST_F(DnsLookupTest, SlowLookupTimesOutAndItsWorkerReturnsOnlyWhenTheCallEnds) {
    CDnsLookupThread& service = Service(1);
    EXPECT_EQ(AbandonSlowLookup(service), SWG_DNS_LOOKUP_TIMEOUT);
    EXPECT_EQ(trace.CountPrefix(TRACE, "DNSLookup : address lookup took "), 1);
    EXPECT_EQ(service.Pool()->PurgeIdleThreads(), 0) << "worker came back while still resolving";
    EXPECT_EQ(service.Pool()->IdleCount(), 0u);

    resolver.OpenGate();
    ASSERT_TRUE(AllWorkersIdle());
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    std::vector<unsigned int> v4;
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET, &v4), 0);
    EXPECT_EQ(v4, std::vector<unsigned int>{Ipv4("198.18.0.10")});
    EXPECT_TRUE(clock.Sleeps().empty());
}

// Guards the wait for a worker: with every worker busy the lookup retries after 10, 20, ...
// 2560 ms (5110 ms in all), logs each pause and the end, and returns 60; the array form alike.
TEST_F(DnsLookupTest, AllWorkersBusyGives60AfterTheRetrySchedule) {
    CDnsLookupThread& service = Service(1);
    ASSERT_EQ(AbandonSlowLookup(service), SWG_DNS_LOOKUP_TIMEOUT);

    std::vector<unsigned int> v4;
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET, &v4), SWG_DNS_LOOKUP_TIMEOUT);
    EXPECT_EQ(clock.Sleeps(), kRetryPauses);
    EXPECT_EQ(std::accumulate(kRetryPauses.begin(), kRetryPauses.end(), 0u), 5110u);
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
    EXPECT_EQ(clock.Sleeps().size(), 2 * kRetryPauses.size());
}

// Guards the retry loop against giving up on a worker that frees up during the pauses.
TEST_F(DnsLookupTest, WorkerFreedDuringThePausesIsUsed) {
    CDnsLookupThread& service = Service(1);
    ASSERT_EQ(AbandonSlowLookup(service), SWG_DNS_LOOKUP_TIMEOUT);
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    // During the third pause the abandoned lookup ends and its worker turns idle.
    clock.OnSleep([&](std::size_t count) {
        if (count != 3) return;
        resolver.OpenGate();
        EXPECT_TRUE(AllWorkersIdle());
    });

    std::vector<unsigned int> v4;
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET, &v4), 0);
    EXPECT_EQ(v4, std::vector<unsigned int>{Ipv4("198.18.0.10")});
    EXPECT_EQ(clock.Sleeps(), (std::vector<unsigned int>{10, 20, 40}));
}

// Guards the list form against retrying: with no worker it returns at once with the pool's
// error, which is none.
TEST_F(DnsLookupTest, ListFormDoesNotWaitForAWorker) {
    CDnsLookupThread& service = Service(1);
    ASSERT_EQ(AbandonSlowLookup(service), SWG_DNS_LOOKUP_TIMEOUT);
    std::list<boost::asio::ip::address> list{boost::asio::ip::make_address("198.18.9.9")};
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, 0, list), 0);
    EXPECT_TRUE(list.empty());
    EXPECT_TRUE(clock.Sleeps().empty());
    EXPECT_EQ(trace.Count(ERR, "DNSLookup : Failed to get lookup thread. Error Code : 0"), 1);
}

// Guards the reverse lookups: the name on success, the resolver's code on failure, 60 and no
// name on a timeout, and no wait for a worker. (A worker turns idle a moment after its caller
// lets go; with one worker each lookup waits for that first, as the reverse forms never retry.)
TEST_F(DnsLookupTest, ReverseLookupsGiveNameOrError) {
    resolver.SetName("198.18.0.10", 0, "gateway.swg.test");
    resolver.SetName("2001:db8::10", 0, "gateway6.swg.test");
    CDnsLookupThread& service = Service(1);

    unsigned int error = 99;
    EXPECT_EQ(service.LookupHostname(Ipv4("198.18.0.10"), kAmpleMs, AF_INET, &error),
              "gateway.swg.test");
    EXPECT_EQ(error, 0u);
    ASSERT_TRUE(AllWorkersIdle());
    std::vector<uint8_t> v6 = Ipv6("2001:db8::10");
    EXPECT_EQ(service.LookupHostname(v6.data(), kAmpleMs, AF_INET6, &error), "gateway6.swg.test");
    EXPECT_EQ(error, 0u);
    ASSERT_TRUE(AllWorkersIdle());
    EXPECT_EQ(service.LookupHostname(Ipv4("198.18.0.99"), kAmpleMs, AF_INET, &error), "");
    EXPECT_EQ(error, static_cast<unsigned int>(EAI_NONAME));
    ASSERT_TRUE(AllWorkersIdle());
    EXPECT_EQ(service.LookupHostname(Ipv4("198.18.0.99"), kAmpleMs, AF_INET, nullptr), "");
    ASSERT_TRUE(AllWorkersIdle());
    EXPECT_EQ(trace.CountPrefix(TRACE, "DNSLookup : Reverse lookup took "), 4);

    resolver.CloseGate();
    EXPECT_EQ(service.LookupHostname(Ipv4("198.18.0.10"), kShortMs, AF_INET, &error), "");
    EXPECT_EQ(error, static_cast<unsigned int>(SWG_DNS_LOOKUP_TIMEOUT));

    error = 99;
    EXPECT_EQ(service.LookupHostname(v6.data(), kAmpleMs, AF_INET6, &error), "");
    EXPECT_EQ(error, 0u) << "the pool gave no error";
    EXPECT_EQ(trace.Count(ERR, "DNSLookup : Failed to get lookup thread. Error Code : 0"), 1);
    EXPECT_TRUE(clock.Sleeps().empty());
}

// Guards the timeout against a stale error: a lookup that times out on a worker whose last
// job failed must say 60, not the old failure.
TEST_F(DnsLookupTest, TimeoutAfterAFailedLookupStillGives60) {
    CDnsLookupThread& service = Service(1);
    std::vector<unsigned int> v4;
    ASSERT_EQ(service.LookupIp("missing.swg.test", kAmpleMs, AF_INET, &v4), EAI_NONAME);
    EXPECT_EQ(AbandonSlowLookup(service), SWG_DNS_LOOKUP_TIMEOUT);
}

// Guards concurrent use: lookups from many threads at once each get their own answer.
TEST_F(DnsLookupTest, ConcurrentLookupsEachGetTheirOwnAnswer) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 25;
    for (int i = 0; i < kThreads; ++i) {
        resolver.SetAddresses("host" + std::to_string(i) + ".swg.test",
                              {"198.18.1." + std::to_string(i)});
    }
    CDnsLookupThread& service = Service(30);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            const std::string host = "host" + std::to_string(i) + ".swg.test";
            const std::string expected = "198.18.1." + std::to_string(i);
            for (int round = 0; round < kRounds; ++round) {
                std::vector<unsigned int> v4;
                if (service.LookupIp(host, kAmpleMs, AF_INET, &v4) != 0 ||
                    v4 != std::vector<unsigned int>{Ipv4(expected.c_str())}) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_LE(service.Pool()->ActiveCount() + service.Pool()->IdleCount(), 30u);
}

// Guards the life cycle: initialising twice keeps the pool; a service taken down without
// waiting starts afresh; an uninitialised service fails at once instead of crashing.
TEST_F(DnsLookupTest, LifecycleKeepsOrReplacesThePool) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    CDnsLookupThread& service = Service(2);
    CDnLookupThreadPool* pool = service.Pool();
    EXPECT_TRUE(service.Initialize());
    EXPECT_EQ(service.Pool(), pool);
    EXPECT_EQ(pool->Maximum(), 2);

    EXPECT_TRUE(service.Release(false));
    EXPECT_TRUE(service.Initialize());
    std::vector<unsigned int> v4;
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET, &v4), 0);

    EXPECT_TRUE(service.Deinitialize(true));
    EXPECT_EQ(service.Pool(), nullptr);
    EXPECT_EQ(service.LookupIp("gw.swg.test", kAmpleMs, AF_INET, &v4), SWG_DNS_LOOKUP_TIMEOUT);
    EXPECT_TRUE(clock.Sleeps().empty());
}

}  // namespace
