// SPDX-License-Identifier: Apache-2.0
// The seam for watching one folder and a file in it for changes.
#pragma once

#include <memory>
#include <string>
#include <vector>

// One watch of a folder's entries and of one file in it, read by one thread (the watch
// thread) and woken by any. The configuration monitor is its user: it decides what a
// change means; the watch only reports which of its watches saw one.
//
// Threads: every method but Wake is for the watch thread only. Wake may come from any
// thread at any time, before Open and after Close included.
class IFileWatch {
public:
    // Which step of Open failed.
    enum class OpenResult { kOpened, kNoQueue, kNoWakeUp };
    // What ended a Wait.
    enum class WaitResult { kChanges, kTimeout, kWoken, kFailed };
    // One change. `watch` is the id that WatchFolder or WatchFile gave, or -1 when changes
    // were lost (`lost`: the queue overflowed, and any watch may have changed); `bits` are
    // the system's own event bits, for the log only.
    struct Change {
        int watch = -1;
        bool lost = false;
        unsigned int bits = 0;
    };

    virtual ~IFileWatch() = default;

    // Opens the event queue and the wake-up. Returns kOpened, or the step that failed
    // (logged). Never blocks.
    virtual OpenResult Open() = 0;
    // Watches the entries of `folder` (created, deleted, moved in or out) and the folder
    // itself (deleted, moved). Returns the watch's id (0 or more), or minus the errno (a
    // missing folder gives -ENOENT). Never blocks.
    virtual int WatchFolder(const std::string& folder) = 0;
    // Watches the file at `path` (written, closed after writing, deleted, moved, its links
    // or attributes changed) in place of any file watched before: a path replaced by rename
    // is a new file, and the old file's watch ends. Watching the same file again gives the
    // same id. Returns the id (0 or more), or minus the errno (-ENOENT for no file).
    // Never blocks.
    virtual int WatchFile(const std::string& path) = 0;
    // Ends the file's watch, if there is one; harmless when the file is gone already.
    virtual void ForgetFile() = 0;
    // Blocks until changes come, the wake-up is pulled or `timeoutMs` passes (a negative
    // value waits without bound). kChanges fills `changes` in the order they happened (an
    // interrupted wait gives none); the wake-up wins over changes that came with it.
    // kFailed when the wait itself fails (logged); the watch is of no further use then.
    virtual WaitResult Wait(int timeoutMs, std::vector<Change>& changes) = 0;
    // Pulls the wake-up: the Wait under way, or the next one, returns kWoken. Nothing before
    // Open or after Close. Any thread; never blocks.
    virtual void Wake() = 0;
    // Ends both watches, the queue and the wake-up. Again is harmless.
    virtual void Close() = 0;
};

// The system's watch (inotify and a pipe on Linux), not yet open. Throws std::bad_alloc.
std::unique_ptr<IFileWatch> CreateSystemFileWatch();
