// SPDX-License-Identifier: Apache-2.0
// Threads that connect the agent to what the host is doing (routes, addresses).
#pragma once

#include "foundation/ConditionEvent.h"

// Signalled when a route or address change mattered; waited on by the main loop.
extern boost_ext::condition_event g_IPAddrChangeEvent;
// The route notice socket; -1 when closed. Closing it ends ListenForOSEvents.
extern int g_IPAddrChangeSock;
// Set by the stop sequence.
extern bool g_bStopIPAddrChangeThread;

// Body of the route and address notice thread (detached).
void ListenForOSEvents();
// Starts ListenForOSEvents detached.
void StartOsEventThreads();
