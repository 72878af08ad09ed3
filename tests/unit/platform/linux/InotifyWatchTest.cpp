// SPDX-License-Identifier: Apache-2.0
// The system's file watch on real files: which watch reports a write, a replacement by
// rename and a deletion, and the wake-up.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "platform/FileWatch.h"

namespace {
using Change = IFileWatch::Change;
using WaitResult = IFileWatch::WaitResult;

class InotifyWatchTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/swg-watch-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_folder = pattern;
        m_file = m_folder + "/SWGConfig.json";
        Write(m_file, "{}");
        ASSERT_EQ(m_watch->Open(), IFileWatch::OpenResult::kOpened);
        m_folderId = m_watch->WatchFolder(m_folder);
        ASSERT_GE(m_folderId, 0);
    }
    void TearDown() override {
        m_watch->Close();
        boost::system::error_code ignored;
        boost::filesystem::remove_all(m_folder, ignored);
    }

    static void Write(const std::string& path, const std::string& text) {
        std::ofstream(path, std::ios::trunc) << text;
    }
    // The watch ids of the changes that are already queued (the kernel queues them before
    // the call that made them returns).
    std::vector<int> Pending() {
        std::vector<int> ids;
        std::vector<Change> changes;
        while (m_watch->Wait(0, changes) == WaitResult::kChanges && !changes.empty()) {
            for (const Change& change : changes) ids.push_back(change.watch);
        }
        return ids;
    }
    static bool Has(const std::vector<int>& ids, int id) {
        return std::find(ids.begin(), ids.end(), id) != ids.end();
    }

    std::unique_ptr<IFileWatch> m_watch = CreateSystemFileWatch();
    std::string m_folder;
    std::string m_file;
    int m_folderId = -1;
};

// Guards the masks and the re-watch: a write reports the file's watch; a replacement by
// rename reports the folder and the old file, and only a fresh watch follows the new file;
// a deletion reports the folder, and a missing file cannot be watched.
TEST_F(InotifyWatchTest, WatchesFollowWritesReplacementAndDeletion) {
    const int first = m_watch->WatchFile(m_file);
    ASSERT_GE(first, 0);
    EXPECT_EQ(m_watch->WatchFile(m_file), first) << "the same file watched twice";
    Write(m_file, R"({"a":1})");
    EXPECT_TRUE(Has(Pending(), first));

    Write(m_file + ".part", R"({"a":2})");
    ASSERT_EQ(std::rename((m_file + ".part").c_str(), m_file.c_str()), 0);
    const std::vector<int> replaced = Pending();
    EXPECT_TRUE(Has(replaced, m_folderId));
    EXPECT_TRUE(Has(replaced, first));
    const int second = m_watch->WatchFile(m_file);
    ASSERT_GE(second, 0);
    EXPECT_NE(second, first);
    Write(m_file, R"({"a":3})");
    const std::vector<int> written = Pending();
    EXPECT_TRUE(Has(written, second));
    EXPECT_FALSE(Has(written, first));

    ASSERT_EQ(std::remove(m_file.c_str()), 0);
    EXPECT_TRUE(Has(Pending(), m_folderId));
    EXPECT_EQ(m_watch->WatchFile(m_file), -ENOENT);
    std::vector<Change> none;
    EXPECT_EQ(m_watch->Wait(0, none), WaitResult::kTimeout);
}

// Guards the wake-up: a pull ends the next unbounded wait, ahead of queued changes.
TEST_F(InotifyWatchTest, WakeEndsTheWaitAheadOfChanges) {
    ASSERT_GE(m_watch->WatchFile(m_file), 0);
    Write(m_file, R"({"a":1})");
    m_watch->Wake();
    std::vector<Change> changes;
    EXPECT_EQ(m_watch->Wait(-1, changes), WaitResult::kWoken);
}

// Guards a wake-up before any Open: no byte goes to descriptor 0 in the pipe's place.
TEST(InotifyWatchWake, WakeBeforeOpenWritesNothing) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    const int savedStdin = dup(STDIN_FILENO);
    ASSERT_EQ(dup2(fds[1], STDIN_FILENO), STDIN_FILENO);
    CreateSystemFileWatch()->Wake();
    dup2(savedStdin, STDIN_FILENO);
    close(savedStdin);
    char byte = 0;
    EXPECT_EQ(read(fds[0], &byte, 1), -1) << "wrote '" << byte << "' to descriptor 0";
    close(fds[0]);
    close(fds[1]);
}

}  // namespace
