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
    // The signal thread lives as long as the process and may still be inside the trace when
    // its line shows, so the trace must too.
    static RecordingTrace& trace = *new RecordingTrace;
    // Which line follows depends on the agent's state; reaching the handler is what counts.
    const std::string expected = "TerminationHandler with signal " + std::to_string(SIGXFSZ) + " ";
    const int before = trace.CountPrefix(TRACE, expected);
    InstallSignalTable();
    std::thread([] { (void)pthread_kill(pthread_self(), SIGXFSZ); }).join();
    EXPECT_TRUE(WaitUntil([&] { return trace.CountPrefix(TRACE, expected) == before + 1; }));
    // The agent here never started, so the handler ends by queueing QUIT; seen under the
    // queue's lock, the handler is done with the agent before the process ends.
    EXPECT_TRUE(WaitUntil([] {
        boost::recursive_mutex::scoped_lock hold(g_pSWGAgent->m_messageLock);
        return !g_pSWGAgent->m_messages.empty();
    }));
}

}  // namespace
}  // namespace swg_test
