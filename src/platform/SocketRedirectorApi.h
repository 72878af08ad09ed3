// SPDX-License-Identifier: Apache-2.0
// The agent's door to the socket redirector that diverts monitored traffic to its listeners.
#pragma once

#include <list>

#include "platform/KdfApiCB.h"
#include "platform/RedirectorRecords.h"

// Stop's answer when the connection to the kernel side is already gone; the agent treats
// it as a clean stop. No other result value has a meaning beyond being non-zero.
constexpr int NGC_ERROR_DISCONNECTED = 49;

// Value of the one argument of Clear that the agent passes.
constexpr int NGC_CLEAR_ALL_RULES = 1;

// The redirector as the agent sees it. Every operation returns 0 or a non-zero error value;
// none throws. All may be called from any thread, also concurrently: an implementation
// serialises them itself. Operations that talk to the kernel block for as long as that
// takes (milliseconds; a host-name lookup at apply time can take longer).
class ISocketRedirectorApi {
public:
    virtual ~ISocketRedirectorApi() = default;

    // Connects to the kernel side and registers `callback` for disruption notices (it may
    // be called from a thread of the redirector until ClosePlugin returns). Replaces what a
    // crashed earlier run left behind. Fails while the kernel side cannot be used; the
    // agent retries. Calling it on an open plug-in reopens it with no rules.
    virtual int OpenPlugin(IKdfApiCB* callback) = 0;
    // Disconnects: removes every rule and stops the notices. The object stays usable for a
    // later OpenPlugin.
    virtual int ClosePlugin() = 0;
    // Removes every rule; the plug-in stays open and traffic stops being diverted. The
    // agent passes NGC_CLEAR_ALL_RULES.
    virtual int Clear(int what) = 0;
    // Applies each rule of `rules` in order: rule_action 0 adds it, 1 removes an equal one.
    // A list of one rule leaves the others in force. The list is the caller's: what is kept
    // is copied.
    virtual int SetRedirects(std::list<redirect_info>& rules) = 0;
    // Begins diverting according to the rules.
    virtual int Start() = 0;
    // Ends diverting; NGC_ERROR_DISCONNECTED when the plug-in is not open.
    virtual int Stop() = 0;
    // Forgets the addresses the redirector resolved for host names of the rules.
    virtual int ClearDnsCache() = 0;
    // Holds back what the calls that follow would change in the kernel (from any thread)
    // until ApplyHeldChanges, so that a rebuild (Stop, Clear, SetRedirects, Start) reaches it
    // as one change and never passes through a moment without diversion. Those calls answer
    // as usual but cannot report a kernel refusal meanwhile. NGC_ERROR_DISCONNECTED when the
    // plug-in is not open.
    virtual int HoldChanges() = 0;
    // Ends the hold and applies what the calls since HoldChanges left, at once; results as
    // Start. Without a hold it only brings the kernel in line again.
    virtual int ApplyHeldChanges() = 0;
};

// Creates a redirector and stores it in `*out`. Returns 0, or an error value with `*out`
// untouched when the platform cannot divert traffic (no privilege, no packet filter).
int CreateLmsockSwgApi(ISocketRedirectorApi** out);
// Destroys `*inout` (closing it first if it is open) and nulls it. Returns 0; a null
// pointer is an error value.
int ReleaseLmsockSwgApi(ISocketRedirectorApi** inout);
