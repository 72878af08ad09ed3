// SPDX-License-Identifier: Apache-2.0
// The agent's configuration operations with real files: LoadOrgInfo and its override,
// the anycast flag, the gateway name and the FIPS mode.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "ConfigTestSupport.h"
#include "config/ConfigFiles.h"
#include "core/SWGAgent.h"
#include "support/SyslogCapture.h"

namespace {
using config_test::EditConfig;
using config_test::FullConfig;
using config_test::TempFolder;

std::vector<std::string> Texts(const swg_test::SyslogCapture& capture) {
    std::vector<std::string> texts;
    for (const auto& line : capture.Lines()) texts.push_back(line.text);
    return texts;
}

class LoadOrgInfoTest : public ::testing::Test {
protected:
    bool Load(OrgInfoRecord& info) { return m_agent.LoadOrgInfoFromFolder(m_folder.Path(), info); }

    TempFolder m_folder;
    CSWGAgent m_agent;
    swg_test::SyslogCapture m_capture;
};

// Guards the message for a missing file, with the full path between quotes.
TEST_F(LoadOrgInfoTest, MissingFileIsNamed) {
    OrgInfoRecord info;
    EXPECT_FALSE(Load(info));
    const std::vector<std::string> expected = {"\nSWG: Failed to find config file: '" +
                                               m_folder.PathOf("SWGConfig.json") + "'\n"};
    EXPECT_EQ(Texts(m_capture), expected);
}

// Guards the silent failure for something that exists but is no readable file, and that a
// FIFO in the file's place does not block the loader.
TEST_F(LoadOrgInfoTest, SomethingElseInTheFilesPlaceFailsSilently) {
    ASSERT_EQ(mkdir(m_folder.PathOf("SWGConfig.json").c_str(), 0700), 0);
    OrgInfoRecord info;
    EXPECT_FALSE(Load(info));
    ASSERT_EQ(rmdir(m_folder.PathOf("SWGConfig.json").c_str()), 0);
    ASSERT_EQ(mkfifo(m_folder.PathOf("SWGConfig.json").c_str(), 0600), 0);
    EXPECT_FALSE(Load(info));
    EXPECT_TRUE(m_capture.Lines().empty());
}

// Guards the bound on the file's size: a runaway file is refused, not read into memory.
TEST_F(LoadOrgInfoTest, OversizedFileIsRefused) {
    std::string huge = FullConfig();
    huge.append(kMaxConfigFileBytes, ' ');
    m_folder.Write("SWGConfig.json", huge);
    OrgInfoRecord info;
    EXPECT_FALSE(Load(info));
    EXPECT_TRUE(m_capture.LinesWith("Failed to parse").empty());
}

// Guards the order of the loader's messages around the override: the override is read only
// after the file parsed, its absence is reported at once, validity comes last.
TEST_F(LoadOrgInfoTest, OverrideMessageComesAfterParseAndValidityLast) {
    m_folder.Write("SWGConfig.json", "{");
    OrgInfoRecord broken;
    EXPECT_FALSE(Load(broken));
    EXPECT_EQ(Texts(m_capture), std::vector<std::string>{"\nSWG : Failed to parse json file"});

    m_capture.Clear();
    m_folder.Write("SWGConfig.json", R"({"identity":{"overlayUser":"ov"}})");
    OrgInfoRecord invalid;
    EXPECT_FALSE(Load(invalid));
    const std::vector<std::string> expected = {
        "\nSWG : Unable to open the custom config file",
        "\nSWG : Overlay user ID : Hov",
        "\nSWG: JSON file has few empty values.",
    };
    EXPECT_EQ(Texts(m_capture), expected);
    for (const auto& line : m_capture.Lines()) EXPECT_EQ(line.priority, LOG_ERR);
}

// Guards the line-by-line reading of the override: line ends vanish, also inside a JSON
// string, and a last line without a line end still counts.
TEST_F(LoadOrgInfoTest, OverrideLineEndsVanish) {
    m_folder.Write("SWGConfig.json", FullConfig());  // its logLevel is "1"
    m_folder.Write("SWGConfigOverride.json", "{\r\n\"IPv6Enabled\":\ntrue,\n\"logLevel\":\"0\n\"}");
    OrgInfoRecord info;
    ASSERT_TRUE(Load(info));
    EXPECT_TRUE(info.bIPv6Enabled);
    EXPECT_TRUE(info.bDefaultLogLevel) << "\"0\\n\" must read as \"0\"";
    EXPECT_TRUE(m_capture.LinesWith("Unable to open the custom config file").empty());
}

// Guards that an override that cannot be read is no override and no failure.
TEST_F(LoadOrgInfoTest, UnreadableOverrideIsNoOverride) {
    m_folder.Write("SWGConfig.json", FullConfig());
    ASSERT_EQ(mkdir(m_folder.PathOf("SWGConfigOverride.json").c_str(), 0700), 0);
    OrgInfoRecord info;
    EXPECT_TRUE(Load(info));
    EXPECT_FALSE(info.bIPv6Enabled);
    EXPECT_EQ(m_capture.LinesWith("\nSWG : Unable to open the custom config file").size(), 1u);
}

// Guards the anycast flag: set from the last parsed file even when that file is refused,
// and cleared by a file without IPv6 addresses.
TEST_F(LoadOrgInfoTest, AnycastFlagMovesBeforeValidation) {
    m_folder.Write("SWGConfig.json", R"({"orgConfig":{"swgAnycastList":{"v6":["2001:db8::1"]}}})");
    OrgInfoRecord refused;
    EXPECT_FALSE(Load(refused));
    EXPECT_TRUE(m_agent.GetAnycastV6Available());

    m_folder.Write("SWGConfig.json", EditConfig(FullConfig(), "orgConfig/swgAnycastList", "{}"));
    OrgInfoRecord accepted;
    EXPECT_TRUE(Load(accepted));
    EXPECT_FALSE(m_agent.GetAnycastV6Available());

    m_folder.Write("SWGConfig.json", "[");
    OrgInfoRecord malformed;
    EXPECT_FALSE(Load(malformed));
    EXPECT_FALSE(m_agent.GetAnycastV6Available()) << "a file that does not parse moves nothing";
}

// Guards that LoadOrgInfo looks under SWG_DATA_ROOT, as Init does.
TEST_F(LoadOrgInfoTest, ConfigurationFolderFollowsDataRoot) {
    const std::string folder = m_folder.Path() + "/trevo/trevoclient/tarnwall/SWG";
    ASSERT_EQ(system(("mkdir -p '" + folder + "'").c_str()), 0);
    config_test::ScopedEnv dataRoot("SWG_DATA_ROOT", m_folder.Path());
    std::string located;
    ASSERT_TRUE(GetSWGConfigFolder(located));
    EXPECT_EQ(located, folder);
    OrgInfoRecord missing;
    EXPECT_FALSE(m_agent.LoadOrgInfo(missing));
    EXPECT_EQ(m_capture.LinesWith(folder + "/SWGConfig.json'").size(), 1u);
}

struct ProxyNameCase {
    const char* name;
    const char* domain;
    const char* anycast;
    std::deque<std::string> v4;
    std::deque<std::string> v6;
    const char* hostname;
    bool v6Available;
    bool wantIPv6;
    const char* expected;
};

const ProxyNameCase kProxyNameCases[] = {
    {"DomainHidesEverything",
     "g.swg.test",
     "198.18.0.9",
     {"198.18.0.10"},
     {"2001:db8::1"},
     "h",
     true,
     true,
     "g.swg.test"},
    {"IPv6FrontWhenWantedAndAvailable",
     "",
     "198.18.0.9",
     {"198.18.0.10"},
     {"2001:db8::1", "2001:db8::2"},
     "h",
     true,
     true,
     "2001:db8::1"},
    {"IPv4FrontWhenIPv6NotWanted",
     "",
     "198.18.0.9",
     {"198.18.0.10", "198.18.0.11"},
     {"2001:db8::1"},
     "h",
     true,
     false,
     "198.18.0.10"},
    {"IPv4FrontWhenIPv6NotAvailable",
     "",
     "",
     {"198.18.0.10"},
     {"2001:db8::1"},
     "h",
     false,
     true,
     "198.18.0.10"},
    {"FlagWithoutIPv6ListFallsThrough",
     "",
     "",
     {"198.18.0.10"},
     {},
     "h",
     true,
     true,
     "198.18.0.10"},
    {"SingleAnycastWhenListEmpty",
     "",
     "198.18.0.9",
     {},
     {"2001:db8::1"},
     "h",
     false,
     true,
     "198.18.0.9"},
    {"HostnameLast", "", "", {}, {}, "h.swg.test", false, false, "h.swg.test"},
    {"EmptyWhenNothingGiven", "", "", {}, {}, "", false, true, ""},
};

void PrintTo(const ProxyNameCase& c, std::ostream* out) { *out << c.name; }

class SWGProxyNameTest : public ::testing::TestWithParam<ProxyNameCase> {};

// Guards the order of the gateway sources.
TEST_P(SWGProxyNameTest, FirstSourceWins) {
    const ProxyNameCase& c = GetParam();
    CSWGAgent agent;
    OrgInfoRecord info;
    info.strSWGDomain = c.domain;
    info.strSWGAnycast = c.anycast;
    info.qstrSWGAnycastListV4 = c.v4;
    info.qstrSWGAnycastListV6 = c.v6;
    info.strHostname = c.hostname;
    agent.SetOrgInfo(info);
    agent.m_bAnycastV6Available = c.v6Available;
    EXPECT_EQ(agent.GetSWGProxyName(c.wantIPv6), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Order, SWGProxyNameTest, ::testing::ValuesIn(kProxyNameCases),
                         [](const ::testing::TestParamInfo<ProxyNameCase>& param) {
                             return std::string(param.param.name);
                         });

// Guards the failure path of the FIPS switch: without a FIPS provider the mode stays as it
// was, the OpenSSL error is logged, and the next call tries again.
TEST(UpdateFedRampMode, MissingProviderLeavesModeAndRetries) {
    TempFolder noModules;
    config_test::ScopedEnv modules("OPENSSL_MODULES", noModules.Path());
    swg_test::SyslogCapture capture;
    CSWGAgent agent;
    OrgInfoRecord info;
    info.bFedDeployment = true;
    agent.SetOrgInfo(info);

    agent.UpdateFedRampMode();
    agent.UpdateFedRampMode();
    EXPECT_FALSE(agent.m_bFipsModeApplied);
    const auto failures = capture.LinesWith("UpdateFedRampMode: Failed to update the FIPS mode ");
    ASSERT_EQ(failures.size(), 2u);
    EXPECT_NE(failures[0].text.find("error:"), std::string::npos) << failures[0].text;
}

// Guards the two no-op and switch-off paths: a mode already in force is left alone, and
// leaving FIPS mode needs no provider.
TEST(UpdateFedRampMode, SwitchesOffAndLeavesAModeInForce) {
    swg_test::SyslogCapture capture;
    CSWGAgent agent;
    agent.UpdateFedRampMode();
    EXPECT_FALSE(agent.m_bFipsModeApplied);
    agent.m_bFipsModeApplied = true;  // as if a FIPS deployment had been in force
    agent.UpdateFedRampMode();
    EXPECT_FALSE(agent.m_bFipsModeApplied);
    EXPECT_TRUE(capture.LinesWith("Failed").empty());
}

// Guards the shipped sample: it loads, names the gateway by domain with one anycast
// address, and carries the throwaway public key exactly as the key file holds it.
TEST(SampleConfiguration, LoadsWithTheTestKey) {
    const std::string sample = std::string(SWG_SOURCE_DIR) + "/packaging/sample";
    std::ifstream keyFile(sample + "/licence-test-public.pem");
    const std::string key((std::istreambuf_iterator<char>(keyFile)),
                          std::istreambuf_iterator<char>());
    ASSERT_FALSE(key.empty());
    swg_test::SyslogCapture quiet;
    CSWGAgent agent;
    OrgInfoRecord info;
    ASSERT_TRUE(agent.LoadOrgInfoFromFolder(sample, info));
    EXPECT_EQ(info.strpKeyPem, key);
    EXPECT_EQ(info.strpKeyId, "sample-key-1");
    EXPECT_EQ(info.strSWGDomain, "gateway.swg.test");
    EXPECT_EQ(info.qstrSWGAnycastListV4, std::deque<std::string>{"198.18.0.10"});
    EXPECT_EQ(info.strWebTrafficMonitorPortList, "80,443");
    EXPECT_TRUE(info.bFailOpen);
    EXPECT_FALSE(info.bDefaultLogLevel);
    agent.SetOrgInfo(info);
    EXPECT_EQ(agent.GetSWGProxyName(false), "gateway.swg.test");
}

}  // namespace
