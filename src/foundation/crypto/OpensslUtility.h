// SPDX-License-Identifier: Apache-2.0
// COpensslUtility: OpenSSL set-up, its error texts, and random keys as text.
#pragma once

#include <cstddef>
#include <string>

constexpr long OSSLU_E_INVALIDARG = 0xFE590002L;  // null or too small a buffer
constexpr long OSSLU_E_OPENSSL = 0xFE59000AL;     // an OpenSSL call failed

// Statics only; any thread may call. OpenSSL's error queue is per thread, so each caller
// sees only its own errors.
class COpensslUtility {
public:
    // Initialises libcrypto (`cryptoOnly`) or libssl with their error strings. Safe to call
    // any number of times from any thread; serialised by one lock.
    static void InitOpenSSL(bool cryptoOnly);

    // Drains the calling thread's error queue; `code` and `text` (zero-terminated within
    // `size`) end up holding its last entry, or 0 and "unknown" when it was empty. Returns
    // 0, or OSSLU_E_INVALIDARG for a null `text` or a zero `size`.
    static long GetLastOpenSSLError(unsigned long& code, char* text, unsigned long size);
    // The text of the oldest error of the calling thread's queue, "" when there is none.
    // Empties the queue, so that a later failure is not described by this one's error.
    static std::string GetLastOpenSSLError();

    // Writes `bytes` random bytes as upper-case hexadecimal and a terminating zero to `out`.
    // Returns 0, OSSLU_E_INVALIDARG for a null `out` or a `size` below bytes * 2 + 1, or
    // OSSLU_E_OPENSSL when the random generator fails (logged).
    static long GenerateKey(char* out, unsigned int size, unsigned int bytes);
};

// Overwrites `length` bytes at `data` with zeros in a way the compiler may not drop as a dead
// store. Null or 0 does nothing.
void SecureWipe(void* data, std::size_t length);
