// SPDX-License-Identifier: Apache-2.0
// The file watch on Linux: inotify for the folder and the file, a pipe for the wake-up.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "foundation/GlobalUtils.h"
#include "foundation/Trace.h"
#include "platform/FileWatch.h"

namespace {
// The file: written in place, closed after writing, unlinked or renamed away. IN_ATTRIB
// is how an unlink shows while some other process still holds the file open.
constexpr uint32_t kFileMask =
    IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ATTRIB;
// The folder: entries come and go (a replacement by rename is a move in).
constexpr uint32_t kFolderMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                 IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// Owns the inotify instance (and with it both watches) and the pipe. The pipe's ends are
// guarded by m_pipeLock because Wake writes from other threads.
class CInotifyWatch : public IFileWatch {
public:
    ~CInotifyWatch() override { Close(); }

    OpenResult Open() override {
        m_queue = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (m_queue < 0) {
            const int error = errno;
            DNTRACE(ERR, "MonitorConfigChangesProc: Could not open kernel queue.  Error was %s",
                    ErrnoText(error).c_str());
            return OpenResult::kNoQueue;
        }
        std::lock_guard<std::mutex> hold(m_pipeLock);
        if (pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
            const int error = errno;
            m_pipe[0] = m_pipe[1] = -1;
            DNTRACE(ERR, "MonitorConfigChangesProc: pipe error %d", error);
            return OpenResult::kNoWakeUp;
        }
        DNTRACE(THREAD, "MonitorConfigChangesProc: pipe %d %d", m_pipe[0], m_pipe[1]);
        return OpenResult::kOpened;
    }

    int WatchFolder(const std::string& folder) override {
        const int wd = inotify_add_watch(m_queue, folder.c_str(), kFolderMask);
        return wd >= 0 ? wd : -errno;
    }

    int WatchFile(const std::string& path) override {
        const int wd = inotify_add_watch(m_queue, path.c_str(), kFileMask);
        if (wd < 0) return -errno;
        // The same file gives the same watch back; a replaced one a new watch, and the old
        // one would keep reporting the old file.
        if (m_file != -1 && m_file != wd) (void)inotify_rm_watch(m_queue, m_file);
        m_file = wd;
        return wd;
    }

    void ForgetFile() override {
        // The watch may be gone already (file deleted); the error is of no interest then.
        if (m_file != -1) (void)inotify_rm_watch(m_queue, m_file);
        m_file = -1;
    }

    WaitResult Wait(int timeoutMs, std::vector<Change>& changes) override {
        changes.clear();
        int pipeRead = -1;
        {
            std::lock_guard<std::mutex> hold(m_pipeLock);
            pipeRead = m_pipe[0];
        }
        pollfd waits[2] = {{pipeRead, POLLIN, 0}, {m_queue, POLLIN, 0}};
        const int result = poll(waits, 2, timeoutMs < 0 ? -1 : timeoutMs);
        if (result < 0) {
            const int error = errno;
            // A signal for the process may land on this thread: not a failure of the watch.
            if (error == EINTR) return WaitResult::kChanges;
            DNTRACE(ERR,
                    "MonitorConfigChangesProc: An error occurred (event count %d).  Error was "
                    "'%s'",
                    result, ErrnoText(error).c_str());
            return WaitResult::kFailed;
        }
        if (result == 0) return WaitResult::kTimeout;
        if ((waits[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            DNTRACE(THREAD, "MonitorConfigChangesProc: event count = %d", result);
            return WaitResult::kWoken;
        }
        ReadChanges(changes);
        return WaitResult::kChanges;
    }

    void Wake() override {
        std::lock_guard<std::mutex> hold(m_pipeLock);
        if (m_pipe[1] < 0) return;
        const char wake = 'x';
        const ssize_t written = write(m_pipe[1], &wake, 1);
        (void)written;  // a full pipe already holds a wake-up
    }

    void Close() override {
        // Closing the instance removes both watches.
        if (m_queue >= 0) close(m_queue);
        m_queue = -1;
        m_file = -1;
        std::lock_guard<std::mutex> hold(m_pipeLock);
        for (int& end : m_pipe) {
            if (end >= 0) close(end);
            end = -1;
        }
    }

private:
    void ReadChanges(std::vector<Change>& changes) {
        // Aligned as inotify(7) asks. One read per wait: what does not fit wakes the next
        // poll at once, so a writer that never stops cannot keep one pass going.
        alignas(inotify_event) char buffer[4096];
        const ssize_t got = read(m_queue, buffer, sizeof(buffer));
        for (ssize_t offset = 0; got > 0 && offset < got;) {
            inotify_event event;
            std::memcpy(&event, buffer + offset, sizeof(event));
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
            // A watch went away (file gone, or replaced by a new watch): nothing to report.
            if ((event.mask & IN_IGNORED) != 0) continue;
            Change change;
            change.lost = (event.mask & IN_Q_OVERFLOW) != 0;
            change.watch = change.lost ? -1 : event.wd;
            change.bits = event.mask;
            changes.push_back(change);
        }
    }

    int m_queue = -1;
    int m_file = -1;
    std::mutex m_pipeLock;
    // Read end, write end of the wake-up pipe; -1 (not 0, which is standard input) while
    // there is none.
    int m_pipe[2] = {-1, -1};
};
}  // namespace

std::unique_ptr<IFileWatch> CreateSystemFileWatch() { return std::make_unique<CInotifyWatch>(); }
