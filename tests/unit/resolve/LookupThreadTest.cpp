// SPDX-License-Identifier: Apache-2.0
// Tests of one lookup worker: the four jobs, their results, and the hand-over to the caller.
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <string>
#include <vector>

#include "FakeAddressResolver.h"
#include "resolve/LookupThread.h"
#include "unit/foundation/ThreadTestSupport.h"

namespace {

using boost_ext::condition_event;
using boost_ext::condition_event_group;
using swg_test::FakeAddressResolver;
using swg_test::Ipv4;
using swg_test::Ipv6;
using swg_test::WaitUntil;

constexpr unsigned long kGuardMs = 10000;

bool WaitFor(condition_event& event) {
    condition_event* events[1] = {&event};
    return condition_event_group::WaitForMultipleObjects(1, events, false, kGuardMs) == 0;
}

class LookupThreadTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(worker.Initialize());
        ASSERT_EQ(worker.StartThread(), 0);
    }
    void TearDown() override {
        resolver.OpenGate();
        worker.Kill();
        worker.Wait();
        worker.Deinitialize();
        EXPECT_EQ(resolver.Outstanding(), 0) << "a result list was not freed";
    }

    // Runs one job to its result event and reads nothing; the worker holds its results.
    void AwaitResult() { ASSERT_TRUE(WaitFor(worker.ResultEvent())); }
    // Lets go of the worker and waits until it is idle again.
    void Release() {
        worker.SetIdle();
        ASSERT_TRUE(WaitFor(done));
        ASSERT_TRUE(WaitUntil([&] { return worker.work_state == CDnEventThread::kIdle; }));
        done.reset();
    }

    FakeAddressResolver resolver;
    CDnLookupThread worker{resolver};
    condition_event done{false};
};

// Guards against lost or reordered IPv4 results, a vector that is copied instead of moved out,
// and hints other than a TCP stream lookup of IPv4 with the canonical name.
TEST_F(LookupThreadTest, ForwardIPv4GivesEveryAddressInResolverOrder) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.11", "2001:db8::1", "198.18.0.10"});
    ASSERT_EQ(worker.Start(done, std::string("gw.swg.test"), false), 0);
    AwaitResult();

    EXPECT_EQ(worker.GetLastError(), 0);
    std::vector<unsigned int> addresses;
    worker.GetResolvedIPs(&addresses);
    EXPECT_EQ(addresses, (std::vector<unsigned int>{Ipv4("198.18.0.11"), Ipv4("198.18.0.10")}));
    std::vector<unsigned int> again{1};
    worker.GetResolvedIPs(&again);
    EXPECT_TRUE(again.empty()) << "results were copied, not moved out";
    std::list<boost::asio::ip::address> list;
    worker.GetResolvedAddresses(list);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list.front().to_string(), "198.18.0.11");

    const std::vector<addrinfo> hints = resolver.Hints();
    ASSERT_EQ(hints.size(), 1u);
    EXPECT_EQ(hints[0].ai_flags, AI_CANONNAME);
    EXPECT_EQ(hints[0].ai_family, AF_INET);
    EXPECT_EQ(hints[0].ai_socktype, SOCK_STREAM);
    EXPECT_EQ(hints[0].ai_protocol, IPPROTO_TCP);
    Release();
}

// Guards against a missing terminator, a wrong family tag or an array that the worker still
// frees after handing it over (double free under AddressSanitizer).
TEST_F(LookupThreadTest, AllFamiliesGivesTerminatedArrayOwnedByCaller) {
    resolver.SetAddresses("dual.swg.test", {"198.18.0.10", "2001:db8::10"});
    ASSERT_EQ(worker.Start(done, std::string("dual.swg.test"), nullptr, false), 0);
    AwaitResult();

    EXPECT_EQ(worker.GetLastError(), 0);
    DnIPAddress* array = nullptr;
    worker.GetResolvedIPs(&array);
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(array[0].family, AF_INET);
    EXPECT_EQ(array[0].ipv4, Ipv4("198.18.0.10"));
    EXPECT_EQ(array[1].family, AF_INET6);
    EXPECT_EQ(std::vector<uint8_t>(array[1].ipv6, array[1].ipv6 + 16), Ipv6("2001:db8::10"));
    EXPECT_EQ(array[2].family, 0);
    delete[] array;
    DnIPAddress sentinel{};
    DnIPAddress* second = &sentinel;
    worker.GetResolvedIPs(&second);
    EXPECT_EQ(second, nullptr) << "the worker kept the array it handed over";
    EXPECT_EQ(resolver.Hints().at(0).ai_family, AF_UNSPEC);
    Release();
}

// Guards against a reverse lookup built with the wrong address record, a port, a host buffer
// other than 256 bytes, or without NI_NAMEREQD (which would turn a miss into a numeric name).
TEST_F(LookupThreadTest, ReverseLookupsAskForTheNameOfTheAddress) {
    resolver.SetName("198.18.0.10", 0, "gateway.swg.test");
    resolver.SetName("2001:db8::10", 0, "gateway6.swg.test");

    ASSERT_EQ(worker.Start(done, Ipv4("198.18.0.10"), false), 0);
    AwaitResult();
    std::string name;
    worker.GetResolvedName(name);
    EXPECT_EQ(name, "gateway.swg.test");
    Release();

    std::vector<uint8_t> v6 = Ipv6("2001:db8::10");
    ASSERT_EQ(worker.Start(done, v6.data(), false), 0);
    AwaitResult();
    worker.GetResolvedName(name);
    EXPECT_EQ(name, "gateway6.swg.test");
    Release();

    const std::vector<swg_test::FakeNameCall> calls = resolver.NameCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].family, AF_INET);
    EXPECT_EQ(calls[0].length, sizeof(sockaddr_in));
    EXPECT_EQ(calls[0].address, "198.18.0.10");
    EXPECT_EQ(calls[1].family, AF_INET6);
    EXPECT_EQ(calls[1].length, sizeof(sockaddr_in6));
    EXPECT_EQ(calls[1].address, "2001:db8::10");
    for (const auto& call : calls) {
        EXPECT_EQ(call.port, 0);
        EXPECT_EQ(call.hostLength, 256u);
        EXPECT_EQ(call.flags, NI_NAMEREQD);
    }
    EXPECT_TRUE(resolver.Nodes().empty());
}

// Guards the rule that the IPv4 address 0 is not a reverse job: it is a forward lookup of "".
TEST_F(LookupThreadTest, ReverseOfAddressZeroIsForwardOfEmptyName) {
    ASSERT_EQ(worker.Start(done, 0u, false), 0);
    AwaitResult();
    EXPECT_EQ(worker.GetLastError(), EAI_NONAME);
    EXPECT_EQ(resolver.Nodes(), std::vector<std::string>{""});
    EXPECT_TRUE(resolver.NameCalls().empty());
    Release();
}

// Guards the error mapping: resolver codes pass through, EAI_SYSTEM becomes its errno, and a
// failed reverse lookup leaves no name behind.
TEST_F(LookupThreadTest, FailuresReportResolverCodeOrErrno) {
    swg_test::FakeAnswer refused;
    refused.code = EAI_SYSTEM;
    refused.savedErrno = ECONNREFUSED;
    resolver.SetAnswer("refused.swg.test", refused);
    swg_test::FakeAnswer again;
    again.code = EAI_AGAIN;
    resolver.SetAnswer("again.swg.test", again);
    resolver.SetName("198.18.0.12", EAI_NONAME, "");

    ASSERT_EQ(worker.Start(done, std::string("refused.swg.test"), false), 0);
    AwaitResult();
    EXPECT_EQ(worker.GetLastError(), ECONNREFUSED);
    Release();

    ASSERT_EQ(worker.Start(done, std::string("again.swg.test"), nullptr, false), 0);
    AwaitResult();
    EXPECT_EQ(worker.GetLastError(), EAI_AGAIN);
    DnIPAddress* array = nullptr;
    worker.GetResolvedIPs(&array);
    EXPECT_EQ(array, nullptr);
    Release();

    ASSERT_EQ(worker.Start(done, Ipv4("198.18.0.12"), false), 0);
    AwaitResult();
    EXPECT_EQ(worker.GetLastError(), EAI_NONAME);
    std::string name = "stale";
    worker.GetResolvedName(name);
    EXPECT_EQ(name, "");
    Release();
}

// Guards the hand-over: after its result the worker stays busy, holding the results, until the
// caller lets go; it must not signal its pool before.
TEST_F(LookupThreadTest, WorkerHoldsResultsUntilSetIdle) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    ASSERT_EQ(worker.Start(done, std::string("gw.swg.test"), false), 0);
    AwaitResult();
    EXPECT_EQ(worker.work_state, CDnEventThread::kBusy);
    EXPECT_FALSE(done.is_signal_all());
    EXPECT_EQ(worker.Start(done, std::string("other.swg.test"), false), 1)
        << "a held worker took a second job";
    Release();
}

// Guards the abandon path: a caller that lets go while the resolver still runs must not get
// the worker back as idle until the resolver call has returned, and the next job must see
// none of the abandoned job's results.
TEST_F(LookupThreadTest, WorkerReleasedMidLookupTurnsIdleOnlyAfterTheCallReturns) {
    resolver.SetAddresses("slow.swg.test", {"198.18.0.20"});
    resolver.SetAddresses("next.swg.test", {"198.18.0.21"});
    resolver.CloseGate();
    ASSERT_EQ(worker.Start(done, std::string("slow.swg.test"), false), 0);
    ASSERT_TRUE(resolver.WaitHeld(1));
    worker.SetIdle();
    EXPECT_EQ(worker.work_state, CDnEventThread::kBusy);
    EXPECT_FALSE(done.is_signal_all());

    resolver.OpenGate();
    ASSERT_TRUE(WaitFor(done));
    ASSERT_TRUE(WaitUntil([&] { return worker.work_state == CDnEventThread::kIdle; }));
    done.reset();

    ASSERT_EQ(worker.Start(done, std::string("next.swg.test"), false), 0);
    AwaitResult();
    std::vector<unsigned int> addresses;
    worker.GetResolvedIPs(&addresses);
    EXPECT_EQ(addresses, std::vector<unsigned int>{Ipv4("198.18.0.21")});
    Release();
}

// Guards shutdown: a worker held with results (its caller never let go) ends on Kill.
TEST_F(LookupThreadTest, KillEndsAWorkerThatHoldsResults) {
    resolver.SetAddresses("gw.swg.test", {"198.18.0.10"});
    ASSERT_EQ(worker.Start(done, std::string("gw.swg.test"), false), 0);
    AwaitResult();
    worker.Kill();
    EXPECT_EQ(worker.Wait(static_cast<unsigned int>(kGuardMs)), 0);
}

}  // namespace
