// SPDX-License-Identifier: Apache-2.0
// SO_ORIGINAL_DST and IP6T_SO_ORIGINAL_DST on Linux.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/OriginalDst.h"

// glibc's header first: it tells the kernel headers which definitions it already made.
#include <netinet/in.h>
// clang-format off
#include <linux/netfilter_ipv4.h>
#include <linux/netfilter_ipv6/ip6_tables.h>
// clang-format on

bool GetOriginalDestination(int fd, int family, sockaddr_storage& out) {
    out = sockaddr_storage{};
    // Both options read the connection tracking entry of the socket (netfilter, "nf_conntrack");
    // without one they fail with ENOENT, which is the ordinary case of a connection that no
    // rule redirected.
    socklen_t length = 0;
    int result = -1;
    if (family == AF_INET6) {
        length = sizeof(sockaddr_in6);
        result = getsockopt(fd, SOL_IPV6, IP6T_SO_ORIGINAL_DST, &out, &length);
    } else {
        length = sizeof(sockaddr_in);
        result = getsockopt(fd, SOL_IP, SO_ORIGINAL_DST, &out, &length);
    }
    return result == 0 && out.ss_family == family;
}
