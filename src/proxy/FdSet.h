// SPDX-License-Identifier: Apache-2.0
// A select() descriptor set of 1024 bytes, so 8192 descriptors, for the relay and socket waits.
#pragma once

#include <sys/select.h>

#include <climits>
#include <cstring>

// glibc's fd_set holds FD_SETSIZE (1024) descriptors and FD_SET past that writes beyond
// the set (or aborts under _FORTIFY_SOURCE). The agent runs with RLIMIT_NOFILE at 8192, so
// it hands the kernel a larger bitmap of the same layout: Linux reads `nfds` bits from
// whatever the pointer gives it (select(2), "fd_set ... may be larger").
//
// Descriptors of 8192 and above are never entered; the caller must pass an `nfds` no
// larger than Capacity(), or the kernel reads past the bitmap.
class CFdSet {
public:
    static constexpr int kCapacity = 8192;

    CFdSet() { Zero(); }

    // Empties the set.
    void Zero() { std::memset(m_bits, 0, sizeof(m_bits)); }

    // Enters `fd`; returns false, entering nothing, when it is negative or not below 8192.
    bool Set(int fd) {
        if (!InRange(fd)) return false;
        m_bits[Word(fd)] |= Bit(fd);
        return true;
    }

    // True when `fd` is in the set; false for any descriptor out of range.
    bool IsSet(int fd) const { return InRange(fd) && (m_bits[Word(fd)] & Bit(fd)) != 0; }

    // The set as select() takes it.
    fd_set* Native() { return reinterpret_cast<fd_set*>(m_bits); }

    // True for the descriptors a set can hold: 0 to 8191.
    static constexpr bool InRange(int fd) { return fd >= 0 && fd < kCapacity; }

private:
    // Same word type as the kernel's bitmap, so bit n of the set is bit n%64 of word n/64.
    using Word_t = unsigned long;
    static constexpr int kWordBits = static_cast<int>(sizeof(Word_t) * CHAR_BIT);

    static constexpr int Word(int fd) { return fd / kWordBits; }
    static constexpr Word_t Bit(int fd) { return Word_t{1} << (fd % kWordBits); }

    Word_t m_bits[kCapacity / kWordBits];
};

static_assert(sizeof(CFdSet) == 1024, "the select sets are 1024 bytes");
static_assert(sizeof(CFdSet) >= sizeof(fd_set), "a CFdSet must be usable wherever an fd_set is");
