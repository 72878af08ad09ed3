// SPDX-License-Identifier: Apache-2.0
// lBase64: Base64 (RFC 4648 alphabet) between standard streams, over the bit streams.
#pragma once

#include <istream>
#include <ostream>

// Stateless apart from a reverse table built once; any thread may call.
class lBase64 {
public:
    static const char Alphabet[];  // "A-Za-z0-9+/"

    // Builds the reverse table. Encode and Decode call it themselves; calling it early
    // only moves the work. Thread-safe.
    static void Init();

    // Encodes all of `in` to `out`. With a `lineLength` above 0, writes "\n" and flushes
    // after every `lineLength` output characters (line ends do not count), then pads
    // with "=" to a multiple of 4 characters. Never fails; stream errors show on `out`.
    static void Encode(std::istream& in, std::ostream& out, int lineLength);

    // Decodes all of `in` to `out`. Line ends, other white space and characters outside
    // the alphabet are skipped; "=" or the end of the input ends a group, keeping only
    // the bits that complete a byte, so unpadded input decodes too. Never fails.
    static void Decode(std::istream& in, std::ostream& out);

private:
    static const unsigned char* ReverseTable();
};
