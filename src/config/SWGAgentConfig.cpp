// SPDX-License-Identifier: Apache-2.0
// The agent's accessors of the configuration record.
#include "core/SWGAgent.h"

CSWGAgent::ORGINFO CSWGAgent::GetOrgInfo() {
    boost::recursive_mutex::scoped_lock lock(m_orgInfoLock);
    return m_orgInfo;
}

void CSWGAgent::SetOrgInfo(const ORGINFO& info) {
    boost::recursive_mutex::scoped_lock lock(m_orgInfoLock);
    m_orgInfo = info;
}

bool CSWGAgent::GetAnycastV6Available() {
    boost::recursive_mutex::scoped_lock lock(m_orgInfoLock);
    return m_bAnycastV6Available;
}
