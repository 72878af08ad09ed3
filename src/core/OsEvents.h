// SPDX-License-Identifier: Apache-2.0
// Threads that connect the agent to what the host is doing (routes, addresses).
#pragma once

#include <atomic>

#include "foundation/ConditionEvent.h"

// Signalled when a route or address change mattered; waited on by the main loop.
extern boost_ext::condition_event g_IPAddrChangeEvent;
// The route notice socket; -1 when closed. Owned by ListenForOSEvents, which closes it.
extern std::atomic<int> g_IPAddrChangeSock;
// Set by the stop sequence: ListenForOSEvents closes its socket and ends within 250 ms.
extern std::atomic<bool> g_bStopIPAddrChangeThread;

// Body of the route and address notice thread (detached).
void ListenForOSEvents();
// Starts ListenForOSEvents detached.
void StartOsEventThreads();
