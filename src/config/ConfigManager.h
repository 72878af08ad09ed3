// SPDX-License-Identifier: Apache-2.0
// CConfigManager: watches SWGConfig.json and its folder, reloads after a quiet period and
// applies just the consequences of the fields that changed.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "config/ConfigAgent.h"
#include "foundation/ConditionEvent.h"
#include "platform/Clock.h"
#include "platform/FileWatch.h"

// One monitor thread, started once by StartThread and told to end by StopMonitorThread;
// it is never joined. The watch (IFileWatch, on the folder and on the file) and the quiet
// period belong to that thread; the quiet period is timed on the IClock. Reloads run on the
// caller of StartThread once, then only on the monitor thread, so they never overlap.
//
// The object must outlive its thread: the destructor stops a thread that still runs and
// waits for it (bounded). The watch and the clock must outlive the object.
class CConfigManager {
public:
    static constexpr unsigned int kQuietPeriodMs = 2000;

    // The process-wide monitor: the agent object, the configuration folder, 2 s, the
    // system's file watch and clock.
    CConfigManager();
    // `agent` receives the reloads; `folder` is watched and read ("" for the configuration
    // folder under GetAllUsersAppDataPath); `quietPeriodMs` replaces the 2 s; `watch` and
    // `clock` are the monitor thread's.
    CConfigManager(IConfigAgent& agent, std::string folder, unsigned int quietPeriodMs,
                   IFileWatch& watch, IClock& clock);
    ~CConfigManager();
    CConfigManager(const CConfigManager&) = delete;
    CConfigManager& operator=(const CConfigManager&) = delete;

    // Once per object: runs updateCurrentConfig, then starts the monitor thread and lets go
    // of it. A thread that cannot be created is logged; there is then no monitoring.
    void StartThread();
    // The same as StartThread.
    void StartMonitoringConfigChanges();
    // Tells the thread to end and wakes it through the watch, whatever it waits for; a
    // pending reload is dropped. Returns at once. Any thread; harmless if never started.
    void StopMonitorThread();
    // The reload: loads a fresh record, compares it with the one in force field by field,
    // stores it when anything differs and runs the consequences. A file that fails to load
    // sends "config_error" and leaves the record in force.
    void updateCurrentConfig();
    // The monitor thread's body: 0 at a normal end, -1 no event queue, -2 no data path,
    // -3 the folder cannot be watched, -4 no wake-up.
    int MonitorConfigChangesProc();
    // Waits up to `timeoutMs` for the monitor thread to end. True when it has ended or was
    // never started.
    bool WaitForMonitorEnd(unsigned int timeoutMs);
    // Number of reloads run to their end, bad ones included. Any thread.
    unsigned int ReloadCount() const;

    // Fields in their fixed order.
    bool m_bThreadStarted = false;
    // Written by StopMonitorThread and by the thread; the wake-up wakes, the flag stops.
    std::atomic<bool> m_bExitMonitor{false};
    // Manual reset; signalled when the monitor thread has ended. Nothing else waits on it.
    boost_ext::condition_event m_stopEvent{false};
    // The file's watch, -1 when the file is not watched. Monitor thread only.
    int m_fileDescriptor = -1;
    // Reserved: never opened (the folder watch is the thread's own).
    int m_folderDescriptor = -1;

private:
    struct WatchState;

    void ThreadMain();
    void RunReload();
    int SetUpWatch(WatchState& watch);
    bool WaitAndHandle(WatchState& watch);
    void HandleTimeout(WatchState& watch);
    void HandleChanges(WatchState& watch, const std::vector<IFileWatch::Change>& changes);
    void HandleFileEvent(WatchState& watch);
    void HandleFolderEvent(WatchState& watch);
    bool ArmFileWatch(WatchState& watch, const char* armedText);
    void ForgetFileWatch(WatchState& watch);

    IConfigAgent& m_agent;
    const std::string m_folder;
    const unsigned int m_quietPeriodMs;
    IFileWatch& m_watch;
    IClock& m_clock;
    std::atomic<unsigned int> m_reloadCount{0};
};

// The process-wide monitor, started by the agent as the last act of its start and stopped
// in its stop sequence.
extern CConfigManager g_ConfigManager;
