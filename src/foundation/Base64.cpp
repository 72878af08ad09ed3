// SPDX-License-Identifier: Apache-2.0
// lBase64: Base64 between standard streams.
#include "foundation/Base64.h"

#include <iterator>
#include <string>

#include "foundation/BitStream.h"

namespace {
constexpr unsigned char kNotInAlphabet = 0xFF;
constexpr int kSextetBits = 6;

// Pad by output length modulo 4; 1 cannot come from whole bytes.
const char* const Pad[4] = {"", "===", "==", "="};
}  // namespace

const char lBase64::Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

const unsigned char* lBase64::ReverseTable() {
    struct Table {
        unsigned char CBTable[256];
        Table() {
            for (unsigned char& value : CBTable) value = kNotInAlphabet;
            for (int i = 0; i < 64; ++i) {
                CBTable[static_cast<unsigned char>(Alphabet[i])] = static_cast<unsigned char>(i);
            }
        }
    };
    static const Table table;  // built once, thread-safe
    return table.CBTable;
}

void lBase64::Init() { ReverseTable(); }

void lBase64::Encode(std::istream& in, std::ostream& out, int lineLength) {
    lIBitStream bits(in);
    long written = 0;
    char sextet = 0;
    int got = 0;
    while ((got = bits.GetBits(kSextetBits, sextet)) > 0) {
        if (got < kSextetBits) sextet = static_cast<char>(sextet << (kSextetBits - got));
        out.put(Alphabet[static_cast<unsigned char>(sextet) & 0x3F]);
        ++written;
        if (lineLength > 0 && written % lineLength == 0) {
            out.put('\n');
            out.flush();
        }
    }
    out << Pad[written % 4];
}

void lBase64::Decode(std::istream& in, std::ostream& out) {
    const unsigned char* table = ReverseTable();
    std::string symbols;
    for (std::istreambuf_iterator<char> it(in), end; it != end; ++it) {
        const char c = *it;
        if (c == '=' || table[static_cast<unsigned char>(c)] != kNotInAlphabet) symbols += c;
    }
    lOBitStream bits(out);
    for (std::size_t i = 0; i < symbols.size(); ++i) {
        if (symbols[i] == '=') continue;
        const char value = static_cast<char>(table[static_cast<unsigned char>(symbols[i])]);
        const bool groupEnds = i + 1 == symbols.size() || symbols[i + 1] == '=';
        if (!groupEnds) {
            bits.PutBits(value, kSextetBits);
            continue;
        }
        // Padding (or the end) follows: only the bits that complete a byte are data.
        const int pending = bits.PendingBits();
        const int needed = pending == 0 ? 0 : lBitStream::m_CharSize - pending;
        if (needed > 0) bits.PutBits(static_cast<char>(value >> (kSextetBits - needed)), needed);
    }
    bits.Flush();
}
