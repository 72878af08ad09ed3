// SPDX-License-Identifier: Apache-2.0
// Steps of the agent whose components are not built yet. Each keeps its place in the
// start and stop order and reports what an absent component would: nothing started,
// nothing to stop. Remove an entry here when its component lands.
#include "core/SWGAgent.h"

#include "foundation/Trace.h"

// TODO(lead): configuration loading; until then the agent starts with the defaults.
bool CSWGAgent::LoadOrgInfo(ORGINFO& /*info*/) { return true; }
std::string CSWGAgent::GetSWGProxyName(bool /*wantIPv6*/) { return GetOrgInfo().strHostname; }
void CSWGAgent::UpdateFedRampMode() {}
void CSWGAgent::StartConfigMonitor() {}
void CSWGAgent::StopConfigMonitor() {}

// TODO(lead): redirector; without one there is no handle to close.
bool CSWGAgent::CloseRedirectorInterface(unsigned char /*reason*/) { return false; }
long CSWGAgent::StartKDF(unsigned char /*reason*/) { return 0; }
bool CSWGAgent::StopKDF(unsigned char /*reason*/) { return true; }
bool CSWGAgent::RestartKDF(unsigned char /*reason*/) { return true; }
void CSWGAgent::OnKdfDisruption() {}
void CSWGAgent::OnPlannedKdfDisruptionStart(PlannedDisruption /*what*/) {}
void CSWGAgent::OnPlannedKdfDisruptionComplete(PlannedDisruption /*what*/) {}
bool CSWGAgent::SetKdfRedirectRule(const redirect_info& /*rule*/) { return false; }

// TODO(lead): network tracking; no change is reported.
int CSWGAgent::checkInterfaceChanges() { return 1; }
void CSWGAgent::takeActionOnAddrChange() {}
void CSWGAgent::HandleNetworkChangeEvent() {}

// TODO(lead): captive portal detection; the flag is kept, but no portal is ever detected.
bool CSWGAgent::IsCaptivePortalMode() {
    boost::recursive_mutex::scoped_lock hold(m_captivePortalLock);
    return m_bCaptivePortalMode;
}
void CSWGAgent::SetCaptivePortalMode(bool on) {
    boost::recursive_mutex::scoped_lock hold(m_captivePortalLock);
    m_bCaptivePortalMode = on;
}
void CSWGAgent::DetectCaptivePortalPresence(long /*timeoutSeconds*/) {}

// TODO(lead): IPC, state words and statistics; with no plug-in attached nothing is sent.
int CSWGAgent::SendSWGState(const std::string& /*state*/, int /*update*/) { return 0; }
void CSWGAgent::StatsStopCollecting() {}
void CSWGAgent::StatsIncrementTotalBypassedHostConnections() {}
void CSWGAgent::StatsIncrementTotalHTTPConnections() {}
void CSWGAgent::StatsIncrementTotalHTTPSConnections() {}
long CSWGAgent::StartStatistics() { return 0; }
void CSWGAgent::SetActiveTowerName() {}
long CSWGAgent::StartCommunicator() { return 0; }

// TODO(lead): system proxy and hash manager.
void CSWGAgent::ObtainPublicProxySettings() {}
void CSWGAgent::ReleasePublicProxySettings() {}
long CSWGAgent::InitializeHashManagerInterface() { return 0; }
void CSWGAgent::ReleaseHashManager() {}
