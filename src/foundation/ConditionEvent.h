// SPDX-License-Identifier: Apache-2.0
// Events with automatic or manual reset, and the wait for any or all of several of them.
#pragma once

#include <cstddef>
#include <list>
#include <vector>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

namespace boost_ext {

// Timeout of WaitForMultipleObjects that means "no limit".
constexpr unsigned long WAIT_INFINITE = 0xffffffffUL;
// Result of WaitForMultipleObjects when the time ran out, or when a wake-up found nothing.
constexpr long WAIT_TIMEOUT_CODE = 0x102;

// An event: signalled while `signal_one` or `signal_all` is set. An automatic-reset event is
// cleared by the wait that sees it; a manual-reset event stays signalled until reset().
//
// Any thread may call any operation. Group events (the private event of one
// WaitForMultipleObjects call) subscribe to member events; a member's lock is always taken
// before its group's, never the other way round. Neither copied nor moved: waiters and
// groups hold its address.
class condition_event {
public:
    // Takes the reset mode; starts unsignalled with no subscribers.
    explicit condition_event(bool auto_reset);
    condition_event(const condition_event&) = delete;
    condition_event& operator=(const condition_event&) = delete;
    condition_event(condition_event&&) = delete;
    condition_event& operator=(condition_event&&) = delete;
    ~condition_event() = default;

    // notify_one() for an automatic-reset event, notify_all() for a manual-reset one.
    void notify();
    // Wakes one sleeper, hands the signal to one subscribed group (the groups take turns)
    // and sets `signal_one`, which stays set for the next wait if nobody was asleep.
    void notify_one();
    // Wakes every sleeper, passes the signal to every subscribed group, sets `signal_all`.
    void notify_all();
    // Clears both flags.
    void reset();
    // Blocks until signalled; clears the flags afterwards if automatic-reset. One-shot: a
    // spurious wake-up of the condition returns as if the event had been signalled.
    void wait();
    // As wait(), but gives up at `deadline` (absolute UTC). Returns false on timeout, with
    // the flags left as they are; true when signalled (flags cleared if automatic-reset).
    // A deadline of +infinity waits without limit; not-a-date-time or -infinity has passed.
    bool timed_wait(const boost::posix_time::ptime& deadline);
    // Flags, read under the lock.
    bool is_signal_one();
    bool is_signal_all();
    bool is_auto_reset() const { return auto_reset; }
    // Adds `group` at the tail of the subscribers; null is ignored.
    void subscribe(condition_event* group);
    // Removes the first entry equal to `group`; a group that is not listed is ignored.
    void unsubscribe(condition_event* group);
    // For a group event: the member that last signalled it, or null.
    condition_event* last_signaller();
    // Number of subscribed groups; for diagnostics and tests (a waiter is inside
    // WaitForMultipleObjects once its group is listed here).
    std::size_t subscriber_count();

private:
    friend class condition_event_group;

    // Called on a group by a member holding its own lock: records the member and signals.
    void signal_from(condition_event* member, bool all);
    void notify_one_locked();
    void notify_all_locked();
    bool signaled_locked() const { return signal_one || signal_all; }
    // Under one lock: true if signalled, then clears the flags if automatic-reset. Two
    // waiters that race for one automatic-reset signal cannot both take it.
    bool consume_if_signaled();

    boost::condition_variable_any m_condition;
    bool signal_one = false;
    bool signal_all = false;
    const bool auto_reset;
    boost::mutex m_lock;
    std::list<condition_event*> subscribers;
    // Named with a trailing underscore only because last_signaller() reads it.
    condition_event* last_signaller_ = nullptr;
};

// Holder of the wait on several events; it has no state.
class condition_event_group {
public:
    // Waits for any (waitAll false) or all (waitAll true) of `count` events. A null entry
    // counts as signalled. timeoutMs is in milliseconds, WAIT_INFINITE for no limit.
    // Returns, for any-of, the lowest index that is signalled (an automatic-reset event
    // reported this way is consumed); for all-of, 0; WAIT_TIMEOUT_CODE on timeout.
    // A wake-up that finds nothing signalled also returns WAIT_TIMEOUT_CODE, even with
    // WAIT_INFINITE: callers must treat that result as "look again", not as an error.
    // The all-of wait sleeps before it looks: events signalled before the call are seen only
    // after some member signals during the call. A null `events` is read as count 0.
    static long WaitForMultipleObjects(unsigned long count, condition_event** events, bool waitAll,
                                       unsigned long timeoutMs);

    // The body of WaitForMultipleObjects with the caller's group event, which must be
    // manual-reset. WaitForMultipleObjects passes a fresh one; a group signalled by no member
    // gives the empty wake-up described above. Subscribes `group` to every non-null entry and
    // unsubscribes it on every way out, exceptions included.
    static long WaitWithGroup(condition_event& group, unsigned long count, condition_event** events,
                              bool waitAll, unsigned long timeoutMs);

    // Any-of scan. Sets `index` to 0, then to the first entry that is null or signalled
    // (resetting it if automatic-reset) and returns true; failing that, to the position of
    // group.last_signaller() among the entries (a member that woke the group but whose flag a
    // competing waiter took) and returns true. Otherwise false. Count 0 gives false.
    static bool find_signaled(condition_event& group, unsigned long count, condition_event** events,
                              unsigned long& index);

    // All-of scan. Sets `index` to 0; every entry that is null or signalled gets its bit set
    // in `bits` (grown to `count` if shorter), moves `index` to its position, and is reset if
    // automatic-reset. Returns true if any bit was set.
    static bool find_all_signaled(unsigned long count, condition_event** events,
                                  unsigned long& index, std::vector<bool>& bits);
};

}  // namespace boost_ext

// Callers write the two constants without the namespace.
using boost_ext::WAIT_INFINITE;
using boost_ext::WAIT_TIMEOUT_CODE;
