// SPDX-License-Identifier: Apache-2.0
// DnIPAddress: one element of the address array that a forward lookup of all families yields.
#pragma once

#include <cstdint>

// A result array ends with an element of family 0. Families are the host's AF_INET and
// AF_INET6 values.
struct DnIPAddress {
    uint32_t ipv4;     // network order; valid when family is AF_INET
    uint8_t ipv6[16];  // valid when family is AF_INET6
    int32_t family;    // AF_INET, AF_INET6, or 0 in the terminating element
};

static_assert(sizeof(DnIPAddress) == 24, "DnIPAddress is a 24-byte record");
