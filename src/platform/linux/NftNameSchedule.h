// SPDX-License-Identifier: Apache-2.0
// When each host name of the diversion rules is looked up again, and its last answer.
#if !defined(__linux__)
#error "Linux adapter"
#endif
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/linux/NftRuleset.h"

// Pauses of the schedule.
struct NftNameTiming {
    // After the n-th failure in a row a name is tried again after firstRetry * 2^(n-1), at
    // most maxRetry: a name that is not yet resolvable at boot is enforced soon after it is.
    std::chrono::milliseconds firstRetry{1000};
    std::chrono::milliseconds maxRetry{30000};
    // A name that resolved is looked up again after this, so that a changed address is
    // followed.
    std::chrono::milliseconds refresh{60000};
};

// The state of every host name of the rules. A failed lookup keeps the name's last
// addresses: a resolver that is down for a while does not lift an exception. Pure: time is
// given by the caller. Not thread-safe.
class CNftNameSchedule {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    explicit CNftNameSchedule(NftNameTiming timing = {}) : m_timing(timing) {}

    // Keeps exactly `names`: new ones are due at `now`, the others keep their state, names
    // no longer given are forgotten with their addresses.
    void SetNames(const std::set<std::string>& names, TimePoint now);
    // Makes every name due at `now` (the name cache was cleared, the network changed).
    void DueAll(TimePoint now);
    // The names due at `now`, in name order.
    std::vector<std::string> Due(TimePoint now) const;
    // The earliest time at which a name is due; nullopt without names.
    std::optional<TimePoint> NextDue() const;
    // Records a lookup of `name` made at `now`: `answered` with its `addresses` (in any order,
    // repeats allowed; none counts as a failure). Returns true when the name's addresses
    // changed. A name no longer kept is ignored.
    bool Record(const std::string& name, bool answered, std::vector<NftAddress> addresses,
                TimePoint now);
    // Failures in a row of `name`; 0 for a name that resolved last time or is unknown.
    unsigned int Failures(const std::string& name) const;
    // The addresses of every name that has any.
    std::map<std::string, std::vector<NftAddress>> Answers() const;

private:
    struct Entry {
        std::vector<NftAddress> addresses;  // sorted, each once
        unsigned int failures = 0;
        TimePoint due;
    };
    std::chrono::milliseconds RetryPause(unsigned int failures) const;

    NftNameTiming m_timing;
    std::map<std::string, Entry> m_names;
};
