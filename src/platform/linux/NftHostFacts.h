// SPDX-License-Identifier: Apache-2.0
// Facts about this host that the diversion table depends on: names, listeners, cgroups.
#if !defined(__linux__)
#error "Linux adapter"
#endif
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/linux/NftRuleset.h"

// Addresses of `name` by getaddrinfo, each once, IPv4 and IPv6; empty when the name does
// not resolve. Blocks for the resolver's own timeouts. Any thread.
std::vector<NftAddress> ResolveNftHostAddresses(const std::string& name);

// Whether a TCP socket of the calling thread's network namespace listens on `port` of the
// loopback or the wildcard address of `family` (a wildcard IPv6 listener also counts for
// IPv4). Asks sock_diag for the listening sockets, else reads /proc/thread-self/net/tcp or
// tcp6; false when neither can be read.
bool IsLoopbackPortListening(int family, uint16_t port);

// The cgroup v2 path ("/a/b") of process `pid`, when it is a cgroup of its own below the
// root of a cgroup v2 hierarchy mounted at /sys/fs/cgroup, which is where nftables looks.
// Otherwise "" and `why` says what is missing.
std::string CgroupV2PathOf(int32_t pid, std::string& why);
