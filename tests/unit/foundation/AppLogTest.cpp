// SPDX-License-Identifier: Apache-2.0
// Application log: message layouts, instance counting, the message table and the
// per-component configuration read from debuglogconfig.json.
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/AppLog.h"
#include "foundation/GlobalConst.h"
#include "foundation/LoggingMessages.h"
#include "support/TempFolder.h"

namespace {

using ::testing::HasSubstr;

struct LoggedMessage {
    Logging::Severity severity;
    std::string text;
    std::string name;
    Logging::MessageID id;
    Logging::DebugImportance importance;
};

// Records into storage the test keeps, since CAppLog owns and deletes the logger.
class FakeLogger : public ILogger {
public:
    explicit FakeLogger(std::shared_ptr<std::vector<LoggedMessage>> sink)
        : m_sink(std::move(sink)) {}
    long Log(Logging::Severity severity, const char* text, const char* name, Logging::MessageID id,
             Logging::DebugImportance importance) override {
        m_sink->push_back({severity, text, name, id, importance});
        return 0;
    }

private:
    std::shared_ptr<std::vector<LoggedMessage>> m_sink;
};

std::string Tid() { return std::to_string(syscall(SYS_gettid)); }

// A data root of its own per test, so debuglogconfig.json is read from there.
class AppLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(m_root.PathOf("trevo/trevoclient"));
        setenv("SWG_DATA_ROOT", m_root.Path().c_str(), 1);
    }
    void TearDown() override {
        m_log.reset();
        unsetenv("SWG_DATA_ROOT");
    }

    void WriteConfig(const std::string& contents) { std::ofstream(m_config) << contents; }
    // Creates the first instance, which loads the configuration.
    void StartLog() {
        long result = -1;
        m_log = std::make_unique<CAppLog>(result, "test", new FakeLogger(m_messages));
        ASSERT_EQ(result, 0);
    }
    size_t CountWith(const std::string& fragment) const {
        size_t n = 0;
        for (const auto& m : *m_messages) n += m.text.find(fragment) != std::string::npos;
        return n;
    }
    std::string FirstWith(const std::string& fragment) const {
        for (const auto& m : *m_messages)
            if (m.text.find(fragment) != std::string::npos) return m.text;
        return "";
    }
    // The one message logged since the last clear.
    const LoggedMessage& Only() const {
        static const LoggedMessage none{};
        EXPECT_EQ(m_messages->size(), 1u);
        return m_messages->size() == 1 ? m_messages->front() : none;
    }

    swg_test::TempFolder m_root;
    const std::string m_config = m_root.PathOf("trevo/trevoclient/debuglogconfig.json");
    std::shared_ptr<std::vector<LoggedMessage>> m_messages =
        std::make_shared<std::vector<LoggedMessage>>();
    std::unique_ptr<CAppLog> m_log;
};

// A wrong layout, table entry or importance for the debug and return-code messages, a
// system text given to a code of the agent's own (0xFE000000 and up), or a long text
// overrunning the formatting buffers instead of being cut.
TEST_F(AppLogTest, DebugAndReturnCodeMessageLayouts) {
    StartLog();
    m_messages->clear();
    CAppLog::LogDebugMessage("Func", "file.cpp", 12, Logging::kImportanceError, "text %d", 7);
    EXPECT_EQ(Only().text, "[TID=" + Tid() + "]\nFunction: Func\nFile: file.cpp\nLine: 12\ntext 7");
    EXPECT_EQ(Only().severity, 7);
    EXPECT_EQ(Only().name, "MID_DEBUG_MESSAGE");
    EXPECT_EQ(Only().id, MID_DEBUG_MESSAGE);
    EXPECT_EQ(Only().importance, Logging::kImportanceError);

    struct Case {
        long code;
        const char* description;
        std::string expected;
    } cases[] = {
        {ENOENT, nullptr, "Return Code: 2 (0x00000002)\nDescription: No such file or directory\n"},
        {0xFE000002L, nullptr, "Return Code: -33554430 (0xFE000002)\nDescription: \n"},
        {0, nullptr, "Return Code: 0 (0x00000000)\nDescription: \n"},
        {ENOENT, "given", "Return Code: 2 (0x00000002)\nDescription: given\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        m_messages->clear();
        CAppLog::LogReturnCode("F", "f.cpp", 3, Logging::kImportanceInfo, "open", c.code,
                               c.description, "after %s", "call");
        EXPECT_EQ(Only().text, "[TID=" + Tid() + "]\nFunction: F\nFile: f.cpp\nLine: 3\n" +
                                   "Invoked Function: open\n" + c.expected + "after call");
        EXPECT_EQ(Only().name, "MID_DEBUG_RETURN_CODE");
    }

    // Texts longer than the fixed formatting buffers are cut, not overrun.
    m_messages->clear();
    const std::string big(5000, 'x');
    CAppLog::LogDebugMessage("F", "f", 1, Logging::kImportanceInfo, "%s", big.c_str());
    const std::string kept(CAppLog::kTextBufferBytes - 1, 'x');
    ASSERT_GT(Only().text.size(), kept.size());
    EXPECT_EQ(Only().text.substr(Only().text.size() - kept.size() - 1), "\n" + kept);
    m_messages->clear();
    CAppLog::LogMessage(MID_UNKNOWN, big.c_str());
    EXPECT_EQ(Only().text, std::string(CAppLog::kMessageBufferBytes - 1, 'x'));
    EXPECT_EQ(Only().importance, Logging::kImportanceTable);
}

// A logger or configuration released while an instance still needs it, a null logger
// replacing the installed one, or either surviving the last instance.
TEST_F(AppLogTest, LastInstanceReleasesLoggerAndConfiguration) {
    EXPECT_EQ(CAppLog::UpdateLogger("x"), SWG_E_MODULE_NO_INSTANCE);
    WriteConfig(R"({"vpn_curl": 2})");
    StartLog();
    long result = -1;
    auto second = std::make_unique<CAppLog>(result, "second", nullptr);
    EXPECT_EQ(result, 0);
    m_log.reset();
    m_messages->clear();
    CAppLog::LogMessage(MID_UNKNOWN, "kept");
    EXPECT_EQ(m_messages->size(), 1u);
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_VPN_CURL), CUST_LOG_LEVEL_MEDIUM);

    EXPECT_EQ(CAppLog::UpdateLogger("replacement"), 0);
    CAppLog::LogMessage(MID_UNKNOWN, "to syslog now");
    EXPECT_EQ(m_messages->size(), 1u);
    second.reset();
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_VPN_CURL), CUST_LOG_LEVEL_OFF);
    EXPECT_EQ(CAppLog::IsLogVerboseMessage(CUST_LOG_VPN_CURL, CUST_LOG_LEVEL_LOW), "");
    CAppLog::LogDebugMessage("F", "f", 1, Logging::kImportanceInfo, "dropped");  // no logger
}

// An unknown name failing the load, a value outside 0-3 applied instead of the default 0,
// a summary that leaves components out, or a verbose gate that ignores the level in force.
TEST_F(AppLogTest, ConfigurationAppliesKnownValuesAndReportsTheRest) {
    WriteConfig(R"({"vpn_curl": 2, "bogus": 1, "vpn_saml": 4, "certificate": 3, "vpn_pbr": -1,
                   "vpn_ipc": 3, "vpn_api": 1})");
    StartLog();
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_VPN_CURL), CUST_LOG_LEVEL_MEDIUM);
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_CERTIFICATE), CUST_LOG_LEVEL_HIGH);
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_VPN_SAML), CUST_LOG_LEVEL_OFF);
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_VPN_PBR), CUST_LOG_LEVEL_OFF);
    EXPECT_EQ(CountWith("Skipping entry because of unknown component: bogus."), 1u);
    EXPECT_EQ(CountWith("Unexpected value for component \"vpn_saml\". Default value will be used."),
              1u);
    EXPECT_EQ(CountWith("Unexpected value for component \"vpn_pbr\"."), 1u);
    ASSERT_EQ(CountWith("Custom debug log configuration file found:\n"), 1u);
    const std::string summary = FirstWith("file found:");
    EXPECT_THAT(summary, HasSubstr("vpn_curl : 2\n"));
    EXPECT_THAT(summary, HasSubstr("certificate : 3\n"));
    EXPECT_THAT(summary, HasSubstr("vpn_saml : 0\n"));
    size_t lines = 0;
    for (size_t at = summary.find(" : "); at != std::string::npos; at = summary.find(" : ", at + 1))
        ++lines;
    EXPECT_EQ(lines, size_t{CAppLogCustomConfig::kComponentCount});

    // The verbose gate: level 0 never passes, nor a level above the one in force.
    EXPECT_EQ(CAppLog::IsLogVerboseMessage(CUST_LOG_VPN_CURL, CUST_LOG_LEVEL_OFF), "");
    EXPECT_EQ(CAppLog::IsLogVerboseMessage(CUST_LOG_VPN_CURL, CUST_LOG_LEVEL_MEDIUM), "vpn_curl");
    EXPECT_EQ(CAppLog::IsLogVerboseMessage(CUST_LOG_VPN_CURL, CUST_LOG_LEVEL_HIGH), "");
    EXPECT_EQ(CAppLog::IsLogAggVerboseMessage(
                  {CUST_LOG_VPN_API, CUST_LOG_VPN_CURL, CUST_LOG_VPN_SAML, CUST_LOG_VPN_IPC},
                  CUST_LOG_LEVEL_MEDIUM),
              "vpn_curl vpn_ipc");
    m_messages->clear();
    CAppLog::LogVerboseMessage("Fn", "v.cpp", 9, Logging::kImportanceInfo, CUST_LOG_VPN_CURL,
                               CUST_LOG_LEVEL_MEDIUM, "detail %s", "here");
    EXPECT_EQ(Only().text, "[TID=" + Tid() + " CLL=2][vpn_curl] v.cpp:9(Fn) detail here");
    EXPECT_EQ(Only().name, "MID_VERBOSE_MESSAGE");
}

// A missing, malformed, empty or unreadable file treated as the wrong kind of failure (or
// as none), or leaving anything but the defaults in force.
TEST_F(AppLogTest, FileProblemsLeaveTheDefaults) {
    const struct {
        const char* contents;  // null: no file; "/": a directory in its place
        const char* message;
        const char* code;  // null: no return code is reported
    } cases[] = {
        {nullptr, "Custom debug logging is disabled. Configuration json file is not present.",
         nullptr},
        {R"({"vpn_curl": 2,)", "Failed to parse configuration file (", "(0x80004005)"},
        {"", "Custom debug log configuration file found:", nullptr},
        {"/", "The configuration file for customizing debug logs is empty or is not readable.",
         "(0xFEDE000A)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        std::filesystem::remove_all(m_config);
        if (c.contents != nullptr && std::string(c.contents) == "/") {
            ASSERT_EQ(mkdir(m_config.c_str(), 0700), 0);
        } else if (c.contents != nullptr) {
            WriteConfig(c.contents);
        }
        m_messages->clear();
        StartLog();
        EXPECT_EQ(CountWith(c.message), 1u);
        EXPECT_EQ(CountWith("Return Code"), c.code != nullptr ? 1u : 0u);
        if (c.code != nullptr) {
            EXPECT_EQ(CountWith(c.code), 1u);
        }
        EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_VPN_CURL), CUST_LOG_LEVEL_OFF);
        m_log.reset();
    }
}

}  // namespace
