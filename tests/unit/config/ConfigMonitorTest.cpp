// SPDX-License-Identifier: Apache-2.0
// The configuration monitor's thread with real files in a temporary folder: replacement by
// rename, writes in a row, deletion and return of the file, bad files and the stop.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ConfigTestSupport.h"
#include "config/ConfigManager.h"
#include "foundation/SSFileTrace.h"
#include "foundation/Trace.h"
#include "support/SyslogCapture.h"

namespace {
using config_test::EditConfig;
using config_test::FullConfig;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using Texts = std::vector<std::string>;

constexpr char kFile[] = "SWGConfig.json";
constexpr milliseconds kShortQuiet{300};
constexpr milliseconds kRealQuiet{CConfigManager::kQuietPeriodMs};
// Generous: a loaded machine may be slow to wake the thread, never early.
constexpr milliseconds kWakeSlack{1500};

std::string WithDomain(const std::string& domain) {
    return EditConfig(FullConfig(), "orgConfig/swgDomain", ("\"" + domain + "\"").c_str());
}

long ElapsedMs(Clock::time_point from, Clock::time_point to) {
    return static_cast<long>(std::chrono::duration_cast<milliseconds>(to - from).count());
}

class ConfigMonitorTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_trace.Initialize("tsc_swgagent", "/", "swg.log", 0, TRACE_MASK_DEBUG, true, true, 10,
                           10000, 100, 1, 0, 60);
        g_pTraceObject = &m_trace;
    }
    void TearDown() override {
        // The thread logs through the trace object: it must be gone before the object.
        m_manager.reset();
        g_pTraceObject = nullptr;
    }

    // Starts a monitor (with the file in place and in force unless told otherwise), waits
    // until it watches, and returns what its first reload asked of the agent.
    Texts StartWatching(milliseconds quiet, bool withFile = true) {
        if (withFile) {
            m_folder.Write(kFile, FullConfig());
            EXPECT_TRUE(m_agent.Preload(m_folder.Path()));
        }
        m_manager.reset(
            new CConfigManager(m_agent, m_folder.Path(), static_cast<unsigned int>(quiet.count())));
        m_manager->StartThread();
        EXPECT_EQ(m_manager->ReloadCount(), 1u) << "StartThread reloads once before the thread";
        EXPECT_TRUE(WaitForLine("MonitorConfigChangesProc: pipe "));
        const Texts first = m_agent.Calls();
        m_agent.ClearCalls();
        return first;
    }
    // Waits (hang guard) until the monitor has logged a line containing `text`.
    bool WaitForLine(const std::string& text) {
        return config_test::WaitUntil([&] { return !m_capture.LinesWith(text).empty(); },
                                      milliseconds(5000));
    }
    // Waits until `count` reloads have run to their end; false if `limit` passed first.
    bool WaitForReloads(unsigned int count, milliseconds limit) {
        return config_test::WaitUntil([&] { return m_manager->ReloadCount() >= count; }, limit);
    }
    // Writes `text` in place, waits for the next reload and returns what it asked of the agent.
    Texts WriteAndReload(const std::string& text) {
        const unsigned int next = m_manager->ReloadCount() + 1;
        m_agent.ClearCalls();
        m_folder.Write(kFile, text);
        EXPECT_TRUE(WaitForReloads(next, kShortQuiet + kWakeSlack));
        return m_agent.Calls();
    }
    std::string DomainInForce() { return m_agent.GetOrgInfo().strSWGDomain; }

    swg_test::SyslogCapture m_capture;
    CSSFileTrace m_trace;
    config_test::TempFolder m_folder;
    config_test::RecordingAgent m_agent;
    std::unique_ptr<CConfigManager> m_manager;
};

// Guards replacement by rename: one reload a quiet period later, and the new file is watched.
TEST_F(ConfigMonitorTest, RenameReplacementReloadsOnceAfterTheQuietPeriod) {
    StartWatching(kRealQuiet);
    m_folder.Replace(kFile, WithDomain("renamed.swg.test"));
    const Clock::time_point replaced = Clock::now();
    ASSERT_TRUE(WaitForReloads(2, kRealQuiet + kWakeSlack));
    EXPECT_GE(ElapsedMs(replaced, m_agent.LoadTimes().at(1)), 1900);
    EXPECT_EQ(DomainInForce(), "renamed.swg.test");
    EXPECT_EQ(m_agent.Calls(), (Texts{"SetOrgInfo", "SetActiveTowerName", "UpdateSWGStateFile"}));
    EXPECT_FALSE(WaitForReloads(3, kRealQuiet + milliseconds(500))) << "a second reload";

    m_folder.Write(kFile, WithDomain("edited.swg.test"));
    ASSERT_TRUE(WaitForReloads(3, kRealQuiet + kWakeSlack));
    EXPECT_EQ(DomainInForce(), "edited.swg.test");
}

// Guards the quiet period's restart: writes a second apart postpone the one reload.
TEST_F(ConfigMonitorTest, FiveWritesASecondApartGiveOneReload) {
    StartWatching(kRealQuiet);
    Clock::time_point lastWrite;
    for (int write = 1; write <= 5; ++write) {
        if (write > 1) std::this_thread::sleep_for(milliseconds(1000));
        m_folder.Write(kFile, WithDomain("write" + std::to_string(write) + ".swg.test"));
        lastWrite = Clock::now();
    }
    EXPECT_EQ(m_agent.LoadTimes().size(), 1u) << "reloaded while the writer was still busy";
    ASSERT_TRUE(WaitForReloads(2, kRealQuiet + kWakeSlack));
    EXPECT_GE(ElapsedMs(lastWrite, m_agent.LoadTimes().at(1)), 1900);
    EXPECT_EQ(DomainInForce(), "write5.swg.test");
    EXPECT_FALSE(WaitForReloads(3, milliseconds(1000)));
}

// Guards the missing file: a deletion drops a pending reload, the file's return reloads once.
TEST_F(ConfigMonitorTest, DeleteThenRecreateReloadsOnceAfterTheFileIsBack) {
    StartWatching(kShortQuiet);
    m_folder.Write(kFile, WithDomain("gone.swg.test"));
    ASSERT_TRUE(WaitForLine("after file change event wait couple seconds"));
    m_folder.Remove(kFile);
    EXPECT_FALSE(WaitForReloads(2, kShortQuiet * 3));
    EXPECT_TRUE(m_agent.Calls().empty());

    const Clock::time_point back = Clock::now();
    m_folder.Write(kFile, WithDomain("back.swg.test"));
    ASSERT_TRUE(WaitForReloads(2, kShortQuiet + kWakeSlack));
    EXPECT_GE(ElapsedMs(back, m_agent.LoadTimes().at(1)), kShortQuiet.count() - 20);
    EXPECT_EQ(DomainInForce(), "back.swg.test");
    EXPECT_FALSE(WaitForReloads(3, kShortQuiet * 3));
}

// Guards a late file, rewrites that store nothing or a case change, and a malformed file.
TEST_F(ConfigMonitorTest, LaterFileRewritesAndBadFiles) {
    EXPECT_EQ(StartWatching(kShortQuiet, false), Texts{"SendSWGState:config_error:0"});
    m_folder.Write(kFile, FullConfig());
    ASSERT_TRUE(WaitForReloads(2, kShortQuiet + kWakeSlack));
    EXPECT_EQ(DomainInForce(), "gateway.swg.test");

    EXPECT_TRUE(WriteAndReload(FullConfig()).empty());
    EXPECT_TRUE(WriteAndReload(WithDomain("Gateway.SWG.test")).empty());
    EXPECT_EQ(DomainInForce(), "gateway.swg.test");
    EXPECT_EQ(WriteAndReload(
                  EditConfig(FullConfig(), "orgConfig/swgTrustedServer", R"("Trusted.SWG.test")")),
              (Texts{"SetOrgInfo", "OnBackoffStateChange"}));
    EXPECT_EQ(m_agent.GetOrgInfo().strTrustedServer, "Trusted.SWG.test");

    EXPECT_EQ(WriteAndReload("{\"orgConfig\": {\"swgDomain\": "),
              Texts{"SendSWGState:config_error:0"});
    EXPECT_EQ(m_capture.LinesWith("UpdateCurrentConfig: Failed to load updated config file").size(),
              2u);
    EXPECT_EQ(m_agent.GetOrgInfo().strTrustedServer, "Trusted.SWG.test");
    WriteAndReload(WithDomain("fixed.swg.test"));
    EXPECT_EQ(DomainInForce(), "fixed.swg.test");
}

// Guards the stop of an idle monitor: the pipe wakes it, and it ends at once.
TEST_F(ConfigMonitorTest, StopWhileIdleEndsThroughThePipe) {
    StartWatching(kShortQuiet);
    m_manager->StopMonitorThread();
    EXPECT_TRUE(m_manager->WaitForMonitorEnd(500));
    EXPECT_EQ(m_capture.LinesWith("MonitorConfigChangesProc: pipe event so exit").size(), 1u);
}

// Guards the stop in the middle of a quiet period: the thread ends, the reload is dropped.
TEST_F(ConfigMonitorTest, StopDuringTheQuietPeriodEndsWithoutAReload) {
    StartWatching(milliseconds(1000));
    m_folder.Write(kFile, WithDomain("dropped.swg.test"));
    ASSERT_TRUE(WaitForLine("after file change event wait couple seconds"));
    m_manager->StopMonitorThread();
    // No check of the pipe's exit line: a later event of the same write may wake the thread
    // first, and it then ends on the stop flag before it reads the pipe.
    EXPECT_TRUE(m_manager->WaitForMonitorEnd(500));
    EXPECT_FALSE(WaitForReloads(2, milliseconds(1300)));
    EXPECT_EQ(DomainInForce(), "gateway.swg.test");
}

// Guards the set-up failure: without the folder the thread ends at once with its message.
TEST_F(ConfigMonitorTest, MissingFolderEndsTheThread) {
    CConfigManager manager(m_agent, m_folder.PathOf("absent"), 100);
    manager.StartThread();
    EXPECT_TRUE(manager.WaitForMonitorEnd(2000));
    EXPECT_EQ(
        m_capture.LinesWith("MonitorConfigChangesProc: open folder error " + std::to_string(ENOENT))
            .size(),
        1u);
}

// Guards a stop before any thread: no wake-up byte goes to descriptor 0 in the pipe's place.
TEST(ConfigMonitorStop, StopWithoutThreadWritesNothing) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    const int savedStdin = dup(STDIN_FILENO);
    ASSERT_EQ(dup2(fds[1], STDIN_FILENO), STDIN_FILENO);
    {
        config_test::RecordingAgent agent;
        CConfigManager manager(agent, "/nonexistent", 100);
        manager.StopMonitorThread();
    }
    dup2(savedStdin, STDIN_FILENO);
    close(savedStdin);
    char byte = 0;
    EXPECT_EQ(read(fds[0], &byte, 1), -1) << "wrote '" << byte << "' to descriptor 0";
    close(fds[0]);
    close(fds[1]);
}

}  // namespace
