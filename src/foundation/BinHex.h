// SPDX-License-Identifier: Apache-2.0
// CBinHex: bytes to upper-case hexadecimal text and back, into caller buffers.
#pragma once

// Stateless; any thread may call.
class CBinHex {
public:
    // Writes two upper-case digits per byte of `in` and a terminating zero to `out`.
    // With `in` set and a null `out`, sets `outLength` to the size needed (length * 2 + 1)
    // and returns 0. Returns 0xFE000002 for a null `in` or an `outLength` below that size;
    // on success `outLength` is set to that size.
    static long bin2hex(const unsigned char* in, unsigned int length, char* out,
                        unsigned int& outLength);

    // Reads `length` digits (either case) into `length` / 2 bytes at `out`. An odd
    // `length`, or an `outLength` below `length` / 2, returns 0xFE000002 before anything
    // else, so a size query must pass an `outLength` of at least that. With `in` set and
    // a null `out`, sets `outLength` to `length` / 2 and returns 0. A null `in`, or a
    // character that is no digit (logged through CAppLog), returns 0xFE000002. On
    // success `outLength` is set to `length` / 2.
    static long hex2bin(const char* in, unsigned int length, unsigned char* out,
                        unsigned int& outLength);

    // Sets `value` to the value of one hexadecimal digit. Returns 0, or 0xFE000002 for a
    // character that is no digit (`value` is then 0).
    static long hexCharToInt(char digit, unsigned char& value);
};
