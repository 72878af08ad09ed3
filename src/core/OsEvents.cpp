// SPDX-License-Identifier: Apache-2.0
// Process-wide state of the operating system event threads.
#include "core/OsEvents.h"

#include <boost/thread/thread.hpp>

#include "foundation/Trace.h"

boost_ext::condition_event g_IPAddrChangeEvent(false);
int g_IPAddrChangeSock = -1;
bool g_bStopIPAddrChangeThread = false;

// TODO(lead): read route and address notices from a NETLINK_ROUTE socket and feed
// HandleNetworkChangeEvent once network tracking lands; until then no change is heard.
void ListenForOSEvents() { DNTRACE(THREAD, "ListenForOSEvents thread started"); }

void StartOsEventThreads() {
    boost::thread worker(&ListenForOSEvents);
    worker.detach();
}
