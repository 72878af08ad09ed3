// SPDX-License-Identifier: Apache-2.0
// The main loop's debounce and dispatch, driven by a scripted host and a fake clock.
#include "core/MessageLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <thread>
#include <vector>

#include "foundation/ConditionEvent.h"

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
    explicit ScriptedHost(std::vector<Step> steps) : m_steps(steps.begin(), steps.end()) {}

    long WaitForEvents(unsigned long timeoutMs) override {
        timeouts.push_back(timeoutMs);
        if (m_steps.empty()) {
            m_pendingQuit = true;
            return 0;
        }
        const Step step = m_steps.front();
        m_steps.pop_front();
        switch (step.arrival) {
            case Arrival::Timeout:
                if (timeoutMs != WAIT_INFINITE) m_now += milliseconds(timeoutMs);
                return WAIT_TIMEOUT_CODE;
            case Arrival::Message:
                m_now += milliseconds(step.afterMs);
                return 0;
            case Arrival::Quit:
                m_now += milliseconds(step.afterMs);
                m_pendingQuit = true;
                return 0;
            case Arrival::AddrChange:
                m_now += milliseconds(step.afterMs);
                return 1;
            case Arrival::Unknown:
                return 7;
        }
        return WAIT_TIMEOUT_CODE;
    }
    ptime Now() override { return m_now; }
    void TakeActionOnAddrChange() override { actions.push_back((m_now - m_start).total_milliseconds()); }
    void ResetAddrChangeEvent() override { ++resets; }
    bool DrainMessages() override {
        const bool quit = m_pendingQuit;
        m_pendingQuit = false;
        return quit;
    }

    std::vector<unsigned long> timeouts;
    std::vector<long> actions;  // ms since start at which the loop acted
    int resets = 0;

private:
    std::deque<Step> m_steps;
    const ptime m_start{boost::gregorian::date(2026, 1, 1)};
    ptime m_now{m_start};
    bool m_pendingQuit = false;
};

void RunScript(ScriptedHost& host) {
    CMessageLoop loop(host, 5000);
    for (int round = 0; round < 100; ++round) {
        if (loop.RunOnce()) return;
    }
    FAIL() << "loop did not end";
}
}  // namespace

// A single change must be acted on exactly once, 5 s after it.
TEST(MessageLoopTest, SingleChangeActsOnceAfterWindow) {
    ScriptedHost host({{1000, Arrival::AddrChange}, {0, Arrival::Timeout}, {0, Arrival::Quit}});
    RunScript(host);
    EXPECT_EQ(host.actions, (std::vector<long>{6000}));
    EXPECT_EQ(host.resets, 1);
    EXPECT_EQ(host.timeouts[0], WAIT_INFINITE);
    EXPECT_EQ(host.timeouts[1], 5000u);
    EXPECT_EQ(host.timeouts[2], WAIT_INFINITE);
}

// Each change restarts the window: two changes 3 s apart act once, 5 s after the second.
TEST(MessageLoopTest, BurstActsOnceAfterLastChange) {
    ScriptedHost host({{0, Arrival::AddrChange},
                       {3000, Arrival::AddrChange},
                       {0, Arrival::Timeout},
                       {0, Arrival::Quit}});
    RunScript(host);
    EXPECT_EQ(host.actions, (std::vector<long>{8000}));
    EXPECT_EQ(host.timeouts[2], 5000u);
}

// A message inside the window must not move the deadline.
TEST(MessageLoopTest, MessageInsideWindowKeepsDeadline) {
    ScriptedHost host({{0, Arrival::AddrChange},
                       {1200, Arrival::Message},
                       {0, Arrival::Timeout},
                       {0, Arrival::Quit}});
    RunScript(host);
    EXPECT_EQ(host.timeouts[2], 3800u);
    EXPECT_EQ(host.actions, (std::vector<long>{5000}));
}

// Quit inside the window ends the loop without the pending action.
TEST(MessageLoopTest, QuitInsideWindowDropsPendingAction) {
    ScriptedHost host({{0, Arrival::AddrChange}, {2000, Arrival::Quit}});
    RunScript(host);
    EXPECT_TRUE(host.actions.empty());
}

// A quit that finds the deadline already passed still acts in that same round.
TEST(MessageLoopTest, QuitAfterDeadlineActsFirst) {
    ScriptedHost host({{0, Arrival::AddrChange}, {5000, Arrival::Quit}});
    RunScript(host);
    EXPECT_EQ(host.actions, (std::vector<long>{5000}));
}

// A change that arrives after the deadline acts on the old run, then opens a new window.
TEST(MessageLoopTest, LateChangeActsThenOpensNewWindow) {
    ScriptedHost host({{0, Arrival::AddrChange},
                       {6000, Arrival::AddrChange},
                       {0, Arrival::Timeout},
                       {0, Arrival::Quit}});
    RunScript(host);
    EXPECT_EQ(host.actions, (std::vector<long>{6000, 11000}));
}

// An empty wake-up of an infinite wait reads as a timeout and runs the action.
TEST(MessageLoopTest, EmptyWakeUpReadsAsTimeout) {
    ScriptedHost host({{0, Arrival::Timeout}, {0, Arrival::Quit}});
    RunScript(host);
    EXPECT_EQ(host.actions.size(), 1u);
    EXPECT_EQ(host.timeouts[1], WAIT_INFINITE);
}

// An unknown wait result is logged and the loop goes on.
TEST(MessageLoopTest, UnknownResultKeepsLooping) {
    ScriptedHost host({{0, Arrival::Unknown}, {0, Arrival::Quit}});
    RunScript(host);
    EXPECT_EQ(host.timeouts.size(), 2u);
    EXPECT_TRUE(host.actions.empty());
}

namespace {
// The loop over real events and the real clock, with a short window.
class EventHost : public IMessageLoopHost {
public:
    long WaitForEvents(unsigned long timeoutMs) override {
        boost_ext::condition_event* events[2] = {&message, &addrChange};
        return boost_ext::condition_event_group::WaitForMultipleObjects(2, events, false,
                                                                        timeoutMs);
    }
    ptime Now() override { return boost::posix_time::microsec_clock::universal_time(); }
    void TakeActionOnAddrChange() override { actionTimes.push_back(Now()); }
    void ResetAddrChangeEvent() override { addrChange.reset(); }
    bool DrainMessages() override { return quit.load(); }

    boost_ext::condition_event message{true};
    boost_ext::condition_event addrChange{false};
    std::atomic<bool> quit{false};
    std::vector<ptime> actionTimes;
};
}  // namespace

// The debounce must work over the real multi-event wait: a burst is acted on once, a
// window after its last event, and quit ends the loop.
TEST(MessageLoopRealEventsTest, BurstOverRealEventsActsOnceAfterTheLastEvent) {
    EventHost host;
    CMessageLoop loop(host, 300);
    std::thread loopThread([&] { loop.Run(); });

    host.addrChange.notify();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const ptime lastChange = host.Now();
    host.addrChange.notify();
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    host.quit = true;
    host.message.notify();
    loopThread.join();

    ASSERT_EQ(host.actionTimes.size(), 1u);
    EXPECT_GE((host.actionTimes[0] - lastChange).total_milliseconds(), 280);
}
