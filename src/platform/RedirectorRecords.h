// SPDX-License-Identifier: Apache-2.0
// Records that cross the boundary between the agent and the redirector.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

// What the redirector knows of one diverted connection: the first 800 bytes the agent
// reads from the accepted socket, before any byte of the client's stream. Host order
// unless stated.
struct ngc_session_info {
    // The original destination as the host's sockaddr_in or sockaddr_in6 (port and
    // address in network order).
    union {
        sockaddr_in v4;
        sockaddr_in6 v6;
        unsigned char raw[28];
    } orig_dst;
    char host_names[768];  // zero-terminated; at most 767 characters are used
    int32_t process_id;    // -1 when unknown
};
static_assert(sizeof(ngc_session_info) == 800, "ngc_session_info is 800 bytes on the wire");
static_assert(offsetof(ngc_session_info, host_names) == 28, "host_names at 28");
static_assert(offsetof(ngc_session_info, process_id) == 796, "process_id at 796");

// An address with its prefix length, 24 bytes.
struct ngc_cidr_addr {
    uint32_t cidr_family;        // AF_INET or AF_INET6 of this host
    unsigned char cidr_addr[16]; // network order; IPv4 in the first four bytes
    uint32_t cidr_prefix_bits;
};
static_assert(sizeof(ngc_cidr_addr) == 24, "ngc_cidr_addr is 24 bytes");

#pragma pack(push, 1)
// One redirect or no-redirect rule, 150 bytes, packed. The four lists are passed by
// reference; the callee copies what it keeps.
struct redirect_info {
    int32_t rule_action;         // 0 add, 1 remove
    int32_t rule_op;             // 1 no-redirect, 2 redirect
    int32_t rule_class;          // always 1
    int32_t rule_pid;            // -1 any process
    uint16_t peer_port;          // network order; 0 any
    uint16_t redirect_port;      // network order; 0 in a no-redirect rule
    uint16_t reserved1;
    int32_t rule_family;         // AF_INET or AF_INET6 of this host
    unsigned char reserved_addr[16];
    uint8_t rule_protocol;       // IPPROTO_TCP
    uint8_t rule_flags;          // bit 0: tied to the process in rule_pid
    uint16_t reserved2;
    int32_t rule_reserved_id;    // always -1
    int32_t rule_excluded_pid;   // -1 none
    std::list<ngc_cidr_addr> include_addrs;
    std::list<ngc_cidr_addr> exclude_addrs;
    std::list<std::string> exclude_hosts;
    std::list<std::string> include_hosts;
};
#pragma pack(pop)
// The lists make the record non-standard-layout; offsetof still gives the packed offset with
// GCC and Clang, which is what the check is for.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(redirect_info, include_addrs) == 54, "lists start at 54");
#pragma GCC diagnostic pop
static_assert(sizeof(std::list<int>) != 24 || sizeof(redirect_info) == 150,
              "redirect_info is 150 bytes where a list is 24");
