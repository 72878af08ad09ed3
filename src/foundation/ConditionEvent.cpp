// SPDX-License-Identifier: Apache-2.0
// Events with automatic or manual reset, and the wait for any or all of several of them.
#include "foundation/ConditionEvent.h"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>

namespace boost_ext {

namespace {

using MutexHolder = boost::lock_guard<boost::mutex>;

// Keeps a group subscribed to the non-null entries for the life of one wait.
class GroupSubscription {
public:
    GroupSubscription(condition_event& group, unsigned long count, condition_event** events)
        : m_group(group), m_count(count), m_events(events) {
        for (unsigned long i = 0; i < m_count; ++i) {
            if (m_events[i] != nullptr) m_events[i]->subscribe(&m_group);
        }
    }
    ~GroupSubscription() {
        for (unsigned long i = 0; i < m_count; ++i) {
            if (m_events[i] != nullptr) m_events[i]->unsubscribe(&m_group);
        }
    }
    GroupSubscription(const GroupSubscription&) = delete;
    GroupSubscription& operator=(const GroupSubscription&) = delete;

private:
    condition_event& m_group;
    const unsigned long m_count;
    condition_event** const m_events;
};

// One sleep on the group; false when the deadline passed.
bool SleepOnGroup(condition_event& group, const boost::posix_time::ptime& deadline,
                  unsigned long timeoutMs) {
    if (timeoutMs == WAIT_INFINITE) {
        group.wait();
        return true;
    }
    return group.timed_wait(deadline);
}

long WaitAny(condition_event& group, unsigned long count, condition_event** events,
             const boost::posix_time::ptime& deadline, unsigned long timeoutMs) {
    unsigned long index = 0;
    if (condition_event_group::find_signaled(group, count, events, index)) {
        return static_cast<long>(index);
    }
    if (!SleepOnGroup(group, deadline, timeoutMs)) return WAIT_TIMEOUT_CODE;
    if (condition_event_group::find_signaled(group, count, events, index)) {
        return static_cast<long>(index);
    }
    return WAIT_TIMEOUT_CODE;
}

long WaitAll(condition_event& group, unsigned long count, condition_event** events,
             const boost::posix_time::ptime& deadline, unsigned long timeoutMs) {
    std::vector<bool> done(count, false);
    for (;;) {
        if (!SleepOnGroup(group, deadline, timeoutMs)) return WAIT_TIMEOUT_CODE;
        // The group is cleared before the scan, not after it: a member signalled between
        // the two then sets the group again instead of being missed until the next wake-up.
        group.reset();
        std::vector<bool> bits(count, false);
        unsigned long index = 0;
        condition_event_group::find_all_signaled(count, events, index, bits);
        bool all = true;
        for (unsigned long i = 0; i < count; ++i) {
            if (bits[i]) done[i] = true;
            all = all && done[i];
        }
        if (all) return 0;
    }
}

}  // namespace

condition_event::condition_event(bool auto_reset_) : auto_reset(auto_reset_) {}

void condition_event::notify() {
    if (auto_reset) {
        notify_one();
    } else {
        notify_all();
    }
}

void condition_event::notify_one() {
    MutexHolder hold(m_lock);
    notify_one_locked();
}

void condition_event::notify_all() {
    MutexHolder hold(m_lock);
    notify_all_locked();
}

void condition_event::notify_one_locked() {
    m_condition.notify_one();
    if (!subscribers.empty() && subscribers.front() != nullptr) {
        condition_event* group = subscribers.front();
        group->signal_from(this, false);
        // The group goes to the tail, so that the next one-shot signal goes to another one.
        // splice moves the node: nothing is allocated on the signalling path.
        subscribers.splice(subscribers.end(), subscribers, subscribers.begin());
    }
    signal_one = true;
}

void condition_event::notify_all_locked() {
    m_condition.notify_all();
    for (condition_event* group : subscribers) {
        if (group != nullptr) group->signal_from(this, true);
    }
    signal_all = true;
}

void condition_event::signal_from(condition_event* member, bool all) {
    MutexHolder hold(m_lock);
    last_signaller_ = member;
    if (all) {
        notify_all_locked();
    } else {
        notify_one_locked();
    }
}

void condition_event::reset() {
    MutexHolder hold(m_lock);
    signal_one = false;
    signal_all = false;
}

void condition_event::wait() {
    boost::unique_lock<boost::mutex> hold(m_lock);
    if (!signaled_locked()) m_condition.wait(hold);
    if (auto_reset) {
        signal_one = false;
        signal_all = false;
    }
}

bool condition_event::timed_wait(const boost::posix_time::ptime& deadline) {
    boost::unique_lock<boost::mutex> hold(m_lock);
    if (!signaled_locked()) {
        if (deadline.is_pos_infinity()) {
            m_condition.wait(hold);
        } else if (deadline.is_special()) {
            return false;
        } else if (!m_condition.timed_wait(hold, deadline)) {
            return false;
        }
    }
    if (auto_reset) {
        signal_one = false;
        signal_all = false;
    }
    return true;
}

bool condition_event::is_signal_one() {
    MutexHolder hold(m_lock);
    return signal_one;
}

bool condition_event::is_signal_all() {
    MutexHolder hold(m_lock);
    return signal_all;
}

void condition_event::subscribe(condition_event* group) {
    if (group == nullptr) return;
    MutexHolder hold(m_lock);
    subscribers.push_back(group);
}

void condition_event::unsubscribe(condition_event* group) {
    MutexHolder hold(m_lock);
    for (auto it = subscribers.begin(); it != subscribers.end(); ++it) {
        if (*it == group) {
            subscribers.erase(it);
            return;
        }
    }
}

condition_event* condition_event::last_signaller() {
    MutexHolder hold(m_lock);
    return last_signaller_;
}

std::size_t condition_event::subscriber_count() {
    MutexHolder hold(m_lock);
    return subscribers.size();
}

bool condition_event::consume_if_signaled() {
    MutexHolder hold(m_lock);
    if (!signaled_locked()) return false;
    if (auto_reset) {
        signal_one = false;
        signal_all = false;
    }
    return true;
}

long condition_event_group::WaitForMultipleObjects(unsigned long count, condition_event** events,
                                                   bool waitAll, unsigned long timeoutMs) {
    condition_event group(false);
    return WaitWithGroup(group, count, events, waitAll, timeoutMs);
}

long condition_event_group::WaitWithGroup(condition_event& group, unsigned long count,
                                          condition_event** events, bool waitAll,
                                          unsigned long timeoutMs) {
    if (events == nullptr) count = 0;
    // Computed for WAIT_INFINITE as well (about 49 days ahead); it is then not used.
    const boost::posix_time::ptime deadline =
        boost::posix_time::microsec_clock::universal_time() +
        boost::posix_time::milliseconds(static_cast<long>(timeoutMs));
    GroupSubscription subscription(group, count, events);
    if (waitAll) return WaitAll(group, count, events, deadline, timeoutMs);
    return WaitAny(group, count, events, deadline, timeoutMs);
}

bool condition_event_group::find_signaled(condition_event& group, unsigned long count,
                                          condition_event** events, unsigned long& index) {
    index = 0;
    if (count == 0 || events == nullptr) return false;
    for (unsigned long i = 0; i < count; ++i) {
        if (events[i] == nullptr || events[i]->consume_if_signaled()) {
            index = i;
            return true;
        }
    }
    condition_event* signaller = group.last_signaller();
    if (signaller == nullptr) return false;
    for (unsigned long i = 0; i < count; ++i) {
        if (events[i] == signaller) {
            index = i;
            return true;
        }
    }
    return false;
}

bool condition_event_group::find_all_signaled(unsigned long count, condition_event** events,
                                              unsigned long& index, std::vector<bool>& bits) {
    index = 0;
    if (events == nullptr) return false;
    if (bits.size() < count) bits.resize(count, false);
    bool any = false;
    for (unsigned long i = 0; i < count; ++i) {
        if (events[i] == nullptr || events[i]->consume_if_signaled()) {
            bits[i] = true;
            index = i;
            any = true;
        }
    }
    return any;
}

}  // namespace boost_ext
