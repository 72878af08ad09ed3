// SPDX-License-Identifier: Apache-2.0
// What the configuration monitor needs of the agent: the record and the consequences of
// a change.
#pragma once

#include <string>

#include "config/OrgInfo.h"
#include "ipc/SWGState.h"

// The process-wide monitor drives the agent object through this; tests hand in a
// recording implementation. Called on the thread that runs the reload (the main thread
// once at start, then the monitor thread); implementations take their own locks.
class IConfigAgent {
public:
    virtual ~IConfigAgent() = default;
    // Loads SWGConfig.json and its override from `folder` ("" for the configuration
    // folder) into `info`, a fresh record. True when the record is valid.
    virtual bool LoadOrgInfo(const std::string& folder, OrgInfoRecord& info) = 0;
    // A copy of the record in force.
    virtual OrgInfoRecord GetOrgInfo() = 0;
    // Replaces the record in force.
    virtual void SetOrgInfo(const OrgInfoRecord& info) = 0;
    // Reports a state word; the result is not looked at by the monitor.
    virtual int SendSWGState(const std::string& state, eSWGStateUpdate update) = 0;
    // Restarts the redirector with new rules; false when that failed.
    virtual bool RestartKDF(unsigned char reason) = 0;
    // Re-evaluates whether the agent should stand aside.
    virtual void OnBackoffStateChange() = 0;
    // Hands the gateway name in use to the statistics.
    virtual void SetActiveTowerName() = 0;
    // Rewrites the state file; 0 or -2, not looked at by the monitor.
    virtual int UpdateSWGStateFile() = 0;
    // Brings the FIPS mode in line with the record in force.
    virtual void UpdateFedRampMode() = 0;
    // Sets the trace mask of the trace object, if one exists.
    virtual void ChangeDebugLevel(unsigned int mask) = 0;
};
