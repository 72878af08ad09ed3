// SPDX-License-Identifier: Apache-2.0
// The backoff decision (honour mode, own mode, the order of its conditions, the probe) and
// its transition through the redirector and the state words.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ipc/ServerSideCommunicator.h"
#include "unit/redirect/RedirectAgentFixture.h"

namespace swg_test {
namespace {

// One evaluation's inputs, in the record's terms.
struct Inputs {
    bool honour = false;
    bool dnsBackoff = false;
    const char* dnsReason = "";
    bool onTnd = false;
    const char* tnd = "";
    bool onVpn = false;
    const char* v4State = "";
    const char* v4Type = "";
    const char* v6State = "";
    const char* v6Type = "";
    bool onCustomer = false;
    bool probeSays = false;
};

struct Row {
    const char* name;
    Inputs in;
    const char* word;  // the word the plug-in gets; "" none
    int probes;        // how often the trusted server was probed
};

class BackoffFixture : public RedirectAgentTest {
protected:
    void SetUp() override {
        RedirectAgentTest::SetUp();
        m_communicator.m_pMainQueue = std::make_shared<CMsgQueue>("test");
        m_communicator.SetConnectedState(true);
        m_agent.m_pCommunicator = &m_communicator;
        m_agent.SetTrustedNetworkProbe([this](const std::string&, const std::string&, int) {
            ++m_probes;
            return m_probeSays;
        });
        StartNormally();
    }
    void TearDown() override {
        m_agent.m_pCommunicator = nullptr;
        RedirectAgentTest::TearDown();
    }

    void Configure(const Inputs& in) {
        CSWGAgent::ORGINFO org = m_agent.GetOrgInfo();
        org.bSwgHonorTND = in.honour;
        org.bDnsBackoff = in.dnsBackoff;
        org.strDnsBackoffReason = in.dnsReason;
        org.bBackoffOnLMTrustedNetwork = in.onTnd;
        org.strVpnTnd = in.tnd;
        org.bBackoffOnLMVpn = in.onVpn;
        org.strVpnIpv4State = in.v4State;
        org.strVpnIpv4Type = in.v4Type;
        org.strVpnIpv6State = in.v6State;
        org.strVpnIpv6Type = in.v6Type;
        org.bBackoffOnCustomerTrustedNetwork = in.onCustomer;
        org.strTrustedServer = "trusted.corp.test";
        org.strTrustedServerFingerprint = "AB";
        org.nTrustedServerPort = 443;
        m_agent.SetOrgInfo(org);
        m_probeSays = in.probeSays;
    }

    // The state words that reached the plug-in since the last call.
    std::vector<std::string> Words() {
        std::vector<std::string> words;
        while (MSG_QUEUE_MSG* message = m_communicator.m_pMainQueue->MQGetMessage(false, 0)) {
            if (message->msg_id == COMM_MSG_SWG_STATE) {
                const std::string text = reinterpret_cast<const char*>(message->msg_data);
                const std::string key = "\"swg_protection_state\":\"";
                const size_t at = text.find(key) + key.size();
                words.push_back(text.substr(at, text.find('"', at) - at));
            }
            delete message;
        }
        return words;
    }

    CServerSideCommunicator m_communicator{0, COMM_TYPE_SERVER, 5};
    int m_probes = 0;
    bool m_probeSays = false;
};

class BackoffTest : public BackoffFixture, public ::testing::WithParamInterface<Row> {};

// From protected, one evaluation: the word says why the agent stands aside, the rules are
// cleared exactly when it does, and the probe runs whenever its switch is on.
TEST_P(BackoffTest, DecidesFromProtected) {
    const Row& row = GetParam();
    Configure(row.in);
    m_agent.OnBackoffStateChange();
    const bool expectBackoff = row.word[0] != '\0';
    EXPECT_EQ(m_agent.m_bBackedOff, expectBackoff);
    EXPECT_EQ(Words(),
              expectBackoff ? std::vector<std::string>{row.word} : std::vector<std::string>{});
    EXPECT_EQ(m_script->Get(m_script->rules).empty(), expectBackoff);  // a backoff clears them
    EXPECT_EQ(m_probes, row.probes);
}

const Inputs kFullTunnelV4 = {false, false, "", false, "", true, "connected", "tunnel_all"};

INSTANTIATE_TEST_SUITE_P(
    Rows, BackoffTest,
    ::testing::Values(
        Row{"NothingOn", {}, "", 0},
        Row{"SplitTunnelIsNoVpn", {false, false, "", false, "", true, "connected", "split"}, "", 0},
        Row{"FullTunnelV4", kFullTunnelV4, "disabled_due_to_vpn", 0},
        Row{"FullTunnelV6Only",
            {false, false, "", false, "", true, "disconnected", "", "Connected", "TUNNEL_ALL"},
            "disabled_due_to_vpn",
            0},
        Row{"VpnSwitchOffIsTheGate",
            {false, false, "", false, "", false, "connected", "tunnel_all"},
            "",
            0},
        Row{"TrustedBeatsVpn",
            {false, false, "", true, "TRUSTED", true, "connected", "tunnel_all"},
            "disabled_due_to_trusted_network",
            0},
        Row{"TrustedSwitchOff", {false, false, "", false, "trusted"}, "", 0},
        Row{"ProbeRunsEvenWhenVpnHolds",
            {false, false, "", false, "", true, "connected", "tunnel_all", "", "", true, true},
            "disabled_due_to_vpn",
            1},
        Row{"CustomerAlone",
            {false, false, "", false, "", false, "", "", "", "", true, true},
            "disabled_due_to_trusted_network",
            1},
        Row{"CustomerProbeFails",
            {false, false, "", false, "", false, "", "", "", "", true, false},
            "",
            1},
        Row{"HonourVpn", {true, true, "linkmantleVpn"}, "disabled_due_to_vpn", 0},
        Row{"HonourCustomer",
            {true, true, "customerTrustedNetwork"},
            "disabled_due_to_trusted_network",
            0},
        Row{"HonourTrusted",
            {true, true, "linkmantleTrustedNetwork"},
            "disabled_due_to_trusted_network",
            0},
        Row{"HonourIsCaseSensitive", {true, true, "linkmantlevpn"}, "", 0},
        Row{"HonourNeedsDnsBackoff", {true, false, "linkmantleVpn"}, "", 0},
        Row{"HonourIgnoresOwnInputs",
            {true, false, "", true, "trusted", true, "connected", "tunnel_all", "", "", true, true},
            "",
            0}),
    [](const ::testing::TestParamInfo<Row>& row) { return std::string(row.param.name); });

class BackoffTransitionTest : public BackoffFixture {};

// Backed off, a change of reason sends the new word with no transition, a repeat sends
// nothing new, and the end of it reinstalls the rules and reports "protected".
TEST_F(BackoffTransitionTest, FollowsItsInputsInAndOut) {
    Configure(kFullTunnelV4);
    m_agent.OnBackoffStateChange();
    EXPECT_EQ(Words(), std::vector<std::string>{"disabled_due_to_vpn"});

    Inputs trustedToo = kFullTunnelV4;
    trustedToo.onTnd = true;
    trustedToo.tnd = "trusted";
    Configure(trustedToo);
    m_agent.OnBackoffStateChange();
    m_agent.OnBackoffStateChange();
    EXPECT_EQ(Words(), std::vector<std::string>{"disabled_due_to_trusted_network"});
    EXPECT_TRUE(m_script->Get(m_script->rules).empty());

    // Ordinary words are refused while backed off.
    EXPECT_NE(m_agent.SendSWGState("protected", SWG_STATE_UPDATE_NORMAL), 0);

    Configure({});
    m_agent.OnBackoffStateChange();
    EXPECT_FALSE(m_agent.m_bBackedOff);
    EXPECT_EQ(Words(), std::vector<std::string>{"protected"});
    EXPECT_FALSE(m_script->Get(m_script->rules).empty());  // reinstalled
}

}  // namespace
}  // namespace swg_test
