// SPDX-License-Identifier: Apache-2.0
// Bit streams over standard streams: the reading and writing halves of Base64.
#pragma once

#include <istream>
#include <ostream>

// Shared constants of the two bit streams.
class lBitStream {
public:
    static const int m_CharSize;              // bits in a char: 8
    static const unsigned char m_BitMask[9];  // m_BitMask[n] has the low n bits set
};

// Reads a byte stream as bits, most significant bit first. Holds a reference to the
// stream, which must outlive it; one thread at a time.
class lIBitStream : public lBitStream {
public:
    explicit lIBitStream(std::istream& in);

    // Takes up to `count` bits (1 to 8) into the low part of `bits`. Returns the number
    // delivered: below `count` at the end of the input, 0 when nothing is left or
    // `count` is out of range.
    int GetBits(int count, char& bits);

private:
    unsigned short m_shiftRegister = 0;  // the low m_totalBits bits are unread
    int m_totalBits = 0;
    std::istream& m_in;
};

// Writes bits to a byte stream, most significant bit first. Holds a reference to the
// stream, which must outlive it; one thread at a time.
class lOBitStream : public lBitStream {
public:
    explicit lOBitStream(std::ostream& out);

    // Appends the low `count` bits (0 to 8) of `bits`; each completed byte is written.
    // A `count` out of range writes nothing.
    void PutBits(char bits, int count);

    // Writes a partly filled byte, padded with zero bits, and flushes the stream.
    void Flush();

    // Bits waiting in the partly filled byte (0 to 7).
    int PendingBits() const { return m_bitCount; }

private:
    unsigned char m_byte = 0;
    int m_bitCount = 0;
    std::ostream& m_out;
};
