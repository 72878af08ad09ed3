// SPDX-License-Identifier: Apache-2.0
// A file watch for tests: the test says what changed, and the quiet period runs on a FakeClock.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/FileWatch.h"
#include "support/FakeClock.h"

namespace swg_test {

// Watches nothing by itself: the test pushes the changes that the system would report.
// Watch ids follow the real files as the system's do: one id per file (device and inode),
// so that a file replaced by rename gets a new id and the old one goes on naming the old
// file. A bounded Wait times out only when the test moves the clock past its end (Elapse).
// The watch thread and the test's thread may call anything.
class FakeFileWatch : public IFileWatch {
public:
    explicit FakeFileWatch(FakeClock& clock) : m_clock(clock) {}

    // ---- the test's side
    // Reports a change of the folder / of the file as it is watched now.
    void ChangeFolder() { Push(m_folder); }
    void ChangeFile() { Push(FileWatchId()); }
    // Reports that changes were lost.
    void LoseChanges() {
        Change lost;
        lost.lost = true;
        PushBatch({lost});
    }
    void PushBatch(std::vector<Change> changes) {
        std::lock_guard<std::mutex> hold(m_lock);
        m_batches.push_back(std::move(changes));
        m_changed.notify_all();
    }
    // Moves the clock by `ms`; a wait whose bound has passed times out.
    void Elapse(unsigned int ms) {
        m_clock.Advance(ms);
        std::lock_guard<std::mutex> hold(m_lock);
        m_changed.notify_all();
    }
    // Waits (hang guard) until the watch thread waits with nothing left to wake it: every
    // change pushed and every bound passed has been handled. False on a hang.
    bool WaitIdle() {
        std::unique_lock<std::mutex> hold(m_lock);
        return m_changed.wait_for(hold, std::chrono::seconds(10), [&] { return Idle(); });
    }
    // The id of the file's watch, -1 when the file is not watched.
    int FileWatchId() {
        std::lock_guard<std::mutex> hold(m_lock);
        return m_file;
    }

    // ---- IFileWatch
    OpenResult Open() override { return OpenResult::kOpened; }
    int WatchFolder(const std::string& folder) override {
        std::lock_guard<std::mutex> hold(m_lock);
        m_folder = IdOf(folder);
        return m_folder;
    }
    int WatchFile(const std::string& path) override {
        std::lock_guard<std::mutex> hold(m_lock);
        const int id = IdOf(path);
        if (id >= 0) m_file = id;
        return id;
    }
    void ForgetFile() override {
        std::lock_guard<std::mutex> hold(m_lock);
        m_file = -1;
    }
    WaitResult Wait(int timeoutMs, std::vector<Change>& changes) override {
        std::unique_lock<std::mutex> hold(m_lock);
        m_bounded = timeoutMs >= 0;
        if (m_bounded) m_end = m_clock.UniversalTime() + boost::posix_time::milliseconds(timeoutMs);
        m_waiting = true;
        m_changed.notify_all();
        m_changed.wait(hold, [&] { return m_woken || !m_batches.empty() || BoundPassed(); });
        m_waiting = false;
        if (m_woken) return WaitResult::kWoken;
        if (m_batches.empty()) return WaitResult::kTimeout;
        changes = std::move(m_batches.front());
        m_batches.pop_front();
        return WaitResult::kChanges;
    }
    void Wake() override {
        std::lock_guard<std::mutex> hold(m_lock);
        m_woken = true;
        m_changed.notify_all();
    }
    void Close() override {}

private:
    void Push(int watch) {
        Change change;
        change.watch = watch;
        PushBatch({change});
    }
    bool BoundPassed() { return m_bounded && m_clock.UniversalTime() >= m_end; }
    bool Idle() { return m_waiting && !m_woken && m_batches.empty() && !BoundPassed(); }
    // One id per file, as the system gives them; minus the errno when there is no file.
    int IdOf(const std::string& path) {
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0) return -errno;
        const auto key = std::make_pair(info.st_dev, info.st_ino);
        const auto found = m_ids.find(key);
        if (found != m_ids.end()) return found->second;
        const int id = static_cast<int>(m_ids.size()) + 1;
        m_ids[key] = id;
        return id;
    }

    FakeClock& m_clock;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<std::vector<Change>> m_batches;
    std::map<std::pair<dev_t, ino_t>, int> m_ids;
    int m_folder = -1;
    int m_file = -1;
    bool m_waiting = false;
    bool m_woken = false;
    bool m_bounded = false;
    boost::posix_time::ptime m_end;
};

}  // namespace swg_test
