// SPDX-License-Identifier: Apache-2.0
// Steps of the agent whose components are not built yet. Each keeps its place in the
// start and stop order and reports what an absent component would: nothing started,
// nothing to stop. Remove an entry here when its component lands.
#include "core/SWGAgent.h"

#include "foundation/Trace.h"

// TODO(lead): network tracking; no change is reported. When it lands, a settled change also
// calls sendClearDNSCacheCommand: the redirector then looks up the host names of the
// exception and inclusion lists again at once, those that failed included.
int CSWGAgent::checkInterfaceChanges() { return 1; }
void CSWGAgent::takeActionOnAddrChange() {}
void CSWGAgent::HandleNetworkChangeEvent() {}
// TODO(lead): backoff decision; until it lands the agent never stands aside.
void CSWGAgent::OnBackoffStateChange() {}

// TODO(lead): captive portal detection; no portal is ever detected, and the mode stays as it
// is, unless a test installed a probe.
void CSWGAgent::DetectCaptivePortalPresence(long timeoutSeconds) {
    std::function<bool(long)> probe;
    {
        boost::recursive_mutex::scoped_lock hold(m_captivePortalLock);
        probe = m_captivePortalProbe;
    }
    if (probe) SetCaptivePortalMode(probe(timeoutSeconds));
}

void CSWGAgent::SetCaptivePortalProbe(std::function<bool(long)> probe) {
    boost::recursive_mutex::scoped_lock hold(m_captivePortalLock);
    m_captivePortalProbe = probe;
}

// TODO(lead): hash manager.
long CSWGAgent::InitializeHashManagerInterface() { return 0; }
void CSWGAgent::ReleaseHashManager() {}
