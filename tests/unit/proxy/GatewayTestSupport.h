// SPDX-License-Identifier: Apache-2.0
// Helper of the gateway and failure policy tests: the agent's state put back after each test.
#pragma once

#include <functional>
#include <string>

#include "core/SWGAgent.h"

namespace swg_test {

// Puts the agent's configuration record, captive portal mode and probe back as they were.
class ScopedAgentState {
public:
    ScopedAgentState() : m_saved(g_pSWGAgent->GetOrgInfo()) {
        g_pSWGAgent->SetCaptivePortalMode(false);
        g_pSWGAgent->SetCaptivePortalProbe(nullptr);
    }
    ~ScopedAgentState() {
        g_pSWGAgent->SetOrgInfo(m_saved);
        g_pSWGAgent->SetCaptivePortalMode(false);
        g_pSWGAgent->SetCaptivePortalProbe(nullptr);
    }
    ScopedAgentState(const ScopedAgentState&) = delete;
    ScopedAgentState& operator=(const ScopedAgentState&) = delete;

    // Changes the record in force through `edit`.
    static void Edit(const std::function<void(CSWGAgent::ORGINFO&)>& edit) {
        CSWGAgent::ORGINFO info = g_pSWGAgent->GetOrgInfo();
        edit(info);
        g_pSWGAgent->SetOrgInfo(info);
    }

private:
    CSWGAgent::ORGINFO m_saved;
};

}  // namespace swg_test
