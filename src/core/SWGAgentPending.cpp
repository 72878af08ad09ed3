// SPDX-License-Identifier: Apache-2.0
// Steps of the agent whose components are not built yet. Each keeps its place in the
// start and stop order and reports what an absent component would: nothing started,
// nothing to stop. Remove an entry here when its component lands.
#include "core/SWGAgent.h"

#include <sys/socket.h>

#include "foundation/Trace.h"

// TODO(lead): network tracking; no change is reported. When it lands, a settled change also
// calls sendClearDNSCacheCommand: the redirector then looks up the host names of the
// exception and inclusion lists again at once, those that failed included.
int CSWGAgent::checkInterfaceChanges() { return 1; }
void CSWGAgent::takeActionOnAddrChange() {}
void CSWGAgent::HandleNetworkChangeEvent() {}
// TODO(lead): backoff decision; until it lands the agent never stands aside.
void CSWGAgent::OnBackoffStateChange() {}

// TODO(lead): network tracking fills the best interfaces; until it lands IPv4 counts as
// having a router and IPv6 not, so the captive portal probe goes over IPv4.
std::string CSWGAgent::getBestInterface(int family) {
    return family == AF_INET6 ? std::string() : std::string("0.0.0.0");
}

// TODO(lead): hash manager.
long CSWGAgent::InitializeHashManagerInterface() { return 0; }
void CSWGAgent::ReleaseHashManager() {}
