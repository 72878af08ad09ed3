// SPDX-License-Identifier: Apache-2.0
// State words (which go out, which are held back), the state file, and the statistics text.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdint>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/SWGAgent.h"
#include "ipc/ReportJson.h"
#include "ipc/ServerSideCommunicator.h"
#include "support/ThreadTestSupport.h"

namespace {

constexpr int64_t kSecond = 1000000000;

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// An agent of the test's own whose plug-in is "connected" to a bare main queue that the test
// reads, with the data path in a fresh folder and a clock the test moves.
class SWGStateTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/swg-state-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_root = pattern;
        m_folder = m_root + "/trevo/trevoclient/tarnwall/SWG";
        boost::filesystem::create_directories(m_folder);
        setenv("SWG_DATA_ROOT", m_root.c_str(), 1);
        m_communicator.m_pMainQueue = std::make_shared<CMsgQueue>("test");
        m_communicator.SetConnectedState(true);
        m_agent.m_pCommunicator = &m_communicator;
        m_agent.SetStateClock([this] { return m_now; });
        m_agent.m_orgInfo.strSWGDomain = "gateway.swg.test";
        m_agent.m_orgInfo.strExceptionList = "a.test;;b.test;";
    }
    void TearDown() override {
        m_agent.m_pCommunicator = nullptr;
        boost::filesystem::remove_all(m_root);
    }

    // What reached the plug-in's queue since the last call, as "id payload".
    std::vector<std::string> Sent() {
        std::vector<std::string> sent;
        while (MSG_QUEUE_MSG* message = m_communicator.m_pMainQueue->MQGetMessage(false, 0)) {
            sent.push_back(CommMessageText(message->msg_id) + " " +
                           reinterpret_cast<const char*>(message->msg_data));
            delete message;
        }
        return sent;
    }

    std::string StateFile() const { return m_folder + "/SWGState.json"; }

    swg_test::ScopedLocaleEnvironment m_environment;  // puts SWG_DATA_ROOT back
    std::string m_root;
    std::string m_folder;
    int64_t m_now = kSecond;
    CServerSideCommunicator m_communicator{0, COMM_TYPE_SERVER, 5};
    CSWGAgent m_agent;
};

std::vector<std::string> Word(const std::string& word, int number) {
    return {"COMM_MSG_SWG_STATE {\"version\":1,\"swg_protection_state\":\"" + word + "\"}",
            "COMM_MSG_SWG_REPORT {\"ver\":1,\"state\":" + std::to_string(number) + "}"};
}

// Which word reaches the plug-in: backoff lets only forced words through, a run of gateway
// failures is reported once it has lasted 5 s, a repeated word is not sent again, a word
// outside the table is refused, and a word that found no plug-in is not remembered.
TEST_F(SWGStateTest, SendsOnlyTheWordsThatShouldReachThePlugIn) {
    const std::vector<std::string> none;
    const struct {
        const char* word;
        eSWGStateUpdate update;
        bool backedOff;
        bool connected;
        int64_t at;
        int result;
        std::vector<std::string> sent;
    } rows[] = {
        {"protected", SWG_STATE_UPDATE_NORMAL, false, true, 1 * kSecond, 0, Word("protected", 1)},
        {"protected", SWG_STATE_UPDATE_NORMAL, false, true, 1 * kSecond, 0, none},
        {"config_error", SWG_STATE_UPDATE_NORMAL, true, true, 1 * kSecond, -1, none},
        {"disabled", SWG_STATE_UPDATE_FORCED, true, true, 1 * kSecond, 0, Word("disabled", 3)},
        {"cloud_service_unavailable", SWG_STATE_UPDATE_NORMAL, false, true, 2 * kSecond, 0, none},
        {"cloud_service_unavailable", SWG_STATE_UPDATE_NORMAL, false, true, 7 * kSecond - 1, 0,
         none},
        {"cloud_service_unavailable", SWG_STATE_UPDATE_NORMAL, false, true, 7 * kSecond, 0,
         Word("cloud_service_unavailable", 7)},
        // Being sent ends the quiet period: a repeat starts a new one, and after it is "same".
        {"cloud_service_unavailable", SWG_STATE_UPDATE_FORCED, false, true, 8 * kSecond, 0, none},
        {"cloud_service_unavailable", SWG_STATE_UPDATE_NORMAL, false, true, 13 * kSecond, 0, none},
        {"cloud_service_unavailable", SWG_STATE_UPDATE_NORMAL, false, true, 14 * kSecond, 0, none},
        // Any other word ends the quiet period: 7 s after its start a failure is held back.
        {"protected", SWG_STATE_UPDATE_NORMAL, false, true, 15 * kSecond, 0, Word("protected", 1)},
        {"cloud_service_unavailable", SWG_STATE_UPDATE_NORMAL, false, true, 21 * kSecond, 0, none},
        {"bogus", SWG_STATE_UPDATE_NORMAL, false, true, 22 * kSecond, -2, none},
        {"config_error", SWG_STATE_UPDATE_NORMAL, false, false, 22 * kSecond, -1, none},
        {"config_error", SWG_STATE_UPDATE_NORMAL, false, true, 22 * kSecond, 0,
         Word("config_error", 6)},
    };
    int index = 0;
    for (const auto& row : rows) {
        m_agent.m_bBackedOff = row.backedOff;
        m_communicator.SetConnectedState(row.connected);
        m_now = row.at;
        EXPECT_EQ(m_agent.SendSWGState(row.word, row.update), row.result) << "row " << index;
        EXPECT_EQ(Sent(), row.sent) << "row " << index;
        ++index;
    }
}

// The file must be whole, in the plug-in's key order and format, readable by all whatever the
// service's umask, and written without following a link planted in its place.
TEST_F(SWGStateTest, ReplacesTheStateFileWholeWithoutFollowingALink) {
    const std::string victim = m_root + "/victim";
    std::ofstream(victim) << "untouched";
    ASSERT_EQ(symlink(victim.c_str(), StateFile().c_str()), 0);
    const mode_t previous = umask(077);
    EXPECT_EQ(m_agent.SendSWGState("protected", SWG_STATE_UPDATE_NORMAL), 0);
    umask(previous);

    EXPECT_EQ(ReadFile(StateFile()),
              "{\n"
              "\t\"version\":\t1,\n"
              "\t\"swg_protection_state\":\t\"protected\",\n"
              "\t\"swg_proxy_fqdn\":\t\"gateway.swg.test\",\n"
              "\t\"exception_list\":\t[\"a.test\", \"\", \"b.test\"],\n"
              "\t\"inclusion_list\":\t[]\n"
              "}");
    EXPECT_EQ(ReadFile(victim), "untouched");
    struct stat info {};
    ASSERT_EQ(lstat(StateFile().c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777, 0644u);
    // No temporary file is left beside it.
    EXPECT_EQ(std::distance(boost::filesystem::directory_iterator(m_folder),
                            boost::filesystem::directory_iterator()),
              1);
}

// The statistics text: key order, counters as exact decimal strings (also past 2^53, where a
// number would round), and the user message only when there is one.
TEST(ServiceStatsJsonTest, PrintsCountersAsTextInOrder) {
    SERVICE_STATS stats;
    stats.totalHTTPConnections = 1;
    stats.totalHTTPSConnections = 2;
    stats.totalBypassedHostConnections = 3;
    stats.activeTowerName = "gateway.swg.test";
    std::string text;
    std::string failure;
    ASSERT_TRUE(BuildServiceStatsJson(stats, text, failure));
    EXPECT_EQ(text,
              "{\"version\":1,\"web_connections_info\":{\"http_connections\":\"1\","
              "\"https_connections\":\"2\",\"bypassed_connections\":\"3\"},"
              "\"tarnwall_proxy\":\"gateway.swg.test\"}");
    stats.totalHTTPConnections = (uint64_t{1} << 53) + 1;
    stats.msgHistoryLog = "hello";
    ASSERT_TRUE(BuildServiceStatsJson(stats, text, failure));
    EXPECT_NE(text.find("\"http_connections\":\"9007199254740993\""), std::string::npos) << text;
    EXPECT_NE(text.find(",\"user_message\":\"hello\"}"), std::string::npos) << text;
}

}  // namespace
