// SPDX-License-Identifier: Apache-2.0
// Runs nft scripts through libnftables in the calling thread's network namespace.
#if !defined(__linux__)
#error "Linux adapter"
#endif
#pragma once

#include <string>

// Runs `script` (nft syntax, one transaction) and returns 0, or a non-zero value when
// libnftables refused it or the kernel did (no privilege, missing support, syntax). What
// nft printed goes to `output` and its error text to `error`, when given. Each call uses a
// fresh context, so the namespace is the calling thread's at the time of the call. Any
// thread; blocks for the netlink round trips.
int RunNftCommand(const std::string& script, std::string* output = nullptr,
                  std::string* error = nullptr);
