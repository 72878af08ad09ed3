// SPDX-License-Identifier: Apache-2.0
// Bit streams and Base64: known vectors, line ends, padding and round trips.
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "foundation/Base64.h"
#include "foundation/BitStream.h"

namespace {

std::string Encode(const std::string& data, int lineLength) {
    std::istringstream in(data);
    std::ostringstream out;
    lBase64::Encode(in, out, lineLength);
    return out.str();
}

std::string Decode(const std::string& text) {
    std::istringstream in(text);
    std::ostringstream out;
    lBase64::Decode(in, out);
    return out.str();
}

// Guards bit order and the short read at the end of the input.
TEST(BitStream, ReadsMostSignificantBitFirstAndReportsShortReads) {
    std::istringstream in(std::string("\xA5\x0F", 2));  // 10100101 00001111
    lIBitStream bits(in);
    char value = 0;
    EXPECT_EQ(bits.GetBits(3, value), 3);
    EXPECT_EQ(value, 0x5);  // 101
    EXPECT_EQ(bits.GetBits(6, value), 6);
    EXPECT_EQ(value, 0x0A);  // 00101 0
    EXPECT_EQ(bits.GetBits(8, value), 7);
    EXPECT_EQ(value, 0x0F);  // 0001111
    EXPECT_EQ(bits.GetBits(1, value), 0);
    EXPECT_EQ(bits.GetBits(9, value), 0);
}

// Guards byte assembly across calls and the zero padding of Flush.
TEST(BitStream, WritesWholeBytesAndPadsTheLastOnFlush) {
    std::ostringstream out;
    lOBitStream bits(out);
    bits.PutBits(0x5, 3);
    bits.PutBits(0x05, 5);
    EXPECT_EQ(out.str(), "\xA5");
    bits.PutBits(static_cast<char>(0xFF), 4);
    EXPECT_EQ(bits.PendingBits(), 4);
    bits.Flush();
    EXPECT_EQ(out.str(), "\xA5\xF0");
    bits.Flush();
    EXPECT_EQ(out.str().size(), 2u);
}

// Guards the alphabet, the sextet order and the padding (RFC 4648 section 10 vectors).
TEST(Base64, KnownVectorsEncodeAndDecode) {
    const std::pair<std::string, std::string> vectors[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},
                                                           {"foob", "Zm9vYg=="},
                                                           {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"},
                                                           {"\xFB\xFF", "+/8="}};
    for (const auto& v : vectors) {
        SCOPED_TRACE(v.second);
        EXPECT_EQ(Encode(v.first, 0), v.second);
        EXPECT_EQ(Decode(v.second), v.first);
    }
}

// Guards the line length of credentials: a line end after every 76th character, which
// does not count toward the padding.
TEST(Base64, LineEndAfterEvery76Characters) {
    const std::string encoded = Encode(std::string(58, 'A'), 76);
    ASSERT_EQ(encoded.size(), 76u + 1 + 2 + 2);
    EXPECT_EQ(encoded[76], '\n');
    EXPECT_EQ(encoded.substr(77), "QQ==");
    EXPECT_EQ(encoded.find('\n'), 76u);
    const std::string exact = Encode(std::string(57, 'A'), 76);
    EXPECT_EQ(exact.size(), 77u);
    EXPECT_EQ(exact.back(), '\n');
    EXPECT_EQ(Encode(std::string(58, 'A'), 0).find('\n'), std::string::npos);
    const std::string shortLines = Encode("foobar", 3);
    EXPECT_EQ(shortLines, "Zm9\nvYm\nFy");
}

// Guards decoding of every byte value at every length, with and without line ends.
TEST(Base64, RoundTripsAllByteValuesAtEveryLength) {
    std::string data;
    for (int i = 0; i < 300; ++i) data += static_cast<char>(i * 7 + 3);
    for (size_t length = 0; length <= data.size(); length += 7) {
        const std::string piece = data.substr(0, length);
        SCOPED_TRACE(length);
        EXPECT_EQ(Decode(Encode(piece, 76)), piece);
        EXPECT_EQ(Decode(Encode(piece, 0)), piece);
        EXPECT_EQ(Encode(piece, 0).size() % 4, 0u);
    }
}

// Guards tolerance of what real senders add: CRLF, blanks, missing padding.
TEST(Base64, DecodeSkipsLineEndsAndAcceptsMissingPadding) {
    EXPECT_EQ(Decode("Zm9v\r\nYmFy\r\n"), "foobar");
    EXPECT_EQ(Decode("Zm9vYg"), "foob");
    EXPECT_EQ(Decode("Zm9vYmE"), "fooba");
    EXPECT_EQ(Decode("Zm 9v"), "foo");
    EXPECT_EQ(Decode("Zg==Zm8="), "ffo");
}

}  // namespace
