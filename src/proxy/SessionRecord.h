// SPDX-License-Identifier: Apache-2.0
// The session record of a connection that the kernel redirected, made on accept.
#pragma once

#include <sys/socket.h>

#include <cstdint>

#include "platform/RedirectorRecords.h"

// True when the connection had another destination before NAT: `original` is known and is
// not `local`, the accepted socket's own address. A client that connected straight to the
// listener (it carries its record in its first bytes) is not redirected.
bool IsRedirectedDestination(const sockaddr_storage* original, const sockaddr_storage& local);

// Fills `record` for a redirected connection: `original` as orig_dst, empty host names,
// `pid` as process_id (-1 unknown). Everything else is zero.
void FillSessionRecord(const sockaddr_storage& original, int32_t pid, ngc_session_info& record);

// True when `destination` reaches the agent's own listener on `listenPort`: any loopback
// address (127.0.0.0/8, ::1, and the IPv4-mapped forms), the unspecified address (0.0.0.0,
// ::), which Linux connects to this host itself, or an address of this host's interfaces.
// Relaying there would feed the agent its own connection. Reads the interface addresses
// (getifaddrs) only for a destination on `listenPort`.
bool IsListenerDestination(const sockaddr_storage& destination, uint16_t listenPort);

// For the accepted TCP socket `fd` of the IPv6 (`ipv6`) or IPv4 listener: when netfilter
// redirected it, fills `record` with its original destination and the pid of the client
// socket's owner, and returns true. Returns false, `record` untouched, for a connection
// that was not redirected. Runs on the connection thread (see FindTcpSocketOwner).
bool MakeDivertedSessionRecord(int fd, bool ipv6, ngc_session_info& record);
