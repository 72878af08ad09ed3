// SPDX-License-Identifier: Apache-2.0
// Helpers of the configuration tests: a temporary folder, configuration texts and an agent
// that records what the configuration monitor asks of it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "config/ConfigAgent.h"
#include "core/SWGAgent.h"

namespace config_test {

// A fresh folder under /tmp, removed with its contents at destruction.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& Path() const { return m_path; }
    std::string PathOf(const std::string& name) const { return m_path + "/" + name; }
    // Writes `text` to `name` in place (truncate and write), as an editor would.
    void Write(const std::string& name, const std::string& text) const;
    // Writes `text` to a temporary name and renames it over `name`, as an atomic writer would.
    void Replace(const std::string& name, const std::string& text) const;
    void Remove(const std::string& name) const;

private:
    std::string m_path;
};

// Sets an environment variable for its lifetime and restores the previous state after.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::string& value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string m_name;
    std::string m_previous;
    bool m_wasSet;
};

// A valid configuration with every key of the format set to a value other than its default.
std::string FullConfig();

// `json` with the value at `path` ("orgConfig/swgDomain") replaced by the JSON text
// `value`, creating objects on the way; a null `value` removes the key.
std::string EditConfig(const std::string& json, const std::string& path, const char* value);

// Polls `done` every 10 ms until it holds or `limit` has passed; returns its last result.
bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);

// Loads and holds the record in a real CSWGAgent; records every other request as a word
// ("SetOrgInfo", "RestartKDF:0", "SendSWGState:config_error:0", "ChangeDebugLevel:0x107",
// ...) in call order, and the time of every load. Any thread.
class RecordingAgent : public IConfigAgent {
public:
    using Clock = std::chrono::steady_clock;

    bool LoadOrgInfo(const std::string& folder, OrgInfoRecord& info) override;
    OrgInfoRecord GetOrgInfo() override;
    void SetOrgInfo(const OrgInfoRecord& info) override;
    int SendSWGState(const std::string& state, int update) override;
    bool RestartKDF(unsigned char reason) override;
    void OnBackoffStateChange() override;
    void SetActiveTowerName() override;
    int UpdateSWGStateFile() override;
    void UpdateFedRampMode() override;
    void ChangeDebugLevel(unsigned int mask) override;

    // Loads `folder` into the agent's record as the agent's Init does, without recording.
    bool Preload(const std::string& folder);
    std::vector<std::string> Calls() const;
    void ClearCalls();
    std::size_t LoadCount() const;
    std::vector<Clock::time_point> LoadTimes() const;
    // Waits until at least `count` loads have finished; false if `limit` passed first.
    bool WaitForLoads(std::size_t count, std::chrono::milliseconds limit);

    bool restartResult = true;  // what RestartKDF answers

private:
    void Record(const std::string& call);

    CSWGAgent m_agent;
    mutable std::mutex m_lock;
    std::condition_variable m_loaded;
    std::vector<std::string> m_calls;
    std::vector<Clock::time_point> m_loadTimes;
};

}  // namespace config_test
