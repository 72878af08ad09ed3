// SPDX-License-Identifier: Apache-2.0
// Helper of the gateway and failure policy tests: the agent's state put back after each test.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "core/SWGAgent.h"

namespace swg_test {

// Puts the agent's configuration record, captive portal mode and probe fetch back as they were.
class ScopedAgentState {
public:
    ScopedAgentState() : m_saved(g_pSWGAgent->GetOrgInfo()) {
        g_pSWGAgent->SetCaptivePortalMode(false);
        g_pSWGAgent->SetCaptivePortalDownloader(nullptr);
    }
    ~ScopedAgentState() {
        g_pSWGAgent->SetOrgInfo(m_saved);
        g_pSWGAgent->SetCaptivePortalMode(false);
        g_pSWGAgent->SetCaptivePortalDownloader(nullptr);
    }
    ScopedAgentState(const ScopedAgentState&) = delete;
    ScopedAgentState& operator=(const ScopedAgentState&) = delete;

    // Changes the record in force through `edit`.
    static void Edit(const std::function<void(CSWGAgent::ORGINFO&)>& edit) {
        CSWGAgent::ORGINFO info = g_pSWGAgent->GetOrgInfo();
        edit(info);
        g_pSWGAgent->SetOrgInfo(info);
    }

    // An echo service whose probes are answered without a network: a redirect to a portal
    // when `portal`, else the expected text. Each probe's timeout goes to `timeouts`.
    static void AnswerPortalProbes(bool portal, std::vector<long>* timeouts = nullptr) {
        Edit([](CSWGAgent::ORGINFO& info) { info.strSWGEchoService = "http://echo.swg.test/e"; });
        g_pSWGAgent->SetCaptivePortalDownloader(
            [portal, timeouts](const std::string&, std::string& headers, std::string& body,
                               long timeout, uint16_t) {
                if (timeouts != nullptr) timeouts->push_back(timeout);
                headers = portal ? "HTTP/1.1 302 Found\r\nLocation: http://portal.test/\r\n\r\n"
                                 : "HTTP/1.1 200 OK\r\n\r\n";
                body = portal ? "" : "Success";
                return 0L;
            });
    }

private:
    CSWGAgent::ORGINFO m_saved;
};

}  // namespace swg_test
