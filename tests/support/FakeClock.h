// SPDX-License-Identifier: Apache-2.0
// A clock for tests that moves only when told to.
#pragma once

#include <boost/date_time/posix_time/posix_time.hpp>
#include <cstddef>
#include <functional>
#include <mutex>
#include <vector>

#include "platform/Clock.h"

namespace swg_test {

// UTC time that moves only when told to; every sleep is recorded and moves the time by its
// length at once. A hook may run after each sleep (on the sleeping thread).
class FakeClock : public IClock {
public:
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
    void Advance(unsigned int ms) {
        std::lock_guard<std::mutex> hold(m_lock);
        m_now += boost::posix_time::milliseconds(ms);
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
    boost::posix_time::ptime m_now{boost::posix_time::time_from_string("2024-03-01 12:00:00.000")};
    std::vector<unsigned int> m_sleeps;
    std::function<void(std::size_t)> m_onSleep;
};

}  // namespace swg_test
