// SPDX-License-Identifier: Apache-2.0
// The look-up schedule of the rules' host names, on a time of the test's choosing.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "platform/linux/NftNameSchedule.h"

namespace {

using namespace std::chrono_literals;
using TimePoint = CNftNameSchedule::TimePoint;

NftAddress V4(const char* text) {
    NftAddress address;
    address.family = AF_INET;
    inet_pton(AF_INET, text, address.bytes.data());
    return address;
}

class NftNameScheduleTest : public ::testing::Test {
protected:
    // Fails `name` at each due time until `count` failures; returns the pauses between them.
    std::vector<std::chrono::milliseconds> FailRepeatedly(const std::string& name, int count) {
        std::vector<std::chrono::milliseconds> pauses;
        for (int i = 0; i < count; ++i) {
            const TimePoint at = *m_schedule.NextDue();
            EXPECT_EQ(m_schedule.Due(at), std::vector<std::string>{name});
            m_schedule.Record(name, false, {}, at);
            pauses.push_back(
                std::chrono::duration_cast<std::chrono::milliseconds>(*m_schedule.NextDue() - at));
        }
        return pauses;
    }

    const TimePoint m_start{};
    CNftNameSchedule m_schedule{NftNameTiming{1000ms, 30000ms, 60000ms}};
};

// A name that does not resolve at boot must be tried again soon, then less often, but never
// less often than the bound: unbounded, an exception named before DNS is up stays unenforced.
TEST_F(NftNameScheduleTest, FailuresBackOffUpToTheBound) {
    m_schedule.SetNames({"late.test"}, m_start);
    EXPECT_EQ(m_schedule.Due(m_start), std::vector<std::string>{"late.test"});
    EXPECT_EQ(FailRepeatedly("late.test", 8),
              (std::vector<std::chrono::milliseconds>{1000ms, 2000ms, 4000ms, 8000ms, 16000ms,
                                                      30000ms, 30000ms, 30000ms}));
    const TimePoint at = *m_schedule.NextDue();
    EXPECT_TRUE(m_schedule.Record("late.test", true, {V4("198.18.0.4")}, at));
    EXPECT_EQ(*m_schedule.NextDue() - at, 60000ms);
    EXPECT_EQ(m_schedule.Failures("late.test"), 0u);
    EXPECT_EQ(FailRepeatedly("late.test", 1), std::vector<std::chrono::milliseconds>{1000ms});
}

// Answers: a failure after an answer keeps the addresses (a resolver outage must not lift an
// exception), a rotated answer is no change, a new address is; clearing the cache or a
// network change makes every name due at once; a name no longer in the rules goes.
TEST_F(NftNameScheduleTest, AnswersAreKeptComparedAndForgotten) {
    m_schedule.SetNames({"a.test", "b.test"}, m_start);
    EXPECT_TRUE(m_schedule.Record("a.test", true, {V4("198.18.0.2"), V4("198.18.0.3")}, m_start));
    EXPECT_FALSE(m_schedule.Record("a.test", true, {V4("198.18.0.3"), V4("198.18.0.2")}, m_start));
    EXPECT_FALSE(m_schedule.Record("a.test", false, {}, m_start + 1s));
    EXPECT_EQ(m_schedule.Answers().at("a.test").size(), 2u);
    EXPECT_TRUE(m_schedule.Record("a.test", true, {V4("198.18.0.9")}, m_start + 2s));
    EXPECT_EQ(m_schedule.Due(m_start + 3s), std::vector<std::string>{"b.test"});

    m_schedule.Record("b.test", true, {V4("198.18.0.5")}, m_start + 3s);
    EXPECT_TRUE(m_schedule.Due(m_start + 4s).empty());
    m_schedule.DueAll(m_start + 4s);
    EXPECT_EQ(m_schedule.Due(m_start + 4s), (std::vector<std::string>{"a.test", "b.test"}));

    m_schedule.SetNames({"b.test", "c.test"}, m_start + 5s);
    EXPECT_EQ(m_schedule.Answers().count("a.test"), 0u);
    EXPECT_EQ(m_schedule.Answers().count("b.test"), 1u);
    EXPECT_FALSE(m_schedule.Record("a.test", true, {V4("198.18.0.2")}, m_start + 5s));
}

}  // namespace
