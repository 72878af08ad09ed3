// SPDX-License-Identifier: Apache-2.0
// CBinHex: size queries, the 0xFE000002 cases and digits of either case.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/BinHex.h"
#include "foundation/GlobalConst.h"

namespace {

// A size query that forgets the terminator, lower-case digits, or a write into a buffer
// without room for the terminator.
TEST(BinHex, Bin2HexQueriesSizeThenWritesUpperCase) {
    const unsigned char data[] = {0x00, 0xAB, 0xFF, 0x7C};
    unsigned int size = 0;
    EXPECT_EQ(CBinHex::bin2hex(data, 4, nullptr, size), 0);
    EXPECT_EQ(size, 9u);
    std::vector<char> out(size, '#');
    EXPECT_EQ(CBinHex::bin2hex(data, 4, out.data(), size), 0);
    EXPECT_STREQ(out.data(), "00ABFF7C");

    size = 8;
    out.assign(9, '#');
    EXPECT_EQ(CBinHex::bin2hex(data, 4, out.data(), size), SWG_E_MODULE_INVALID_ARG);
    EXPECT_EQ(out[0], '#');
    EXPECT_EQ(CBinHex::bin2hex(nullptr, 2, nullptr, size), SWG_E_MODULE_INVALID_ARG);
}

// Length and room tested after the size query (an odd length or a short buffer let
// through), a digit range off by one, or a high and low half swapped.
TEST(BinHex, Hex2BinChecksItsInputAndDecodesEitherCase) {
    unsigned int size = 0;
    EXPECT_EQ(CBinHex::hex2bin("0A0B", 4, nullptr, size), SWG_E_MODULE_INVALID_ARG);
    size = 2;
    EXPECT_EQ(CBinHex::hex2bin("0A0B", 4, nullptr, size), 0);
    EXPECT_EQ(size, 2u);
    size = 10;
    EXPECT_EQ(CBinHex::hex2bin("0A0", 3, nullptr, size), SWG_E_MODULE_INVALID_ARG);
    EXPECT_EQ(CBinHex::hex2bin(nullptr, 4, nullptr, size), SWG_E_MODULE_INVALID_ARG);

    unsigned char out[12] = {};
    size = sizeof(out);
    EXPECT_EQ(CBinHex::hex2bin("0123456789abcdefABCDEF", 22, out, size), 0);
    EXPECT_EQ(size, 11u);
    const unsigned char expected[] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB,
                                      0xCD, 0xEF, 0xAB, 0xCD, 0xEF, 0x00};
    EXPECT_EQ(std::vector<unsigned char>(out, out + 12),
              std::vector<unsigned char>(expected, expected + 12));
}

// A character next to a digit range taken as a digit instead of refused with 0xFE000002.
TEST(BinHex, Hex2BinRejectsANonDigit) {
    for (char bad : {'/', ':', '@', 'G', '`', 'g', ' ', '\0'}) {
        const char pair[] = {'0', bad};
        unsigned char out[1] = {};
        unsigned int size = sizeof(out);
        EXPECT_EQ(CBinHex::hex2bin(pair, 2, out, size), SWG_E_MODULE_INVALID_ARG)
            << static_cast<int>(bad);
    }
}

}  // namespace
