// SPDX-License-Identifier: Apache-2.0
// The agent's configuration operations with real files: LoadOrgInfo and its override,
// the anycast flag, the gateway name and the FIPS mode.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "ConfigTestSupport.h"
#include "config/ConfigFiles.h"
#include "core/SWGAgent.h"
#include "support/SyslogCapture.h"

namespace {
using config_test::EditConfig;
using config_test::FullConfig;
using Texts = std::vector<std::string>;

class LoadOrgInfoTest : public ::testing::Test {
protected:
    bool Load() {
        m_info = OrgInfoRecord();
        return m_agent.LoadOrgInfoFromFolder(m_folder.Path(), m_info);
    }
    Texts Lines() const {
        Texts texts;
        for (const auto& line : m_capture.Lines()) texts.push_back(line.text);
        return texts;
    }
    std::string PathOf(const char* name) const { return m_folder.PathOf(name); }

    swg_test::TempFolder m_folder;
    CSWGAgent m_agent;
    OrgInfoRecord m_info;
    swg_test::SyslogCapture m_capture;
};

// Guards missing, unreadable (a FIFO must not block), oversized, malformed and invalid files;
// the override's absence is told right after the parse, validity comes last.
TEST_F(LoadOrgInfoTest, UnusableFileResults) {
    const std::string file = PathOf("SWGConfig.json");
    std::string huge = FullConfig();
    huge.append(kMaxConfigFileBytes, ' ');
    const struct {
        const char* what;
        std::function<void()> make;
        Texts lines;
    } cases[] = {
        {"missing", [] {}, {"\nSWG: Failed to find config file: '" + file + "'\n"}},
        {"folder", [&] { mkdir(file.c_str(), 0700); }, {}},
        {"fifo", [&] { mkfifo(file.c_str(), 0600); }, {}},
        {"oversized",
         [&] { m_folder.Write("SWGConfig.json", huge); },
         {"LoadOrgInfo: " + file + " is larger than " + std::to_string(kMaxConfigFileBytes) +
          " bytes and was not read\n"}},
        {"malformed",
         [&] { m_folder.Write("SWGConfig.json", "{"); },
         {"\nSWG : Failed to parse json file"}},
        {"invalid",
         [&] { m_folder.Write("SWGConfig.json", R"({"identity":{"overlayUser":"ov"}})"); },
         {"\nSWG : Unable to open the custom config file", "\nSWG : Overlay user ID : Hov",
          "\nSWG: JSON file has few empty values."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        if (rmdir(file.c_str()) != 0) unlink(file.c_str());
        m_capture.Clear();
        c.make();
        EXPECT_FALSE(Load());
        EXPECT_EQ(Lines(), c.lines);
        for (const auto& line : m_capture.Lines()) EXPECT_EQ(line.priority, LOG_ERR);
    }
}

// Guards the override: unreadable or untrusted is none; read line by line, line ends vanish
// everywhere.
TEST_F(LoadOrgInfoTest, OverrideIsReadLineByLine) {
    m_folder.Write("SWGConfig.json", FullConfig());  // its logLevel is "1"
    ASSERT_EQ(mkdir(PathOf("SWGConfigOverride.json").c_str(), 0700), 0);
    EXPECT_TRUE(Load());
    EXPECT_FALSE(m_info.bIPv6Enabled);
    EXPECT_EQ(m_capture.LinesWith("\nSWG : Unable to open the custom config file").size(), 1u);

    ASSERT_EQ(rmdir(PathOf("SWGConfigOverride.json").c_str()), 0);
    m_folder.Write("SWGConfigOverride.json", "{\r\n\"IPv6Enabled\":\ntrue,\n\"logLevel\":\"0\n\"}");
    ASSERT_TRUE(Load());
    EXPECT_TRUE(m_info.bIPv6Enabled);
    EXPECT_TRUE(m_info.bDefaultLogLevel) << "\"0\\n\" must read as \"0\"";
    EXPECT_EQ(m_capture.LinesWith("Unable to open the custom config file").size(), 1u);

    // One that another user could have written is no override either.
    const std::string path = PathOf("SWGConfigOverride.json");
    ASSERT_EQ(chmod(path.c_str(), 0646), 0);
    ASSERT_TRUE(Load());
    EXPECT_FALSE(m_info.bIPv6Enabled);
    const std::string line = "SWG: Refused to read '" + path + "': '" + path + "' is writable";
    EXPECT_EQ(m_capture.LinesWith(line).size(), 1u);
}

// Guards the anycast flag: moved by every parsed file, refused or not, before validation.
TEST_F(LoadOrgInfoTest, AnycastFlagMovesBeforeValidation) {
    m_folder.Write("SWGConfig.json", R"({"orgConfig":{"swgAnycastList":{"v6":["2001:db8::1"]}}})");
    EXPECT_FALSE(Load());
    EXPECT_TRUE(m_agent.GetAnycastV6Available());
    m_folder.Write("SWGConfig.json", EditConfig(FullConfig(), "orgConfig/swgAnycastList", "{}"));
    EXPECT_TRUE(Load());
    EXPECT_FALSE(m_agent.GetAnycastV6Available());
    m_agent.m_bAnycastV6Available = true;
    m_folder.Write("SWGConfig.json", "[");
    EXPECT_FALSE(Load());
    EXPECT_TRUE(m_agent.GetAnycastV6Available()) << "a file that does not parse moves nothing";
}

// Guards the order of the gateway sources.
TEST(SWGProxyName, FirstSourceWins) {
    const struct {
        const char* domain;
        const char* anycast;
        std::deque<std::string> v4;
        std::deque<std::string> v6;
        const char* hostname;
        bool v6Available;
        bool wantIPv6;
        const char* expected;
    } cases[] = {
        // clang-format off
        {"g.swg.test", "198.18.0.9", {"198.18.0.10"}, {"2001:db8::1"}, "h", true, true, "g.swg.test"},
        {"", "198.18.0.9", {"198.18.0.10"}, {"2001:db8::1", "2001:db8::2"}, "h", true, true, "2001:db8::1"},
        {"", "198.18.0.9", {"198.18.0.10", "198.18.0.11"}, {"2001:db8::1"}, "h", true, false, "198.18.0.10"},
        {"", "", {"198.18.0.10"}, {"2001:db8::1"}, "h", false, true, "198.18.0.10"},
        {"", "", {"198.18.0.10"}, {}, "h", true, true, "198.18.0.10"},
        {"", "198.18.0.9", {}, {"2001:db8::1"}, "h", false, true, "198.18.0.9"},
        {"", "", {}, {}, "h.swg.test", false, false, "h.swg.test"},
        {"", "", {}, {}, "", false, true, ""},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases));
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
}

// Guards a failed FIPS switch: mode kept, error logged, retried; leaving needs no provider.
TEST(UpdateFedRampMode, MissingProviderLeavesTheModeAndIsRetried) {
    swg_test::TempFolder noModules;
    const char* previous = getenv("OPENSSL_MODULES");
    const std::string saved = previous != nullptr ? previous : "";
    setenv("OPENSSL_MODULES", noModules.Path().c_str(), 1);
    swg_test::SyslogCapture capture;
    CSWGAgent agent;
    OrgInfoRecord info;
    info.bFedDeployment = true;
    agent.SetOrgInfo(info);
    agent.UpdateFedRampMode();
    agent.UpdateFedRampMode();
    EXPECT_FALSE(agent.m_bFipsModeApplied);
    const auto failures = capture.LinesWith("UpdateFedRampMode: Failed to update the FIPS mode ");
    EXPECT_EQ(failures.size(), 2u);
    for (const auto& line : failures) EXPECT_NE(line.text.find("error:"), std::string::npos);

    info.bFedDeployment = false;
    agent.SetOrgInfo(info);
    agent.m_bFipsModeApplied = true;  // as if a FIPS deployment had been in force
    agent.UpdateFedRampMode();
    EXPECT_FALSE(agent.m_bFipsModeApplied);
    EXPECT_EQ(capture.LinesWith("Failed").size(), 2u);
    previous != nullptr ? setenv("OPENSSL_MODULES", saved.c_str(), 1) : unsetenv("OPENSSL_MODULES");
}

}  // namespace
