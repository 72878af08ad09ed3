// SPDX-License-Identifier: Apache-2.0
// A file watch for tests: the test says what changed, and waits time out on a FakeClock.
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

// Reports what the test pushes. Ids follow the real files as the system's do (one per
// inode), so a file replaced by rename gets a new id. A bounded Wait times out only once the
// test has moved the clock past its end (Elapse). Any thread may call anything.
class FakeFileWatch : public IFileWatch {
public:
    explicit FakeFileWatch(FakeClock& clock) : m_clock(clock) {}

    // A change of the folder / of the file as now watched / lost changes.
    void ChangeFolder() { Push(false, false); }
    void ChangeFile() { Push(true, false); }
    void LoseChanges() { Push(false, true); }
    void Elapse(unsigned int ms) {
        m_clock.Advance(ms);
        std::lock_guard<std::mutex> hold(m_lock);
        m_changed.notify_all();
    }
    // Waits (10 s hang guard) until the watch thread waits with nothing left to wake it.
    bool WaitIdle() {
        std::unique_lock<std::mutex> hold(m_lock);
        return m_changed.wait_for(hold, std::chrono::seconds(10), [&] {
            return m_waiting && !m_woken && m_pushed.empty() && !BoundPassed();
        });
    }
    // The id of the file's watch, -1 when the file is not watched.
    int FileWatchId() {
        std::lock_guard<std::mutex> hold(m_lock);
        return m_file;
    }

    OpenResult Open() override { return OpenResult::kOpened; }
    int WatchFolder(const std::string& folder) override {
        std::lock_guard<std::mutex> hold(m_lock);
        return m_folder = IdOf(folder);
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
        m_end = m_clock.UniversalTime() + boost::posix_time::milliseconds(timeoutMs);
        m_waiting = true;
        m_changed.notify_all();
        m_changed.wait(hold, [&] { return m_woken || !m_pushed.empty() || BoundPassed(); });
        m_waiting = false;
        if (m_woken) return WaitResult::kWoken;
        if (m_pushed.empty()) return WaitResult::kTimeout;
        changes.assign(1, m_pushed.front());
        m_pushed.pop_front();
        return WaitResult::kChanges;
    }
    void Wake() override {
        std::lock_guard<std::mutex> hold(m_lock);
        m_woken = true;
        m_changed.notify_all();
    }
    void Close() override {}

private:
    void Push(bool file, bool lost) {
        std::lock_guard<std::mutex> hold(m_lock);
        m_pushed.push_back({lost ? -1 : file ? m_file : m_folder, lost, 0});
        m_changed.notify_all();
    }
    bool BoundPassed() { return m_bounded && m_clock.UniversalTime() >= m_end; }
    int IdOf(const std::string& path) {
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0) return -errno;
        const auto inode = std::make_pair(info.st_dev, info.st_ino);
        return m_ids.emplace(inode, static_cast<int>(m_ids.size()) + 1).first->second;
    }

    FakeClock& m_clock;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<Change> m_pushed;
    std::map<std::pair<dev_t, ino_t>, int> m_ids;
    int m_folder = -1;
    int m_file = -1;
    bool m_waiting = false;
    bool m_woken = false;
    bool m_bounded = false;
    boost::posix_time::ptime m_end;
};

}  // namespace swg_test
