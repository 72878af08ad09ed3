// SPDX-License-Identifier: Apache-2.0
// Bit streams over standard streams.
#include "foundation/BitStream.h"

const int lBitStream::m_CharSize = 8;
const unsigned char lBitStream::m_BitMask[9] = {0x00, 0x01, 0x03, 0x07, 0x0F,
                                                0x1F, 0x3F, 0x7F, 0xFF};

lIBitStream::lIBitStream(std::istream& in) : m_in(in) {}

int lIBitStream::GetBits(int count, char& bits) {
    bits = 0;
    if (count < 1 || count > m_CharSize) return 0;
    // At most 7 bits are held before a read, so the register never needs more than 15.
    while (m_totalBits < count) {
        const int next = m_in.get();
        if (next == std::char_traits<char>::eof()) break;
        m_shiftRegister = static_cast<unsigned short>(m_shiftRegister << m_CharSize |
                                                      static_cast<unsigned char>(next));
        m_totalBits += m_CharSize;
    }
    const int delivered = count < m_totalBits ? count : m_totalBits;
    if (delivered == 0) return 0;
    m_totalBits -= delivered;
    bits = static_cast<char>((m_shiftRegister >> m_totalBits) & m_BitMask[delivered]);
    m_shiftRegister &= static_cast<unsigned short>((1u << m_totalBits) - 1);
    return delivered;
}

lOBitStream::lOBitStream(std::ostream& out) : m_out(out) {}

void lOBitStream::PutBits(char bits, int count) {
    if (count < 1 || count > m_CharSize) return;
    const unsigned char value = static_cast<unsigned char>(bits) & m_BitMask[count];
    for (int i = count - 1; i >= 0; --i) {
        m_byte = static_cast<unsigned char>(m_byte << 1 | ((value >> i) & 1));
        if (++m_bitCount == m_CharSize) {
            m_out.put(static_cast<char>(m_byte));
            m_byte = 0;
            m_bitCount = 0;
        }
    }
}

void lOBitStream::Flush() {
    if (m_bitCount > 0) {
        m_out.put(static_cast<char>(m_byte << (m_CharSize - m_bitCount)));
        m_byte = 0;
        m_bitCount = 0;
    }
    m_out.flush();
}
