// SPDX-License-Identifier: Apache-2.0
// Tests of one event (reset modes, timed waits, hand-off to groups) and of the wait for any or
// all of several events.
#include "foundation/ConditionEvent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "support/ThreadTestSupport.h"

namespace {

using boost::posix_time::ptime;
using boost_ext::condition_event;
using boost_ext::condition_event_group;
using swg_test::kHangGuard;
using swg_test::WaitUntil;

constexpr unsigned long kGuardMs = 10000;

ptime InMs(long ms) {
    return boost::posix_time::microsec_clock::universal_time() +
           boost::posix_time::milliseconds(ms);
}

long Wait(std::vector<condition_event*> events, bool all, unsigned long timeoutMs) {
    return condition_event_group::WaitForMultipleObjects(events.size(), events.data(), all,
                                                         timeoutMs);
}

template <typename Result>
bool Ready(std::future<Result>& f) {
    return f.wait_for(kHangGuard) == std::future_status::ready;
}

// An automatic-reset event left set lets the next waiter through without a signal; a
// manual-reset one cleared by its first wait leaves the other waiters asleep; a one-shot
// signal given while nobody sleeps is lost; a timed-out wait invents a signal or returns
// early, or a deadline that is not an ordinary time is waited for.
TEST(ConditionEventTest, ResetModesAndTimedWaits) {
    condition_event automatic(true), manual(false), oneShot(false);
    automatic.notify();
    manual.notify();
    EXPECT_TRUE(automatic.is_signal_one());
    EXPECT_TRUE(manual.is_signal_all());
    EXPECT_TRUE(automatic.timed_wait(InMs(0)));
    EXPECT_FALSE(automatic.timed_wait(InMs(0)));
    EXPECT_TRUE(manual.timed_wait(InMs(0)));
    manual.wait();  // returns at once
    EXPECT_TRUE(manual.is_signal_all());
    manual.reset();
    EXPECT_FALSE(manual.timed_wait(InMs(0)));

    oneShot.notify_one();
    EXPECT_TRUE(oneShot.is_signal_one());
    oneShot.wait();  // would hang if the signal had been dropped

    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(automatic.timed_wait(InMs(30)));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(25));
    EXPECT_FALSE(automatic.is_signal_one());
    EXPECT_FALSE(automatic.is_signal_all());
    EXPECT_FALSE(automatic.timed_wait(ptime(boost::posix_time::not_a_date_time)));
    EXPECT_FALSE(automatic.timed_wait(ptime(boost::posix_time::neg_infin)));
}

// notify_all must wake every kind of sleeper, long before a finite deadline and with none.
TEST(ConditionEventTest, NotifyAllWakesEverySleeper) {
    condition_event event(false);
    auto plain = std::async(std::launch::async, [&] {
        event.wait();
        return true;
    });
    auto timed = std::async(std::launch::async, [&] { return event.timed_wait(InMs(60000)); });
    auto endless = std::async(
        std::launch::async, [&] { return event.timed_wait(ptime(boost::posix_time::pos_infin)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    event.notify_all();
    const bool all = Ready(plain) && Ready(timed) && Ready(endless);
    if (!all) event.notify_all();  // release a sleeper left behind before failing
    ASSERT_TRUE(all);
    EXPECT_TRUE(timed.get());
    EXPECT_TRUE(endless.get());
}

// One-shot signals must go to exactly one group each, the groups taking turns in the order
// they subscribed, and the group must remember the member as its last signaller; notify_all
// reaches them all.
TEST(ConditionEventTest, GroupsTakeTurnsOnNotifyOne) {
    condition_event member(true);
    condition_event g1(false), g2(false), g3(false);
    condition_event* groups[] = {&g1, &g2, &g3};
    for (condition_event* g : groups) member.subscribe(g);
    auto takeSignalled = [&] {
        int which = 0, count = 0;
        for (int i = 0; i < 3; ++i) {
            if (groups[i]->is_signal_one()) {
                which = i + 1;
                ++count;
            }
            groups[i]->reset();
        }
        EXPECT_LE(count, 1) << "a one-shot signal reached more than one group";
        return which;
    };

    member.notify_one();
    EXPECT_EQ(g1.last_signaller(), &member);
    EXPECT_EQ(g2.last_signaller(), nullptr);
    EXPECT_EQ(takeSignalled(), 1);
    member.notify_one();
    EXPECT_EQ(takeSignalled(), 2);
    member.notify();  // automatic reset: one-shot
    EXPECT_EQ(takeSignalled(), 3);
    member.unsubscribe(&g2);
    member.notify_one();
    EXPECT_EQ(takeSignalled(), 1);
    member.notify_one();
    EXPECT_EQ(takeSignalled(), 3);

    member.notify_all();
    EXPECT_TRUE(g1.is_signal_all());
    EXPECT_FALSE(g2.is_signal_all());
    EXPECT_TRUE(g3.is_signal_all());
    EXPECT_EQ(g3.last_signaller(), &member);
}

// With several entries signalled the lowest index must win; an automatic-reset event
// reported is consumed, the others keep their signal, a manual one is reported until reset,
// and a null entry counts as signalled after any lower entry that really is.
TEST(WaitForMultipleObjectsTest, AnyOfGivesTheLowestIndexAndLeavesTheOthers) {
    condition_event quiet(false), first(true), second(true), manual(false);
    first.notify();
    second.notify();
    const std::vector<condition_event*> events{&quiet, &first, &second};
    EXPECT_EQ(Wait(events, false, 0), 1);
    EXPECT_TRUE(second.is_signal_one());
    EXPECT_EQ(Wait(events, false, 0), 2);
    EXPECT_EQ(Wait(events, false, 0), WAIT_TIMEOUT_CODE);

    manual.notify();
    EXPECT_EQ(Wait({&quiet, &manual}, false, 0), 1);
    EXPECT_EQ(Wait({&quiet, &manual}, false, 0), 1);
    manual.reset();
    EXPECT_EQ(Wait({&quiet, &manual}, false, 0), WAIT_TIMEOUT_CODE);

    first.notify();
    EXPECT_EQ(Wait({&quiet, nullptr, &first}, false, WAIT_INFINITE), 1);
    EXPECT_TRUE(first.is_signal_one());
    EXPECT_EQ(Wait({&first, nullptr}, false, 0), 0);
    EXPECT_FALSE(first.is_signal_one());
}

// Timeout 0 must poll and a finite timeout must really wait, both giving the timeout code; a
// signal arriving during the wait must end it with that entry's index and consume it; the
// group must be gone from every member afterwards.
TEST(WaitForMultipleObjectsTest, AnyOfTimesOutOrWakesOnSignalDuringTheWait) {
    condition_event a(true), b(true);
    EXPECT_EQ(Wait({&a, &b}, false, 0), WAIT_TIMEOUT_CODE);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(Wait({&a, &b}, false, 30), WAIT_TIMEOUT_CODE);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(25));
    EXPECT_EQ(b.subscriber_count(), 0u);

    auto waiter = std::async(std::launch::async, [&] { return Wait({&a, &b}, false, kGuardMs); });
    ASSERT_TRUE(WaitUntil([&] { return b.subscriber_count() == 1; }));
    b.notify();
    ASSERT_TRUE(Ready(waiter));
    EXPECT_EQ(waiter.get(), 1);
    EXPECT_FALSE(b.is_signal_one());
    EXPECT_EQ(a.subscriber_count(), 0u);
    EXPECT_EQ(b.subscriber_count(), 0u);
}

// A wake-up of the group that no member caused finds nothing and must read as a timeout,
// even without a time limit; when a competing waiter took the flag of the member that woke
// the group, the member is still reported through the group's last signaller.
TEST(WaitForMultipleObjectsTest, EmptyWakeUpIsATimeoutButTheLastSignallerCounts) {
    condition_event a(true), b(false), group(false);
    group.notify_all();
    std::vector<condition_event*> events{&a, &b};
    EXPECT_EQ(condition_event_group::WaitWithGroup(group, 2, events.data(), false, WAIT_INFINITE),
              WAIT_TIMEOUT_CODE);
    EXPECT_EQ(a.subscriber_count(), 0u);

    condition_event member(true), wakes(false);
    member.subscribe(&wakes);
    member.notify_one();  // wakes the group...
    member.reset();       // ...and a competitor takes the flag first
    member.unsubscribe(&wakes);
    events = {&a, &member};
    EXPECT_EQ(condition_event_group::WaitWithGroup(wakes, 2, events.data(), false, 0), 1);
}

// The all-of wait sleeps before it looks: events already signalled on entry are not enough
// without a wake-up during the call (manual-reset events are left set). It must return only
// when every entry has been seen, collecting them over wake-ups, and consume the
// automatic-reset ones.
TEST(WaitForMultipleObjectsTest, AllOfWaitsForAWakeUpAndEveryEvent) {
    {
        condition_event a(false), b(false);
        a.notify();
        b.notify();
        EXPECT_EQ(Wait({&a, &b}, true, 30), WAIT_TIMEOUT_CODE);
        auto waiter = std::async(std::launch::async, [&] {
            return Wait({&a, &b}, true, kGuardMs);
        });
        ASSERT_TRUE(WaitUntil([&] { return a.subscriber_count() == 1; }));
        a.notify();  // the wake-up: both are found signalled
        ASSERT_TRUE(Ready(waiter));
        EXPECT_EQ(waiter.get(), 0);
        EXPECT_TRUE(a.is_signal_all());
    }
    condition_event a(true), b(true);
    std::atomic<bool> returned{false};
    auto waiter = std::async(std::launch::async, [&] {
        const long result = Wait({&a, nullptr, &b}, true, kGuardMs);
        returned = true;
        return result;
    });
    ASSERT_TRUE(WaitUntil([&] { return a.subscriber_count() == 1 && b.subscriber_count() == 1; }));
    a.notify();
    ASSERT_TRUE(WaitUntil([&] { return !a.is_signal_one(); }));  // seen and consumed
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(returned) << "all-of returned with one event outstanding";
    b.notify();
    ASSERT_TRUE(Ready(waiter));
    EXPECT_EQ(waiter.get(), 0);
    EXPECT_FALSE(b.is_signal_one());
    EXPECT_EQ(b.subscriber_count(), 0u);
}

}  // namespace
