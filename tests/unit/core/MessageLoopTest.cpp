// SPDX-License-Identifier: Apache-2.0
// The main loop's debounce and dispatch, driven by a scripted host and a fake clock.
#include "core/MessageLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "foundation/ConditionEvent.h"
#include "support/ThreadTestSupport.h"

namespace {
using boost::posix_time::milliseconds;
using boost::posix_time::ptime;

enum class Arrival { Timeout, Message, Quit, AddrChange, Unknown };

struct Step {
    long afterMs;     // time that passes inside the wait before it returns
    Arrival arrival;  // what ends the wait (Timeout means the wait ran to its limit)
};

// Replays a script of arrivals. A Timeout step advances the clock by the wait's own
// timeout, so the test sees exactly when the loop chose to act.
class ScriptedHost : public IMessageLoopHost {
public:
    explicit ScriptedHost(const std::vector<Step>& steps) : m_steps(steps.begin(), steps.end()) {}

    long WaitForEvents(unsigned long timeoutMs) override {
        timeouts.push_back(timeoutMs);
        if (m_steps.empty()) {
            m_pendingQuit = true;
            return 0;
        }
        const Step step = m_steps.front();
        m_steps.pop_front();
        if (step.arrival == Arrival::Timeout) {
            if (timeoutMs != WAIT_INFINITE) m_now += milliseconds(timeoutMs);
            return WAIT_TIMEOUT_CODE;
        }
        m_now += milliseconds(step.afterMs);
        m_pendingQuit = step.arrival == Arrival::Quit;
        if (step.arrival == Arrival::AddrChange) return 1;
        return step.arrival == Arrival::Unknown ? 7 : 0;
    }
    ptime Now() override { return m_now; }
    void TakeActionOnAddrChange() override {
        actions.push_back((m_now - m_start).total_milliseconds());
    }
    void ResetAddrChangeEvent() override {}
    bool DrainMessages() override {
        const bool quit = m_pendingQuit;
        m_pendingQuit = false;
        return quit;
    }

    std::vector<unsigned long> timeouts;
    std::vector<long> actions;  // ms since start at which the loop acted

private:
    std::deque<Step> m_steps;
    const ptime m_start{boost::gregorian::date(2026, 1, 1)};
    ptime m_now{m_start};
    bool m_pendingQuit = false;
};

struct DebounceCase {
    const char* name;
    std::vector<Step> script;
    std::vector<long> actions;            // when the loop acted, ms from the start
    std::vector<unsigned long> timeouts;  // the timeout of every wait, in order
};

constexpr unsigned long kInf = WAIT_INFINITE;
constexpr Arrival kChange = Arrival::AddrChange;
constexpr Arrival kTimeout = Arrival::Timeout;
constexpr Arrival kQuit = Arrival::Quit;

const DebounceCase kDebounceCases[] = {
    // Acting at once, or twice, on one change.
    {"SingleChangeActsOnceAfterWindow",
     {{1000, kChange}, {0, kTimeout}, {0, kQuit}},
     {6000},
     {kInf, 5000, kInf}},
    // Acting on every change of a burst, or not restarting the window.
    {"BurstActsOnceAfterLastChange",
     {{0, kChange}, {3000, kChange}, {0, kTimeout}, {0, kQuit}},
     {8000},
     {kInf, 5000, 5000, kInf}},
    // A message restarting the window, or cutting it short.
    {"MessageInsideWindowKeepsDeadline",
     {{0, kChange}, {1200, Arrival::Message}, {0, kTimeout}, {0, kQuit}},
     {5000},
     {kInf, 5000, 3800, kInf}},
    // Acting on a change that had not settled when the agent stops.
    {"QuitInsideWindowDropsPendingAction", {{0, kChange}, {2000, kQuit}}, {}, {kInf, 5000}},
    // Losing a settled change because quit arrived at the same time.
    {"QuitAfterDeadlineActsFirst", {{0, kChange}, {5000, kQuit}}, {5000}, {kInf, 5000}},
    // Folding a late change into the old run instead of acting and opening a new window.
    {"LateChangeActsThenOpensNewWindow",
     {{0, kChange}, {6000, kChange}, {0, kTimeout}, {0, kQuit}},
     {6000, 11000},
     {kInf, 5000, 5000, kInf}},
    // Treating an empty wake-up of an infinite wait as an error instead of a timeout.
    {"EmptyWakeUpReadsAsTimeout", {{0, kTimeout}, {0, kQuit}}, {0}, {kInf, kInf}},
    // Ending the loop, or acting, on a wait result it does not know.
    {"UnknownResultKeepsLooping", {{0, Arrival::Unknown}, {0, kQuit}}, {}, {kInf, kInf}},
};

class MessageLoopDebounceTest : public ::testing::TestWithParam<DebounceCase> {};

TEST_P(MessageLoopDebounceTest, ActsAtTheExpectedTimes) {
    const DebounceCase& c = GetParam();
    ScriptedHost host(c.script);
    CMessageLoop loop(host, 5000);
    int rounds = 0;
    while (!loop.RunOnce()) ASSERT_LT(++rounds, 100) << "loop did not end";
    EXPECT_EQ(host.actions, c.actions);
    EXPECT_EQ(host.timeouts, c.timeouts);
}

INSTANTIATE_TEST_SUITE_P(Scripts, MessageLoopDebounceTest, ::testing::ValuesIn(kDebounceCases),
                         [](const ::testing::TestParamInfo<DebounceCase>& param) {
                             return std::string(param.param.name);
                         });

// The loop over real events and the real clock, with a short window.
class EventHost : public IMessageLoopHost {
public:
    long WaitForEvents(unsigned long timeoutMs) override {
        boost_ext::condition_event* events[2] = {&message, &addrChange};
        return boost_ext::condition_event_group::WaitForMultipleObjects(2, events, false,
                                                                        timeoutMs);
    }
    ptime Now() override { return boost::posix_time::microsec_clock::universal_time(); }
    void TakeActionOnAddrChange() override {
        actionTimes.push_back(Now());
        ++actions;
    }
    void ResetAddrChangeEvent() override { addrChange.reset(); }
    bool DrainMessages() override { return quit.load(); }

    boost_ext::condition_event message{true};
    boost_ext::condition_event addrChange{false};
    std::atomic<bool> quit{false};
    std::vector<ptime> actionTimes;  // read once the loop has ended
    std::atomic<int> actions{0};
};

// The debounce must work over the real multi-event wait (a change event left set would keep
// the window open for ever): a change is acted on a window later, and quit ends the loop.
TEST(MessageLoopRealEventsTest, ChangeOverRealEventsIsActedOnAWindowLater) {
    EventHost host;
    CMessageLoop loop(host, 300);
    std::thread loopThread([&] { loop.Run(); });

    const ptime lastChange = host.Now();
    host.addrChange.notify();
    const bool acted = swg_test::WaitUntil([&] { return host.actions.load() == 1; });
    host.quit = true;
    host.message.notify();
    loopThread.join();

    ASSERT_TRUE(acted);
    ASSERT_EQ(host.actionTimes.size(), 1u);
    EXPECT_GE((host.actionTimes[0] - lastChange).total_milliseconds(), 280);
}

}  // namespace
