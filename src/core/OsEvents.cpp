// SPDX-License-Identifier: Apache-2.0
// The route and address notice thread.
#include "core/OsEvents.h"

#include <unistd.h>

#include <boost/thread/thread.hpp>
#include <cerrno>

#include "core/SWGAgent.h"
#include "foundation/Trace.h"
#include "platform/NetworkState.h"

boost_ext::condition_event g_IPAddrChangeEvent(false);
std::atomic<int> g_IPAddrChangeSock{-1};
std::atomic<bool> g_bStopIPAddrChangeThread{false};

namespace {
constexpr int kStopPollMs = 250;

// The thread closes its own socket, so that a number reused meanwhile is never read or
// closed by mistake.
void CloseNoticeSocket(int fd) {
    if (fd >= 0) ::close(fd);
    g_IPAddrChangeSock = -1;
}
}  // namespace

void ListenForOSEvents() {
    DNTRACE(THREAD, "ListenForOSEvents thread started");
    // A socket that cannot be opened shows at the first read, as a bad descriptor.
    const int fd = OpenRouteNoticeSocket();
    g_IPAddrChangeSock = fd;
    for (;;) {
        // The wait is bounded so that the stop flag is seen: closing a socket under a
        // blocked read does not wake the read on this platform.
        const int notices = g_bStopIPAddrChangeThread ? -EBADF : ReadRouteNotices(fd, kStopPollMs);
        if (notices < 0) {
            if (notices == -EBADF) {
                // The normal end: the stop sequence closes the socket under the read.
                DNTRACE(TRACE,
                        "ListenForOSEvents: addrchange socket probably closed - socket invalid");
                CloseNoticeSocket(fd);
            } else {
                DNTRACE(ERR, "ListenForOSEvents: Error reading from addrchange socket - err: %d",
                        -notices);
                CloseNoticeSocket(fd);
            }
            break;
        }
        for (int i = 0; i < notices && !g_bStopIPAddrChangeThread; ++i) {
            g_pSWGAgent->HandleNetworkChangeEvent();
        }
        if (g_bStopIPAddrChangeThread) break;
    }
}

void StartOsEventThreads() {
    boost::thread worker(&ListenForOSEvents);
    worker.detach();
}
