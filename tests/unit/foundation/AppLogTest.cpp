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
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/AppLog.h"
#include "foundation/GlobalConst.h"
#include "foundation/LoggingMessages.h"

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

std::string Tid() { return "[TID=" + std::to_string(syscall(SYS_gettid)) + "]"; }

// A data root of its own per test, so debuglogconfig.json is read from there.
class AppLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/swg-applog-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_root = pattern;
        m_configDir = m_root + "/trevo/trevoclient";
        std::filesystem::create_directories(m_configDir);
        setenv("SWG_DATA_ROOT", m_root.c_str(), 1);
    }
    void TearDown() override {
        m_log.reset();
        unsetenv("SWG_DATA_ROOT");
        std::filesystem::remove_all(m_root);
    }

    void WriteConfig(const std::string& contents) {
        std::ofstream(m_configDir + "/debuglogconfig.json") << contents;
    }
    // Creates the first instance, which loads the configuration.
    void StartLog() {
        long result = -1;
        m_log = std::make_unique<CAppLog>(result, "test", new FakeLogger(m_messages));
        ASSERT_EQ(result, 0);
    }
    std::vector<LoggedMessage> With(const std::string& fragment) const {
        std::vector<LoggedMessage> found;
        for (const auto& m : *m_messages) {
            if (m.text.find(fragment) != std::string::npos) found.push_back(m);
        }
        return found;
    }

    std::string m_root;
    std::string m_configDir;
    std::shared_ptr<std::vector<LoggedMessage>> m_messages =
        std::make_shared<std::vector<LoggedMessage>>();
    std::unique_ptr<CAppLog> m_log;
};

// Guards the layout of message 1 and that the importance and table data reach the logger.
TEST_F(AppLogTest, DebugMessageCarriesThreadFunctionFileAndLine) {
    StartLog();
    m_messages->clear();
    CAppLog::LogDebugMessage("Func", "file.cpp", 12, Logging::kImportanceError, "text %d", 7);
    ASSERT_EQ(m_messages->size(), 1u);
    const LoggedMessage& m = m_messages->front();
    EXPECT_EQ(m.text, Tid() + "\nFunction: Func\nFile: file.cpp\nLine: 12\ntext 7");
    EXPECT_EQ(m.severity, 7);
    EXPECT_EQ(m.name, "MID_DEBUG_MESSAGE");
    EXPECT_EQ(m.id, MID_DEBUG_MESSAGE);
    EXPECT_EQ(m.importance, Logging::kImportanceError);
}

// Guards the description rule of message 2: strerror_r below 0xFE000000 only.
TEST_F(AppLogTest, ReturnCodeIsDescribedBySystemTextOnlyForSystemCodes) {
    StartLog();
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
        ASSERT_EQ(m_messages->size(), 1u);
        EXPECT_EQ(m_messages->front().text, Tid() +
                                                "\nFunction: F\nFile: f.cpp\nLine: 3\n"
                                                "Invoked Function: open\n" +
                                                c.expected + "after call");
        EXPECT_EQ(m_messages->front().name, "MID_DEBUG_RETURN_CODE");
    }
}

// Guards the fixed formatting buffers: long texts are cut, never overrun.
TEST_F(AppLogTest, LongTextsAreTruncatedToTheBuffers) {
    StartLog();
    m_messages->clear();
    const std::string big(5000, 'x');
    CAppLog::LogDebugMessage("F", "f", 1, Logging::kImportanceInfo, "%s", big.c_str());
    ASSERT_EQ(m_messages->size(), 1u);
    const std::string& text = m_messages->front().text;
    const std::string kept(CAppLog::kTextBufferBytes - 1, 'x');
    ASSERT_GT(text.size(), kept.size());
    EXPECT_EQ(text.substr(text.size() - kept.size() - 1), "\n" + kept);
    m_messages->clear();
    CAppLog::LogMessage(MID_UNKNOWN, big.c_str());
    EXPECT_EQ(m_messages->front().text, std::string(CAppLog::kMessageBufferBytes - 1, 'x'));
    EXPECT_EQ(m_messages->front().importance, Logging::kImportanceTable);
    EXPECT_EQ(m_messages->front().severity, 5);
}

// Guards the table search: ids inside a set are known, the first id past a set is not,
// and neither kind reads the caller's arguments.
TEST_F(AppLogTest, MessageIdsOutsideTheFirstSetNeverReadArguments) {
    StartLog();
    struct Case {
        Logging::MessageID id;
        const char* name;
    } cases[] = {{4, "MID_UNKNOWN_MESSAGE_ID"},         {101, "MID_PRODUCT_MESSAGE"},
                 {103, "MID_PRODUCT_MESSAGE"},          {104, "MID_UNKNOWN_MESSAGE_ID"},
                 {2161, "MID_PRODUCT_MESSAGE"},         {2162, "MID_UNKNOWN_MESSAGE_ID"},
                 {6300, "MID_PRODUCT_MESSAGE"},         {6301, "MID_UNKNOWN_MESSAGE_ID"},
                 {7007, "MID_PRODUCT_MESSAGE"},         {7008, "MID_UNKNOWN_MESSAGE_ID"},
                 {0xFFFFFFFF, "MID_UNKNOWN_MESSAGE_ID"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.id);
        m_messages->clear();
        // An int where a format might expect a string: must not be read.
        CAppLog::LogMessage(c.id, 12345);
        ASSERT_EQ(m_messages->size(), 1u);
        EXPECT_EQ(m_messages->front().name, c.name);
        EXPECT_EQ(m_messages->front().id, c.id);
        EXPECT_THAT(m_messages->front().text, HasSubstr(std::to_string(c.id)));
        EXPECT_EQ(CLoggingMessages::IsKnown(c.id), std::string(c.name) == "MID_PRODUCT_MESSAGE");
    }
}

// Guards instance counting: the logger lives while any instance does.
TEST_F(AppLogTest, LastInstanceReleasesLoggerAndConfiguration) {
    EXPECT_FALSE(CAppLog::HasLogger());
    EXPECT_EQ(CAppLog::UpdateLogger("x"), SWG_E_MODULE_NO_INSTANCE);
    WriteConfig(R"({"vpn_curl": 2})");
    StartLog();
    long result = -1;
    auto second = std::make_unique<CAppLog>(result, "second", nullptr);
    EXPECT_EQ(result, 0);
    m_messages->clear();
    CAppLog::LogMessage(MID_UNKNOWN, "kept");
    EXPECT_EQ(m_messages->size(), 1u) << "a null logger must not replace the installed one";
    m_log.reset();
    EXPECT_TRUE(CAppLog::HasLogger());
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_VPN_CURL), CUST_LOG_LEVEL_MEDIUM);
    EXPECT_EQ(CAppLog::UpdateLogger("replacement"), 0);
    m_messages->clear();
    CAppLog::LogMessage(MID_UNKNOWN, "to syslog now");
    EXPECT_TRUE(m_messages->empty());
    second.reset();
    EXPECT_FALSE(CAppLog::HasLogger());
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_VPN_CURL), CUST_LOG_LEVEL_OFF);
    EXPECT_EQ(CAppLog::IsLogVerboseMessage(CUST_LOG_VPN_CURL, CUST_LOG_LEVEL_LOW), "");
    CAppLog::LogDebugMessage("F", "f", 1, Logging::kImportanceInfo, "dropped");  // no logger
}

// Guards the per-thread id cache: each thread reports its own kernel id.
TEST_F(AppLogTest, ThreadIdIsThatOfTheCallingThread) {
    StartLog();
    const int mine = CAppLog::GetCurrentThreadId();
    EXPECT_EQ(mine, static_cast<int>(syscall(SYS_gettid)));
    int other = 0;
    std::thread([&other] { other = CAppLog::GetCurrentThreadId(); }).join();
    EXPECT_NE(other, 0);
    EXPECT_NE(other, mine);
}

// Guards the file's rules: unknown names skipped, values above 3 fall back to 0,
// good values apply, and the summary lists all components.
TEST_F(AppLogTest, ConfigurationAppliesKnownValuesAndReportsTheRest) {
    WriteConfig(R"({"vpn_curl": 2, "bogus": 1, "vpn_saml": 4, "certificate": 3, "vpn_pbr": -1})");
    StartLog();
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_VPN_CURL), CUST_LOG_LEVEL_MEDIUM);
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_CERTIFICATE), CUST_LOG_LEVEL_HIGH);
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_VPN_SAML), CUST_LOG_LEVEL_OFF);
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_VPN_PBR), CUST_LOG_LEVEL_OFF);
    EXPECT_EQ(CAppLog::GetLogLevel(static_cast<CUST_LOG_COMPONENT>(14)), CUST_LOG_LEVEL_OFF);
    EXPECT_EQ(With("Skipping entry because of unknown component: bogus.").size(), 1u);
    EXPECT_EQ(
        With("Unexpected value for component \"vpn_saml\". Default value will be used.").size(),
        1u);
    EXPECT_EQ(With("Unexpected value for component \"vpn_pbr\".").size(), 1u);
    const auto found = With("Custom debug log configuration file found:\n");
    ASSERT_EQ(found.size(), 1u);
    const std::string& summary = found[0].text;
    EXPECT_THAT(summary, HasSubstr("vpn_curl : 2\n"));
    EXPECT_THAT(summary, HasSubstr("certificate : 3\n"));
    EXPECT_THAT(summary, HasSubstr("vpn_saml : 0\n"));
    size_t lines = 0;
    for (size_t at = summary.find(" : "); at != std::string::npos;
         at = summary.find(" : ", at + 1)) {
        ++lines;
    }
    EXPECT_EQ(lines, 24u);
}

// Guards the verbose gate: level 0 never passes; a level passes up to the one in force.
TEST_F(AppLogTest, VerboseGateFollowsTheLevelInForce) {
    WriteConfig(R"({"vpn_curl": 2, "vpn_ipc": 3, "vpn_api": 1})");
    StartLog();
    EXPECT_EQ(CAppLog::IsLogVerboseMessage(CUST_LOG_VPN_CURL, CUST_LOG_LEVEL_OFF), "");
    EXPECT_EQ(CAppLog::IsLogVerboseMessage(CUST_LOG_VPN_CURL, CUST_LOG_LEVEL_LOW), "vpn_curl");
    EXPECT_EQ(CAppLog::IsLogVerboseMessage(CUST_LOG_VPN_CURL, CUST_LOG_LEVEL_MEDIUM), "vpn_curl");
    EXPECT_EQ(CAppLog::IsLogVerboseMessage(CUST_LOG_VPN_CURL, CUST_LOG_LEVEL_HIGH), "");
    EXPECT_EQ(CAppLog::IsLogVerboseMessage(CUST_LOG_VPN_SAML, CUST_LOG_LEVEL_LOW), "");
    EXPECT_EQ(CAppLog::IsLogAggVerboseMessage(
                  {CUST_LOG_VPN_API, CUST_LOG_VPN_CURL, CUST_LOG_VPN_SAML, CUST_LOG_VPN_IPC},
                  CUST_LOG_LEVEL_LOW),
              "vpn_api vpn_curl vpn_ipc");
    EXPECT_EQ(CAppLog::IsLogAggVerboseMessage(
                  {CUST_LOG_VPN_API, CUST_LOG_VPN_CURL, CUST_LOG_VPN_IPC}, CUST_LOG_LEVEL_MEDIUM),
              "vpn_curl vpn_ipc");
    m_messages->clear();
    CAppLog::LogVerboseMessage("Fn", "v.cpp", 9, Logging::kImportanceInfo, CUST_LOG_VPN_CURL,
                               CUST_LOG_LEVEL_MEDIUM, "detail %s", "here");
    ASSERT_EQ(m_messages->size(), 1u);
    EXPECT_EQ(m_messages->front().text, "[TID=" + std::to_string(syscall(SYS_gettid)) +
                                            " CLL=2][vpn_curl] v.cpp:9(Fn) detail here");
    EXPECT_EQ(m_messages->front().name, "MID_VERBOSE_MESSAGE");
}

// Guards the missing-file path: one notice, no error report, defaults in force.
TEST_F(AppLogTest, MissingFileLeavesDefaultsAndSaysSo) {
    StartLog();
    EXPECT_EQ(
        With("Custom debug logging is disabled. Configuration json file is not present.").size(),
        1u);
    EXPECT_TRUE(With("Return Code").empty());
    EXPECT_TRUE(With("file found").empty());
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_VPN_CURL), CUST_LOG_LEVEL_OFF);
}

// Guards the parse failure path: logged with the parser's text, defaults in force.
TEST_F(AppLogTest, MalformedFileIsReportedAndDefaultsStand) {
    WriteConfig(R"({"vpn_curl": 2,)");
    StartLog();
    EXPECT_EQ(With("Failed to parse configuration file (").size(), 1u);
    EXPECT_EQ(With("Return Code: -2147467259 (0x80004005)").size(), 1u);
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_VPN_CURL), CUST_LOG_LEVEL_OFF);
}

// Guards that an empty file is a success with nothing read.
TEST_F(AppLogTest, EmptyFileIsASuccessWithDefaults) {
    WriteConfig("");
    StartLog();
    EXPECT_EQ(With("Custom debug log configuration file found:").size(), 1u);
    EXPECT_TRUE(With("Return Code").empty());
    EXPECT_EQ(CAppLog::GetLogLevel(CUST_LOG_CERTIFICATE), CUST_LOG_LEVEL_OFF);
}

// Guards the unreadable path (a directory where the file should be): code 0xFEDE000A.
TEST_F(AppLogTest, UnreadableFileGivesItsCodeAndMessage) {
    ASSERT_EQ(mkdir((m_configDir + "/debuglogconfig.json").c_str(), 0700), 0);
    std::string contents = "stale";
    EXPECT_EQ(CAppLogCustomConfig::getConfigurationFileContents(contents),
              SWG_E_LOGCFG_NOT_READABLE);
    EXPECT_EQ(contents, "");
    StartLog();
    EXPECT_EQ(With("The configuration file for customizing debug logs is empty or is not readable.")
                  .size(),
              1u);
    EXPECT_EQ(With("(0xFEDE000A)").size(), 1u);
}

// Guards the location: the file follows SWG_DATA_ROOT, and a missing file is 0xFEDE000C.
TEST_F(AppLogTest, FileLiesUnderTheDataRoot) {
    EXPECT_EQ(CAppLogCustomConfig::getConfigurationFilePath(),
              m_root + "/trevo/trevoclient/debuglogconfig.json");
    std::string contents;
    EXPECT_EQ(CAppLogCustomConfig::getConfigurationFileContents(contents),
              SWG_E_LOGCFG_NOT_PRESENT);
    WriteConfig(R"({"vpn_ipc": 1})");
    EXPECT_EQ(CAppLogCustomConfig::getConfigurationFileContents(contents), 0);
    EXPECT_EQ(contents, R"({"vpn_ipc": 1})");
}

// Guards that the configuration is loaded once: a later change of the file is not read.
TEST_F(AppLogTest, ConfigurationLoadsOnlyOnce) {
    WriteConfig(R"({"vpn_ipc": 1})");
    CAppLogCustomConfig config;
    config.initConfigurationMap();
    EXPECT_EQ(config.GetLevel(CUST_LOG_VPN_IPC), CUST_LOG_LEVEL_LOW);
    WriteConfig(R"({"vpn_ipc": 3})");
    config.initConfigurationMap();
    EXPECT_EQ(config.GetLevel(CUST_LOG_VPN_IPC), CUST_LOG_LEVEL_LOW);
    EXPECT_EQ(config.loadConfigurationFromFile(), 0);
    EXPECT_EQ(config.GetLevel(CUST_LOG_VPN_IPC), CUST_LOG_LEVEL_HIGH);
    EXPECT_EQ(config.GetName(CUST_LOG_VIRTUAL_ADAPTER_NTWKBNDQ), "virtual_adapter_ntwkbndq");
    EXPECT_EQ(config.GetName(static_cast<CUST_LOG_COMPONENT>(15)), "");
}

}  // namespace
