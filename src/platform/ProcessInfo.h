// SPDX-License-Identifier: Apache-2.0
// Facts about local processes: the executable of a process, the owner of a TCP socket.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace ServiceUtils {

// Writes the full path of the executable of process `pid`, zero-terminated, into `buffer`
// of `size` bytes. Returns 0; the errno of the failed lookup (ESRCH, EACCES, ENOENT ...);
// EINVAL for a null buffer or no room; ERANGE when the path does not fit. Any thread.
long GetProcessFilePath(unsigned int pid, char* buffer, std::size_t size);

}  // namespace ServiceUtils

// The process that holds the TCP socket whose own end is `local` and whose peer is
// `remote` (both sockaddr_in or sockaddr_in6, network order), as seen from the calling
// thread's network namespace. An IPv4 pair also matches an IPv6 socket that holds it in
// the IPv4-mapped form. Returns the pid, or -1 when no such socket or no owner is found
// (the owner's descriptors may be unreadable, or it closed the socket meanwhile). Finds the
// socket's inode with one exact sock_diag request, whose cost does not grow with the number of
// sockets (the /proc/net tables where sock_diag is unavailable), then its holder among the
// sockets that earlier lookups passed and the last few owners, and only on a miss in every
// process's descriptors. Any thread; call it off the
// accept path.
int32_t FindTcpSocketOwner(const sockaddr* local, const sockaddr* remote);

// The local addresses (network order; an IPv4 address in the first 4 bytes) of the TCP
// sockets of `family` that listen on `port` in the calling thread's network namespace, from
// one sock_diag dump of listening sockets alone, whose cost does not grow with the number of
// connections. False when sock_diag cannot answer. Any thread.
bool FindTcpListeners(int family, uint16_t port, std::vector<std::array<unsigned char, 16>>& out);
