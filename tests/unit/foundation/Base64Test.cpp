// SPDX-License-Identifier: Apache-2.0
// Base64 over its bit streams: known vectors, line ends, padding and round trips.
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "foundation/Base64.h"

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

// A wrong alphabet, bit order or padding (RFC 4648 section 10 vectors), or a decoder that
// chokes on line ends, blanks or missing padding.
TEST(Base64, KnownVectorsEncodeAndDecodeLeniently) {
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
    // What real senders add: CRLF, blanks, missing padding, padding inside.
    EXPECT_EQ(Decode("Zm9v\r\nYmFy\r\n"), "foobar");
    EXPECT_EQ(Decode("Zm9vYg"), "foob");
    EXPECT_EQ(Decode("Zm 9v"), "foo");
    EXPECT_EQ(Decode("Zg==Zm8="), "ffo");
}

// A line end missing after the 76th character, placed elsewhere, or counted toward the
// padding.
TEST(Base64, LineEndAfterEvery76Characters) {
    std::string line;  // 57 bytes "AAA..." make exactly 76 characters
    for (int i = 0; i < 19; ++i) line += "QUFB";
    EXPECT_EQ(Encode(std::string(58, 'A'), 76), line + "\nQQ==");
    EXPECT_EQ(Encode(std::string(57, 'A'), 76), line + "\n");
    EXPECT_EQ(Encode(std::string(58, 'A'), 0), line + "QQ==");
    EXPECT_EQ(Encode("foobar", 3), "Zm9\nvYm\nFy");
}

// A byte value or input length that does not survive the round trip, with or without line
// ends.
TEST(Base64, RoundTripsAllByteValuesAtEveryLength) {
    std::string data;
    for (int i = 0; i < 300; ++i) data += static_cast<char>(i * 7 + 3);
    for (size_t length = 0; length <= data.size(); length += 7) {
        const std::string piece = data.substr(0, length);
        SCOPED_TRACE(length);
        EXPECT_EQ(Decode(Encode(piece, 76)), piece);
        EXPECT_EQ(Decode(Encode(piece, 0)), piece);
    }
}

}  // namespace
