// SPDX-License-Identifier: Apache-2.0
// Socket steps of the test gateway; every wait also wakes when the stop descriptor is readable.
#pragma once

#include <string>

#include "GatewayOptions.h"

namespace testgw {

// Result of a wait.
enum class WaitResult { Ready, Timeout, Stopped, Failed };

// Waits up to `timeoutMs` (-1: no limit) for `events` (poll flags) on `fd`, or for `stopFd`.
WaitResult WaitFor(int fd, short events, int timeoutMs, int stopFd);

// Opens a TCP socket bound to `address`; listens on it unless `refuse`, so that with
// `refuse` connects are answered with RST. On success returns the descriptor and the bound
// address as "host:port" ("[v6]:port") in `bound`; on failure -1 with a reason in `error`.
int OpenListener(const ListenAddress& address, bool refuse, std::string& bound, std::string& error);

// Connects to `host`:`port` (numeric or a name), trying each address, within `timeoutMs`.
// Unless `anyDestination`, only loopback and test-network addresses are tried (127.0.0.0/8,
// 198.18.0.0/15, ::1, 2001:2::/48, and the IPv4-mapped forms). Returns a
// non-blocking descriptor, or -1 with a reason in `error` (also when `stopFd` fires).
int ConnectTo(const std::string& host, unsigned short port, bool anyDestination, int timeoutMs,
              int stopFd, std::string& error);

// Reads up to and including the empty line that ends a header block, at most 64 KiB, within
// `timeoutMs`. Bytes read past the block are left in `extra`. False with a reason otherwise.
bool ReadHeaderBlock(int fd, int timeoutMs, int stopFd, std::string& block, std::string& extra,
                     std::string& error);

// Sends all of `data` within `timeoutMs`; false on error, timeout or stop.
bool SendAll(int fd, const std::string& data, int timeoutMs, int stopFd);

// Relays both ways until both directions have ended (a FIN is passed on as a half-close),
// either side fails, or `stopFd` fires. Does not close the descriptors.
void Relay(int client, int upstream, int stopFd);

// Closes with RST (SO_LINGER 0).
void ResetAndClose(int fd);

// Sends FIN, reads and drops what the peer still sends for up to one second, then closes, so
// that unread request bytes do not turn the close into an RST that eats the reply.
void CloseGracefully(int fd, int stopFd);

}  // namespace testgw
