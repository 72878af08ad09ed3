// SPDX-License-Identifier: Apache-2.0
// The redirector the running agent uses: nftables, its host names looked up by the agent.
#pragma once

#include <string>
#include <vector>

#include "platform/linux/NftRedirector.h"

class CDnsLookupThread;
class ISocketRedirectorApi;

// Looks up `name` through `resolver` within `timeoutMs` (no retry when no worker is free):
// 0 with its IPv4 and IPv6 addresses, or the resolver's error value. Any thread; blocks at
// most about the timeout.
int LookupRedirectorHost(CDnsLookupThread& resolver, const std::string& name,
                         unsigned int timeoutMs, std::vector<NftAddress>& addresses);

// The agent's redirector factory (main installs it with SetDefaultRedirectorFactory):
// CreateLmsockSwgApi's redirector, whose host names go through CDnsLookupThread::Instance.
int CreateAgentRedirector(ISocketRedirectorApi** out);
