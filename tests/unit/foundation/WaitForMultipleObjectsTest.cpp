// SPDX-License-Identifier: Apache-2.0
// Tests of the wait for any or all of several events, and of the two scans behind it.
#include "foundation/ConditionEvent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "ThreadTestSupport.h"

namespace {

using boost_ext::condition_event;
using boost_ext::condition_event_group;
using swg_test::kHangGuard;
using swg_test::WaitUntil;

long WaitAny(std::vector<condition_event*> events, unsigned long timeoutMs) {
    return condition_event_group::WaitForMultipleObjects(events.size(), events.data(), false,
                                                         timeoutMs);
}

long WaitAll(std::vector<condition_event*> events, unsigned long timeoutMs) {
    return condition_event_group::WaitForMultipleObjects(events.size(), events.data(), true,
                                                         timeoutMs);
}

constexpr unsigned long kGuardMs = 10000;

// Timeout 0 must poll: timeout code when nothing is signalled, and no subscription left
// behind on the members.
TEST(WaitAnyTest, ZeroTimeoutWithNothingSignalledTimesOut) {
    condition_event a(true), b(false);
    EXPECT_EQ(WaitAny({&a, &b}, 0), WAIT_TIMEOUT_CODE);
    EXPECT_EQ(a.subscriber_count(), 0u);
    EXPECT_EQ(b.subscriber_count(), 0u);
}

// With several entries signalled the lowest index must win; the automatic-reset event
// reported is consumed and the others keep their signal.
TEST(WaitAnyTest, LowestIndexWinsAndOnlyItIsConsumed) {
    condition_event quiet(false), first(true), second(true);
    first.notify();
    second.notify();

    EXPECT_EQ(WaitAny({&quiet, &first, &second}, 0), 1);
    EXPECT_FALSE(first.is_signal_one());
    EXPECT_TRUE(second.is_signal_one());
    EXPECT_EQ(WaitAny({&quiet, &first, &second}, 0), 2);
    EXPECT_EQ(WaitAny({&quiet, &first, &second}, 0), WAIT_TIMEOUT_CODE);
}

// A manual-reset event is reported on every wait until it is reset: callers that forget
// the reset spin, so the reset must be what ends it.
TEST(WaitAnyTest, ManualResetIsReportedUntilReset) {
    condition_event manual(false), other(true);
    manual.notify();
    other.notify();
    EXPECT_EQ(WaitAny({&manual, &other}, 0), 0);
    EXPECT_EQ(WaitAny({&manual, &other}, 0), 0);
    manual.reset();
    EXPECT_EQ(WaitAny({&manual, &other}, 0), 1);
    EXPECT_EQ(WaitAny({&manual, &other}, 0), WAIT_TIMEOUT_CODE);
}

// A null entry counts as signalled, after any lower entry that really is.
TEST(WaitAnyTest, NullEntryCountsAsSignalled) {
    condition_event low(true), high(true);
    high.notify();
    EXPECT_EQ(WaitAny({&low, nullptr, &high}, WAIT_INFINITE), 1);
    EXPECT_TRUE(high.is_signal_one());

    low.notify();
    EXPECT_EQ(WaitAny({&low, nullptr, &high}, 0), 0);
    EXPECT_FALSE(low.is_signal_one());
}

// A signal arriving during the wait must end it with that entry's index, and the group
// must be gone from every member afterwards.
TEST(WaitAnyTest, WakesOnSignalDuringTheWait) {
    condition_event a(true), b(true);
    auto waiter = std::async(std::launch::async, [&] { return WaitAny({&a, &b}, WAIT_INFINITE); });
    ASSERT_TRUE(WaitUntil([&] { return b.subscriber_count() == 1; }));
    b.notify();
    ASSERT_EQ(waiter.wait_for(kHangGuard), std::future_status::ready);
    EXPECT_EQ(waiter.get(), 1);
    EXPECT_FALSE(b.is_signal_one());
    EXPECT_EQ(a.subscriber_count(), 0u);
    EXPECT_EQ(b.subscriber_count(), 0u);
}

// A finite timeout must really wait that long and then give the timeout code.
TEST(WaitAnyTest, TimesOutAfterTheTimeout) {
    condition_event a(true);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(WaitAny({&a}, 30), WAIT_TIMEOUT_CODE);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(25));
    EXPECT_EQ(a.subscriber_count(), 0u);
}

// A wake-up of the group that no member caused finds nothing and must read as a timeout,
// even without a time limit.
TEST(WaitAnyTest, EmptyWakeUpReadsAsTimeoutEvenWhenInfinite) {
    condition_event a(true), b(false);
    condition_event group(false);
    group.notify_all();
    std::vector<condition_event*> events{&a, &b};
    EXPECT_EQ(condition_event_group::WaitWithGroup(group, 2, events.data(), false, WAIT_INFINITE),
              WAIT_TIMEOUT_CODE);
    EXPECT_EQ(a.subscriber_count(), 0u);
    EXPECT_EQ(b.subscriber_count(), 0u);
}

// When a competing waiter took the flag of the member that woke the group, the member is
// still reported through the group's last signaller.
TEST(WaitAnyTest, LastSignallerCountsWhenAnotherWaiterTookTheFlag) {
    condition_event quiet(true), member(true);
    condition_event group(false);
    member.subscribe(&group);
    member.notify_one();  // wakes the group...
    member.reset();       // ...and a competitor takes the flag first
    member.unsubscribe(&group);

    std::vector<condition_event*> events{&quiet, &member};
    EXPECT_EQ(condition_event_group::WaitWithGroup(group, 2, events.data(), false, 0), 1);
}

// Two group waiters on one automatic-reset event: each one-shot signal must end exactly one
// wait, and the next signal must reach the other waiter.
TEST(WaitAnyTest, GroupWaitersTakeTurnsOnOneShotSignals) {
    condition_event shared(true);
    std::atomic<int> finished{0};
    auto waitOnce = [&] {
        const long result = WaitAny({&shared}, kGuardMs);
        ++finished;
        return result;
    };
    auto first = std::async(std::launch::async, waitOnce);
    auto second = std::async(std::launch::async, waitOnce);
    ASSERT_TRUE(WaitUntil([&] { return shared.subscriber_count() == 2; }));

    shared.notify_one();
    ASSERT_TRUE(WaitUntil([&] { return finished == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(finished, 1) << "one signal ended both waits";
    EXPECT_EQ(shared.subscriber_count(), 1u);

    shared.notify_one();
    ASSERT_EQ(first.wait_for(kHangGuard), std::future_status::ready);
    ASSERT_EQ(second.wait_for(kHangGuard), std::future_status::ready);
    EXPECT_EQ(first.get(), 0);
    EXPECT_EQ(second.get(), 0);
    EXPECT_FALSE(shared.is_signal_one());
}

// The all-of wait sleeps before it looks: events already signalled on entry are not enough
// without a wake-up during the call.
TEST(WaitAllTest, EventsSignalledBeforeTheCallAreSeenOnlyAfterAWakeUp) {
    condition_event a(false), b(false);
    a.notify();
    b.notify();
    EXPECT_EQ(WaitAll({&a, &b}, 30), WAIT_TIMEOUT_CODE);
    EXPECT_EQ(a.subscriber_count(), 0u);

    auto waiter = std::async(std::launch::async, [&] { return WaitAll({&a, &b}, kGuardMs); });
    ASSERT_TRUE(WaitUntil([&] { return a.subscriber_count() == 1; }));
    a.notify();  // the wake-up: both are found signalled
    ASSERT_EQ(waiter.wait_for(kHangGuard), std::future_status::ready);
    EXPECT_EQ(waiter.get(), 0);
    EXPECT_TRUE(a.is_signal_all());  // manual reset is left as it is
}

// All-of must return only when every entry has been seen, collecting them over wake-ups,
// and consume the automatic-reset ones.
TEST(WaitAllTest, ReturnsOnlyWhenEveryEventFired) {
    condition_event a(true), b(true);
    std::atomic<bool> returned{false};
    auto waiter = std::async(std::launch::async, [&] {
        const long result = WaitAll({&a, nullptr, &b}, kGuardMs);
        returned = true;
        return result;
    });
    ASSERT_TRUE(WaitUntil([&] { return a.subscriber_count() == 1 && b.subscriber_count() == 1; }));

    a.notify();
    ASSERT_TRUE(WaitUntil([&] { return !a.is_signal_one(); }));  // seen and consumed
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(returned) << "all-of returned with one event outstanding";

    b.notify();
    ASSERT_EQ(waiter.wait_for(kHangGuard), std::future_status::ready);
    EXPECT_EQ(waiter.get(), 0);
    EXPECT_FALSE(b.is_signal_one());
    EXPECT_EQ(a.subscriber_count(), 0u);
    EXPECT_EQ(b.subscriber_count(), 0u);
}

// An all-of wait that runs out of time gives the timeout code, even though part of the set
// fired, and unsubscribes.
TEST(WaitAllTest, PartialSetTimesOut) {
    condition_event a(true), b(true);
    auto waiter = std::async(std::launch::async, [&] { return WaitAll({&a, &b}, 200); });
    WaitUntil([&] { return a.subscriber_count() == 1; });
    a.notify();
    ASSERT_EQ(waiter.wait_for(kHangGuard), std::future_status::ready);
    EXPECT_EQ(waiter.get(), WAIT_TIMEOUT_CODE);
    EXPECT_EQ(a.subscriber_count(), 0u);
    EXPECT_EQ(b.subscriber_count(), 0u);
}

// A set of null entries alone has nothing that could wake the wait: it times out.
TEST(WaitAllTest, OnlyNullEntriesStillWaitFirst) {
    EXPECT_EQ(WaitAll({nullptr, nullptr}, 20), WAIT_TIMEOUT_CODE);
}

// The any-of scan: null and signalled entries in index order, then the group's last
// signaller; a count of 0 finds nothing.
TEST(FindSignaledTest, ScansInIndexOrder) {
    condition_event a(true), b(true), group(false);
    std::vector<condition_event*> events{&a, &b};
    unsigned long index = 7;
    EXPECT_FALSE(condition_event_group::find_signaled(group, 0, events.data(), index));
    EXPECT_EQ(index, 0u);
    EXPECT_FALSE(condition_event_group::find_signaled(group, 2, events.data(), index));

    b.notify();
    index = 7;
    EXPECT_TRUE(condition_event_group::find_signaled(group, 2, events.data(), index));
    EXPECT_EQ(index, 1u);
    EXPECT_FALSE(b.is_signal_one());

    std::vector<condition_event*> withNull{&a, nullptr};
    EXPECT_TRUE(condition_event_group::find_signaled(group, 2, withNull.data(), index));
    EXPECT_EQ(index, 1u);
}

// The all-of scan: every null or signalled entry gets its bit, the index is the last one
// found, automatic-reset entries are consumed and manual ones kept.
TEST(FindAllSignaledTest, MarksEverySignalledEntry) {
    condition_event autoSet(true), unset(true), manualSet(false);
    autoSet.notify();
    manualSet.notify();
    std::vector<condition_event*> events{&autoSet, nullptr, &unset, &manualSet};
    std::vector<bool> bits;
    unsigned long index = 9;
    EXPECT_TRUE(condition_event_group::find_all_signaled(4, events.data(), index, bits));
    EXPECT_EQ(bits, (std::vector<bool>{true, true, false, true}));
    EXPECT_EQ(index, 3u);
    EXPECT_FALSE(autoSet.is_signal_one());
    EXPECT_TRUE(manualSet.is_signal_all());

    std::vector<condition_event*> quiet{&unset};
    std::vector<bool> none(1, false);
    EXPECT_FALSE(condition_event_group::find_all_signaled(1, quiet.data(), index, none));
    EXPECT_EQ(index, 0u);
    EXPECT_FALSE(none[0]);
}

}  // namespace
