// SPDX-License-Identifier: Apache-2.0
// The signal table as the process installs it.
#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>
#include <string>
#include <thread>

#include "core/SWGAgent.h"
#include "support/ThreadTestSupport.h"

namespace swg_test {
namespace {

// A write past RLIMIT_FSIZE raises SIGXFSZ on the writing thread alone; blocked there and
// waited for on the signal thread only, it was never taken and the service never heard of it.
TEST(SignalTableTest, FileSizeSignalOfAnyThreadReachesTheHandler) {
    RecordingTrace trace;
    InstallSignalTable();
    std::thread([] { (void)pthread_kill(pthread_self(), SIGXFSZ); }).join();
    // Which line follows depends on the agent's state; reaching the handler is what counts.
    const std::string expected = "TerminationHandler with signal " + std::to_string(SIGXFSZ) + " ";
    EXPECT_TRUE(WaitUntil([&] { return trace.CountPrefix(TRACE, expected) == 1; }));
}

}  // namespace
}  // namespace swg_test
