// SPDX-License-Identifier: Apache-2.0
// The destination a redirected connection had before netfilter NAT sent it to the listener.
#pragma once

#include <sys/socket.h>

// Asks the kernel for the original destination of the accepted TCP connection `fd` of
// `family` (AF_INET or AF_INET6): the address and port the client connected to before a
// REDIRECT rule changed them. Returns true with `out` set (a sockaddr_in or sockaddr_in6,
// port and address in network order); false when the kernel knows none, as for a
// connection that no NAT rule touched and no connection tracking saw. Does not block; any
// thread.
bool GetOriginalDestination(int fd, int family, sockaddr_storage& out);
