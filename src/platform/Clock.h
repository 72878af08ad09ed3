// SPDX-License-Identifier: Apache-2.0
// The seam for reading the time of day and for sleeping.
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

// Time as the agent's caches and retry loops see it. Tests pass a clock that they move by
// hand, so that a 31-second expiry or a five-second retry schedule costs no real time. Any
// thread may call either method.
class IClock {
public:
    virtual ~IClock() = default;

    // The current UTC time, microsecond resolution. Never fails.
    virtual boost::posix_time::ptime UniversalTime() = 0;
    // Blocks the calling thread for `ms` milliseconds. Never fails.
    virtual void SleepMs(unsigned int ms) = 0;
};

// The real clock. Lives until the process ends.
IClock& SystemClock();
