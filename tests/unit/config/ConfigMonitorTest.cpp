// SPDX-License-Identifier: Apache-2.0
// The configuration monitor's thread on a fake watch and a fake clock, with real files in a
// temporary folder: replacement by rename, writes in a row, deletion and return of the file,
// bad files and the stop.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "ConfigTestSupport.h"
#include "config/ConfigManager.h"

namespace {
using config_test::EditConfig;
using config_test::FullConfig;
using Texts = std::vector<std::string>;

constexpr char kFile[] = "SWGConfig.json";
constexpr unsigned int kQuiet = CConfigManager::kQuietPeriodMs;

std::string WithDomain(const std::string& domain) {
    return EditConfig(FullConfig(), "orgConfig/swgDomain", ("\"" + domain + "\"").c_str());
}

class ConfigMonitorTest : public config_test::MonitorFixture {
protected:
    void TearDown() override {
        // The thread logs through the trace object: it must be gone before the object.
        m_manager.reset();
        MonitorFixture::TearDown();
    }

    // Starts a monitor (with the file in place and in force unless told otherwise), waits
    // until it watches, and returns what its first reload asked of the agent.
    Texts StartWatching(bool withFile = true) {
        if (withFile) {
            m_folder.Write(kFile, FullConfig());
            EXPECT_TRUE(m_agent.Preload(m_folder.Path()));
        }
        m_manager.reset(new CConfigManager(m_agent, m_folder.Path(), kQuiet, m_watch, m_clock));
        m_manager->StartThread();
        EXPECT_EQ(m_manager->ReloadCount(), 1u) << "StartThread reloads once before the thread";
        EXPECT_TRUE(m_watch.WaitIdle());
        const Texts first = m_agent.Calls();
        m_agent.ClearCalls();
        return first;
    }
    // Lets `ms` pass on the clock and returns the number of reloads once the thread is idle.
    unsigned int ReloadsAfter(unsigned int ms) {
        m_watch.Elapse(ms);
        EXPECT_TRUE(m_watch.WaitIdle());
        return m_manager->ReloadCount();
    }
    // Reports a change of the file or the folder and waits until the monitor has taken it.
    void Report(bool folder) {
        folder ? m_watch.ChangeFolder() : m_watch.ChangeFile();
        ASSERT_TRUE(m_watch.WaitIdle());
    }
    // Writes `text` in place, reports it, lets the quiet period pass and returns what the
    // reload asked of the agent.
    Texts WriteAndReload(const std::string& text) {
        const unsigned int next = m_manager->ReloadCount() + 1;
        m_agent.ClearCalls();
        m_folder.Write(kFile, text);
        Report(false);
        EXPECT_EQ(ReloadsAfter(kQuiet), next);
        return m_agent.Calls();
    }
    std::string DomainInForce() { return m_agent.GetOrgInfo().strSWGDomain; }

    std::unique_ptr<CConfigManager> m_manager;
};

// Guards replacement by rename: one reload a whole quiet period later, and the new file is
// watched from then on (the old file's watch would never report again).
TEST_F(ConfigMonitorTest, RenameReplacementReloadsOnceAfterTheQuietPeriod) {
    StartWatching();
    const int oldFile = m_watch.FileWatchId();
    m_folder.Replace(kFile, WithDomain("renamed.swg.test"));
    Report(false);
    EXPECT_NE(m_watch.FileWatchId(), oldFile) << "the replaced file is still the one watched";
    EXPECT_EQ(ReloadsAfter(kQuiet - 1), 1u) << "reloaded before the quiet period was over";
    EXPECT_EQ(ReloadsAfter(1), 2u);
    EXPECT_EQ(DomainInForce(), "renamed.swg.test");
    EXPECT_EQ(m_agent.Calls(), (Texts{"SetOrgInfo", "SetActiveTowerName", "UpdateSWGStateFile"}));
    EXPECT_EQ(ReloadsAfter(kQuiet * 3), 2u) << "a second reload";
}

// Guards the quiet period's restart: writes a second apart postpone the one reload until a
// whole quiet period after the last; changes of another folder entry restart it too.
TEST_F(ConfigMonitorTest, WritesASecondApartGiveOneReload) {
    StartWatching();
    for (int write = 1; write <= 5; ++write) {
        m_folder.Write(kFile, WithDomain("write" + std::to_string(write) + ".swg.test"));
        Report(write == 3);
        EXPECT_EQ(ReloadsAfter(1000), 1u) << "reloaded while the writer was still busy";
    }
    EXPECT_EQ(ReloadsAfter(kQuiet - 1000 - 1), 1u);
    EXPECT_EQ(ReloadsAfter(1), 2u);
    EXPECT_EQ(DomainInForce(), "write5.swg.test");
}

// Guards the missing file: a deletion drops a pending reload, the file's return reloads once.
TEST_F(ConfigMonitorTest, DeleteThenRecreateReloadsOnceAfterTheFileIsBack) {
    StartWatching();
    m_folder.Write(kFile, WithDomain("gone.swg.test"));
    Report(false);
    m_folder.Remove(kFile);
    Report(true);
    EXPECT_EQ(m_watch.FileWatchId(), -1);
    EXPECT_EQ(ReloadsAfter(kQuiet * 2), 1u);
    EXPECT_TRUE(m_agent.Calls().empty());

    m_folder.Write(kFile, WithDomain("back.swg.test"));
    Report(true);
    EXPECT_EQ(ReloadsAfter(kQuiet - 1), 1u);
    EXPECT_EQ(ReloadsAfter(1), 2u);
    EXPECT_EQ(DomainInForce(), "back.swg.test");
    EXPECT_EQ(ReloadsAfter(kQuiet * 2), 2u);
}

// Guards lost changes: the folder is looked at and the file counts as changed.
TEST_F(ConfigMonitorTest, LostChangesReloadTheFile) {
    StartWatching();
    m_folder.Write(kFile, WithDomain("lost.swg.test"));
    m_watch.LoseChanges();
    ASSERT_TRUE(m_watch.WaitIdle());
    EXPECT_EQ(ReloadsAfter(kQuiet), 2u);
    EXPECT_EQ(DomainInForce(), "lost.swg.test");
}

// Guards a late file, rewrites that store nothing or a case change, and a malformed file.
TEST_F(ConfigMonitorTest, LaterFileRewritesAndBadFiles) {
    EXPECT_EQ(StartWatching(false), Texts{"SendSWGState:config_error:0"});
    m_folder.Write(kFile, FullConfig());
    Report(true);
    EXPECT_EQ(ReloadsAfter(kQuiet), 2u);
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

// Guards the stop, idle (false) and in the middle of a quiet period (true): the wake-up
// ends the thread at once, and the pending reload is dropped.
class ConfigMonitorStopTest : public ConfigMonitorTest,
                              public ::testing::WithParamInterface<bool> {};

TEST_P(ConfigMonitorStopTest, StopEndsTheThreadAndDropsAPendingReload) {
    StartWatching();
    if (GetParam()) {
        m_folder.Write(kFile, WithDomain("dropped.swg.test"));
        Report(false);
    }
    m_manager->StopMonitorThread();
    EXPECT_TRUE(m_manager->WaitForMonitorEnd(10000));
    m_watch.Elapse(kQuiet);
    EXPECT_EQ(m_manager->ReloadCount(), 1u);
    EXPECT_EQ(DomainInForce(), "gateway.swg.test");
    EXPECT_EQ(m_capture.LinesWith("MonitorConfigChangesProc: pipe event so exit").size(), 1u);
}
INSTANTIATE_TEST_SUITE_P(IdleOrPending, ConfigMonitorStopTest, ::testing::Bool());

// Guards the set-up failure: without the folder the thread ends at once with its message.
TEST_F(ConfigMonitorTest, MissingFolderEndsTheThread) {
    CConfigManager manager(m_agent, m_folder.PathOf("absent"), 100, m_watch, m_clock);
    manager.StartThread();
    EXPECT_TRUE(manager.WaitForMonitorEnd(10000));
    EXPECT_EQ(
        m_capture.LinesWith("MonitorConfigChangesProc: open folder error " + std::to_string(ENOENT))
            .size(),
        1u);
}

}  // namespace
