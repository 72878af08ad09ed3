// SPDX-License-Identifier: Apache-2.0
// CBinHex: size queries, the 0xFE000002 cases and digits of either case.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/AppLog.h"
#include "foundation/BinHex.h"
#include "foundation/GlobalConst.h"

namespace {

class RecordingLogger : public ILogger {
public:
    explicit RecordingLogger(std::shared_ptr<std::vector<std::string>> texts)
        : m_texts(std::move(texts)) {}
    long Log(Logging::Severity, const char* text, const char*, Logging::MessageID,
             Logging::DebugImportance) override {
        m_texts->push_back(text);
        return 0;
    }

private:
    std::shared_ptr<std::vector<std::string>> m_texts;
};

// Guards the size query and the digits written.
TEST(BinHex, Bin2HexQueriesSizeThenWritesUpperCase) {
    const unsigned char data[] = {0x00, 0xAB, 0xFF, 0x7C};
    unsigned int size = 0;
    EXPECT_EQ(CBinHex::bin2hex(data, 4, nullptr, size), 0);
    EXPECT_EQ(size, 9u);
    std::vector<char> out(size, '#');
    EXPECT_EQ(CBinHex::bin2hex(data, 4, out.data(), size), 0);
    EXPECT_STREQ(out.data(), "00ABFF7C");
    unsigned int emptySize = 0;
    EXPECT_EQ(CBinHex::bin2hex(data, 0, nullptr, emptySize), 0);
    EXPECT_EQ(emptySize, 1u);
}

// Guards the refusals: null input, and a buffer without room for the terminator.
TEST(BinHex, Bin2HexRefusesNullInputAndShortBuffers) {
    const unsigned char data[] = {0x01, 0x02};
    char out[8] = "xxxxxxx";
    unsigned int size = 4;
    EXPECT_EQ(CBinHex::bin2hex(data, 2, out, size), SWG_E_MODULE_INVALID_ARG);
    EXPECT_EQ(out[0], 'x');
    size = 8;
    EXPECT_EQ(CBinHex::bin2hex(nullptr, 2, out, size), SWG_E_MODULE_INVALID_ARG);
    EXPECT_EQ(CBinHex::bin2hex(nullptr, 2, nullptr, size), SWG_E_MODULE_INVALID_ARG);
}

// Guards the order of hex2bin's tests: length and room come before the size query.
TEST(BinHex, Hex2BinChecksLengthAndRoomBeforeTheSizeQuery) {
    unsigned int size = 0;
    EXPECT_EQ(CBinHex::hex2bin("0A0B", 4, nullptr, size), SWG_E_MODULE_INVALID_ARG);
    size = 2;
    EXPECT_EQ(CBinHex::hex2bin("0A0B", 4, nullptr, size), 0);
    EXPECT_EQ(size, 2u);
    size = 10;
    EXPECT_EQ(CBinHex::hex2bin("0A0", 3, nullptr, size), SWG_E_MODULE_INVALID_ARG);
    EXPECT_EQ(CBinHex::hex2bin(nullptr, 4, nullptr, size), SWG_E_MODULE_INVALID_ARG);
}

// Guards decoding of both cases and the exact output length.
TEST(BinHex, Hex2BinDecodesEitherCase) {
    unsigned char out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    unsigned int size = sizeof(out);
    EXPECT_EQ(CBinHex::hex2bin("0aFf7C", 6, out, size), 0);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(out[0], 0x0A);
    EXPECT_EQ(out[1], 0xFF);
    EXPECT_EQ(out[2], 0x7C);
    EXPECT_EQ(out[3], 0xEE);
}

// Guards the non-digit path: 0xFE000002, reported through the application log.
TEST(BinHex, Hex2BinRejectsANonDigitAndLogsIt) {
    auto texts = std::make_shared<std::vector<std::string>>();
    long result = -1;
    CAppLog log(result, "test", new RecordingLogger(texts));
    texts->clear();
    unsigned char out[2] = {};
    unsigned int size = sizeof(out);
    EXPECT_EQ(CBinHex::hex2bin("0g12", 4, out, size), SWG_E_MODULE_INVALID_ARG);
    ASSERT_EQ(texts->size(), 1u);
    EXPECT_NE(texts->front().find("Invoked Function: CBinHex::hexCharToInt"), std::string::npos);
    EXPECT_NE(texts->front().find("(0xFE000002)"), std::string::npos);
}

// Guards the digit table at its edges.
TEST(BinHex, HexCharToIntAcceptsOnlyHexDigits) {
    const std::pair<char, int> good[] = {{'0', 0},  {'9', 9},  {'a', 10},
                                         {'f', 15}, {'A', 10}, {'F', 15}};
    for (const auto& g : good) {
        unsigned char value = 0xEE;
        EXPECT_EQ(CBinHex::hexCharToInt(g.first, value), 0) << g.first;
        EXPECT_EQ(value, g.second) << g.first;
    }
    for (char bad : {'/', ':', '@', 'G', '`', 'g', ' ', '\0'}) {
        unsigned char value = 0xEE;
        EXPECT_EQ(CBinHex::hexCharToInt(bad, value), SWG_E_MODULE_INVALID_ARG) << int(bad);
        EXPECT_EQ(value, 0) << int(bad);
    }
}

}  // namespace
