// SPDX-License-Identifier: Apache-2.0
// Tests of one event: reset modes, flags, timed waits and the hand-off to subscribed groups.
#include "foundation/ConditionEvent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "ThreadTestSupport.h"

namespace {

using boost_ext::condition_event;

boost::posix_time::ptime InMs(long ms) {
    return boost::posix_time::microsec_clock::universal_time() +
           boost::posix_time::milliseconds(ms);
}

// An automatic-reset event must be cleared by the wait that sees it, or the next waiter
// would pass without a new signal.
TEST(ConditionEventTest, AutoResetIsConsumedByTheWaitThatSeesIt) {
    condition_event event(true);
    event.notify();
    EXPECT_TRUE(event.is_signal_one());
    EXPECT_FALSE(event.is_signal_all());

    EXPECT_TRUE(event.timed_wait(InMs(0)));
    EXPECT_FALSE(event.is_signal_one());
    EXPECT_FALSE(event.timed_wait(InMs(20)));
}

// A manual-reset event must stay signalled for every waiter until reset() clears it.
TEST(ConditionEventTest, ManualResetStaysSignalledUntilReset) {
    condition_event event(false);
    event.notify();
    EXPECT_TRUE(event.is_signal_all());
    EXPECT_FALSE(event.is_signal_one());

    EXPECT_TRUE(event.timed_wait(InMs(0)));
    EXPECT_TRUE(event.timed_wait(InMs(0)));
    event.wait();  // returns at once
    EXPECT_TRUE(event.is_signal_all());

    event.reset();
    EXPECT_FALSE(event.is_signal_all());
    EXPECT_FALSE(event.timed_wait(InMs(20)));
}

// A one-shot signal given while nobody sleeps must not be lost: the next wait takes it.
TEST(ConditionEventTest, NotifyOneWithoutSleeperLeavesSignalOneSet) {
    condition_event event(false);
    event.notify_one();
    EXPECT_TRUE(event.is_signal_one());
    EXPECT_FALSE(event.is_signal_all());
    event.wait();  // would hang if the signal had been dropped
    EXPECT_TRUE(event.is_signal_one());
}

// A timed-out wait must neither invent a signal nor return early.
TEST(ConditionEventTest, TimedOutWaitLeavesFlagsClear) {
    condition_event event(true);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(event.timed_wait(InMs(30)));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(25));
    EXPECT_FALSE(event.is_signal_one());
    EXPECT_FALSE(event.is_signal_all());
}

// Deadlines that are not ordinary times: +infinity waits, the others have already passed.
TEST(ConditionEventTest, SpecialDeadlines) {
    condition_event event(false);
    EXPECT_FALSE(event.timed_wait(boost::posix_time::ptime(boost::posix_time::not_a_date_time)));
    EXPECT_FALSE(event.timed_wait(boost::posix_time::ptime(boost::posix_time::neg_infin)));

    auto waiter = std::async(std::launch::async, [&] {
        return event.timed_wait(boost::posix_time::ptime(boost::posix_time::pos_infin));
    });
    event.notify();
    ASSERT_EQ(waiter.wait_for(swg_test::kHangGuard), std::future_status::ready);
    EXPECT_TRUE(waiter.get());
}

// wait() must block until another thread signals, and take the signal of an
// automatic-reset event.
TEST(ConditionEventTest, WaitBlocksUntilAnotherThreadSignals) {
    condition_event event(true);
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        event.wait();
        returned = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(returned);
    event.notify();
    waiter.join();
    EXPECT_TRUE(returned);
    EXPECT_FALSE(event.is_signal_one());
}

// A timed wait must wake on a signal long before its deadline.
TEST(ConditionEventTest, TimedWaitWakesOnSignal) {
    condition_event event(true);
    auto waiter = std::async(std::launch::async, [&] { return event.timed_wait(InMs(60000)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    event.notify();
    ASSERT_EQ(waiter.wait_for(swg_test::kHangGuard), std::future_status::ready);
    EXPECT_TRUE(waiter.get());
    EXPECT_FALSE(event.is_signal_one());
}

// notify_all must reach every sleeper, not just one.
TEST(ConditionEventTest, NotifyAllWakesEverySleeper) {
    condition_event event(false);
    auto a = std::async(std::launch::async, [&] { event.wait(); });
    auto b = std::async(std::launch::async, [&] { event.wait(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    event.notify_all();
    const bool both = a.wait_for(swg_test::kHangGuard) == std::future_status::ready &&
                      b.wait_for(swg_test::kHangGuard) == std::future_status::ready;
    if (!both) event.notify_all();  // release the sleeper left behind before failing
    EXPECT_TRUE(both);
}

class GroupHandOffTest : public ::testing::Test {
protected:
    condition_event member{true};
    condition_event g1{false}, g2{false}, g3{false};

    // Which group holds the one-shot signal, after clearing them all for the next round.
    int TakeSignalledGroup() {
        int which = 0;
        int count = 0;
        condition_event* groups[] = {&g1, &g2, &g3};
        for (int i = 0; i < 3; ++i) {
            if (groups[i]->is_signal_one()) {
                which = i + 1;
                ++count;
            }
            EXPECT_FALSE(groups[i]->is_signal_all());
            groups[i]->reset();
        }
        EXPECT_LE(count, 1) << "a one-shot signal reached more than one group";
        return which;
    }
};

// One-shot signals must go to exactly one group each, the groups taking turns in the order
// they subscribed; the member remembers itself as the group's last signaller.
TEST_F(GroupHandOffTest, NotifyOneGoesToOneGroupAndGroupsTakeTurns) {
    member.subscribe(&g1);
    member.subscribe(&g2);
    member.subscribe(&g3);

    member.notify_one();
    EXPECT_EQ(g1.last_signaller(), &member);
    EXPECT_EQ(g2.last_signaller(), nullptr);
    EXPECT_EQ(TakeSignalledGroup(), 1);
    EXPECT_TRUE(member.is_signal_one());

    member.notify_one();
    EXPECT_EQ(TakeSignalledGroup(), 2);
    member.notify();  // automatic reset: one-shot
    EXPECT_EQ(TakeSignalledGroup(), 3);
    member.notify_one();
    EXPECT_EQ(TakeSignalledGroup(), 1);
    EXPECT_EQ(member.subscriber_count(), 3u);
}

// notify_all must reach every subscribed group with signal_all and record the signaller.
TEST_F(GroupHandOffTest, NotifyAllReachesEveryGroup) {
    member.subscribe(&g1);
    member.subscribe(&g2);
    member.notify_all();
    EXPECT_TRUE(g1.is_signal_all());
    EXPECT_TRUE(g2.is_signal_all());
    EXPECT_FALSE(g3.is_signal_all());
    EXPECT_EQ(g1.last_signaller(), &member);
    EXPECT_EQ(g2.last_signaller(), &member);
    EXPECT_TRUE(member.is_signal_all());
}

// A null subscription must be ignored, not take a turn or crash the hand-off.
TEST_F(GroupHandOffTest, SubscribeIgnoresNull) {
    member.subscribe(nullptr);
    EXPECT_EQ(member.subscriber_count(), 0u);
    member.subscribe(&g1);
    member.subscribe(nullptr);
    EXPECT_EQ(member.subscriber_count(), 1u);
    member.notify_one();
    EXPECT_EQ(TakeSignalledGroup(), 1);
    member.notify_one();
    EXPECT_EQ(TakeSignalledGroup(), 1);
}

// unsubscribe must remove only the first matching entry and ignore unknown groups.
TEST_F(GroupHandOffTest, UnsubscribeRemovesFirstMatchOnly) {
    member.subscribe(&g1);
    member.subscribe(&g2);
    member.subscribe(&g1);
    member.unsubscribe(&g3);
    EXPECT_EQ(member.subscriber_count(), 3u);

    member.unsubscribe(&g1);  // list is now g2, g1
    EXPECT_EQ(member.subscriber_count(), 2u);
    member.notify_one();
    EXPECT_EQ(TakeSignalledGroup(), 2);
    member.notify_one();
    EXPECT_EQ(TakeSignalledGroup(), 1);

    member.unsubscribe(&g1);
    member.unsubscribe(&g2);
    EXPECT_EQ(member.subscriber_count(), 0u);
    member.notify_one();
    EXPECT_EQ(TakeSignalledGroup(), 0);
}

}  // namespace
