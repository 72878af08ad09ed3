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
    uint32_t cidr_family;         // AF_INET or AF_INET6 of this host
    unsigned char cidr_addr[16];  // network order; IPv4 in the first four bytes
    uint32_t cidr_prefix_bits;
};
static_assert(sizeof(ngc_cidr_addr) == 24, "ngc_cidr_addr is 24 bytes");

// The fixed head of a redirect_info record: the scalar fields at their offsets, packed.
// rule_family, rule_reserved_id and rule_excluded_pid are misaligned: copy them (e.g. `+x`)
// rather than bind a reference to them (EXPECT_EQ, std::pair, std::min all take references).
#pragma pack(push, 1)
struct redirect_info_head {
    int32_t rule_action;     // 0 add, 1 remove
    int32_t rule_op;         // 1 no-redirect, 2 redirect
    int32_t rule_class;      // always 1
    int32_t rule_pid;        // -1 any process
    uint16_t peer_port;      // network order; 0 any
    uint16_t redirect_port;  // network order; 0 in a no-redirect rule
    uint16_t reserved1;
    int32_t rule_family;  // AF_INET or AF_INET6 of this host
    unsigned char reserved_addr[16];
    uint8_t rule_protocol;  // IPPROTO_TCP
    uint8_t rule_flags;     // bit 0: tied to the process in rule_pid
    uint16_t reserved2;
    int32_t rule_reserved_id;   // always -1
    int32_t rule_excluded_pid;  // -1 none
};
#pragma pack(pop)
static_assert(sizeof(redirect_info_head) == 54, "the scalar head is 54 bytes");
static_assert(offsetof(redirect_info_head, peer_port) == 16, "peer_port at 16");
static_assert(offsetof(redirect_info_head, rule_family) == 22, "rule_family at 22");
static_assert(offsetof(redirect_info_head, reserved_addr) == 26, "reserved address at 26");
static_assert(offsetof(redirect_info_head, rule_protocol) == 42, "rule_protocol at 42");
static_assert(offsetof(redirect_info_head, rule_reserved_id) == 46, "rule_reserved_id at 46");
static_assert(offsetof(redirect_info_head, rule_excluded_pid) == 50, "rule_excluded_pid at 50");

// One redirect or no-redirect rule. The four lists are passed by reference; the callee
// copies what it keeps. They follow the head at their natural alignment (offset 56, not
// 54): a std::list at an odd offset makes every list operation a misaligned access,
// which is undefined behaviour. No closed library reads this record on Linux, so only
// the head keeps the packed layout (docs/decisions/0008-redirect-record-alignment.md).
struct redirect_info : redirect_info_head {
    std::list<ngc_cidr_addr> include_addrs;
    std::list<ngc_cidr_addr> exclude_addrs;
    std::list<std::string> exclude_hosts;
    std::list<std::string> include_hosts;
};
static_assert(alignof(std::list<ngc_cidr_addr>) != 8 ||
                  sizeof(redirect_info) == 56 + 4 * sizeof(std::list<int>),
              "lists follow the head at the next 8-byte boundary");
