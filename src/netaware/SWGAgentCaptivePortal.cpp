// SPDX-License-Identifier: Apache-2.0
// The agent's captive portal flag, read and written under its own lock.
#include "core/SWGAgent.h"

bool CSWGAgent::IsCaptivePortalMode() {
    boost::recursive_mutex::scoped_lock hold(m_captivePortalLock);
    return m_bCaptivePortalMode;
}

void CSWGAgent::SetCaptivePortalMode(bool on) {
    boost::recursive_mutex::scoped_lock hold(m_captivePortalLock);
    m_bCaptivePortalMode = on;
}
