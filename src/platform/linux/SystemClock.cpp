// SPDX-License-Identifier: Apache-2.0
// The real clock behind IClock.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include <boost/chrono/duration.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>

#include "platform/Clock.h"

namespace {
class CSystemClock : public IClock {
public:
    boost::posix_time::ptime UniversalTime() override {
        return boost::posix_time::microsec_clock::universal_time();
    }
    void SleepMs(unsigned int ms) override {
        boost::this_thread::sleep_for(boost::chrono::milliseconds(ms));
    }
};
}  // namespace

IClock& SystemClock() {
    // Never destroyed: threads that outlive main may still ask for the time.
    static IClock* const clock = new CSystemClock();
    return *clock;
}
