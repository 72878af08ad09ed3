// SPDX-License-Identifier: Apache-2.0
// Fixture of the redirection tests: an agent of its own on a fake redirector.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>

#include "core/SWGAgent.h"
#include "support/FakeSocketRedirector.h"
#include "support/ThreadTestSupport.h"
#include "support/TraceRecorder.h"

namespace swg_test {

class RedirectAgentTest : public ::testing::Test {
protected:
    void SetUp() override { m_agent.m_redirectorSeams = FakeRedirectorSeams(m_script); }

    void TearDown() override {
        // Detached recovery threads hold the agent: they must be done before it goes.
        ASSERT_TRUE(WaitUntil([this] { return m_agent.m_kdfThreadsRunning == 0; }));
        if (m_agent.m_pRedirector != nullptr) m_agent.releaseKDFInstance();
    }

    // The agent as after a normal start: Running and diverting.
    void StartNormally() {
        ASSERT_EQ(m_agent.StartKDF(reason_rules_refresh), 0);
        ASSERT_EQ(m_agent.KdfState(), Running);
        ASSERT_TRUE(Diverting());
        m_trace.Clear();
    }

    // The one live handle is open and started with `rules` rules in force (the default
    // configuration gives six: two ports, two families, two no-redirect rules).
    ::testing::AssertionResult Diverting(size_t rules = 6) {
        std::lock_guard<std::mutex> hold(m_script->lock);
        if (m_script->live == 1 && m_script->open && m_script->started &&
            m_script->rules.size() == rules)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure()
               << "live " << m_script->live << " open " << m_script->open << " started "
               << m_script->started << " rules " << m_script->rules.size();
    }

    // True once no recovery is busy and every redirector thread has finished.
    bool HandlerIdle() {
        return WaitUntil([this] {
            return !m_agent.m_kdfDisruptionHandlerBusy && m_agent.m_kdfThreadsRunning == 0;
        });
    }

    std::shared_ptr<FakeRedirectorScript> m_script = std::make_shared<FakeRedirectorScript>();
    TraceRecorder m_trace;  // before the agent: outlives the agent's last line
    CSWGAgent m_agent;
};

}  // namespace swg_test
