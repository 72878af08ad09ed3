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

#include "platform/FileWatch.h"
#include "support/TempFolder.h"

namespace {

void Write(const std::string& path) { std::ofstream(path, std::ios::trunc) << "{}"; }

// The watch ids of the changes already queued: the kernel queues them before the call that
// made them returns, so no wait is needed.
std::vector<int> Pending(IFileWatch& watch) {
    std::vector<int> ids;
    std::vector<IFileWatch::Change> changes;
    while (watch.Wait(0, changes) == IFileWatch::WaitResult::kChanges && !changes.empty()) {
        for (const IFileWatch::Change& change : changes) ids.push_back(change.watch);
    }
    return ids;
}
bool Has(const std::vector<int>& ids, int id) {
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

// Guards the masks and the re-watch: a write reports the file's watch; a replacement by
// rename reports the folder and the old file, and only a fresh watch follows the new file;
// a deletion reports the folder; a missing file cannot be watched; the wake-up ends a wait
// without bound ahead of queued changes.
TEST(InotifyWatchTest, FollowsWritesReplacementDeletionAndWakes) {
    const swg_test::TempFolder folder;
    const std::string file = folder.PathOf("SWGConfig.json");
    Write(file);
    const std::unique_ptr<IFileWatch> watch = CreateSystemFileWatch();
    ASSERT_EQ(watch->Open(), IFileWatch::OpenResult::kOpened);
    const int folderId = watch->WatchFolder(folder.Path());
    const int first = watch->WatchFile(file);
    ASSERT_GE(folderId, 0);
    ASSERT_GE(first, 0);
    EXPECT_EQ(watch->WatchFile(file), first) << "the same file watched twice";
    Write(file);
    EXPECT_TRUE(Has(Pending(*watch), first));

    Write(file + ".part");
    ASSERT_EQ(std::rename((file + ".part").c_str(), file.c_str()), 0);
    const std::vector<int> replaced = Pending(*watch);
    EXPECT_TRUE(Has(replaced, folderId));
    EXPECT_TRUE(Has(replaced, first));
    const int second = watch->WatchFile(file);
    EXPECT_NE(second, first);
    Write(file);
    const std::vector<int> written = Pending(*watch);
    EXPECT_TRUE(Has(written, second));
    EXPECT_FALSE(Has(written, first));

    ASSERT_EQ(std::remove(file.c_str()), 0);
    EXPECT_TRUE(Has(Pending(*watch), folderId));
    EXPECT_EQ(watch->WatchFile(file), -ENOENT);
    std::vector<IFileWatch::Change> changes;
    EXPECT_EQ(watch->Wait(0, changes), IFileWatch::WaitResult::kTimeout);

    Write(file);
    watch->Wake();
    EXPECT_EQ(watch->Wait(-1, changes), IFileWatch::WaitResult::kWoken);
    watch->Close();
}

// Guards a wake-up before any Open: no byte goes to descriptor 0 in the pipe's place.
TEST(InotifyWatchTest, WakeBeforeOpenWritesNothing) {
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
