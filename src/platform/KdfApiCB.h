// SPDX-License-Identifier: Apache-2.0
// Callbacks that the redirector makes into the agent when its kernel side goes away.
#pragma once

// Why a planned disruption happens; values above 3 have no word in the logs.
enum PlannedDisruption : int {
    upgrade = 0,
    debug_flag_update = 1,
    kext_failover = 2,
    kext_failover_reversal = 3,
};

// Implemented by the agent. The redirector may call these from any of its threads;
// each returns at once and leaves the recovery work to a thread of the agent's own.
class IKdfApiCB {
public:
    virtual ~IKdfApiCB() = default;
    // The kernel side vanished without notice.
    virtual void OnKdfDisruption() = 0;
    // The kernel side is about to go away for `what`.
    virtual void OnPlannedKdfDisruptionStart(PlannedDisruption what) = 0;
    // The kernel side is back after `what`.
    virtual void OnPlannedKdfDisruptionComplete(PlannedDisruption what) = 0;
};
