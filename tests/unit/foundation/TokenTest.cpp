// SPDX-License-Identifier: Apache-2.0
// CToken: token counts, walking a text, and ParseString's trimming.
#include <list>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/Token.h"

namespace {

std::vector<std::string> Walk(const std::string& text, const std::string& separator) {
    CToken token(text, separator);
    std::vector<std::string> out;
    while (token.MoreTokens()) out.push_back(token.GetNextToken());
    return out;
}

std::list<std::string> Parse(const std::string& text, const std::string& separator) {
    std::list<std::string> out{"stale"};
    CToken::ParseString(text, separator, out);
    return out;
}

// Guards trimming of the whole text and the end of the walk.
TEST(Token, BlanksAroundTheTextAreTrimmedAndTheWalkEnds) {
    CToken token("  \t x:y \r\n", ":");
    ASSERT_TRUE(token.MoreTokens());
    EXPECT_EQ(token.GetNextToken(), "x");
    ASSERT_TRUE(token.MoreTokens());
    EXPECT_EQ(token.GetNextToken(), "y");
    EXPECT_FALSE(token.MoreTokens());
    EXPECT_EQ(token.GetNextToken(), "");
}

// Guards the walk that request lines, host:port texts and rule lists depend on: empty
// tokens count and come back empty, untrimmed inside.
TEST(Token, WalkKeepsEmptyAndUntrimmedTokens) {
    EXPECT_EQ(Walk("GET / HTTP/1.1", " "), (std::vector<std::string>{"GET", "/", "HTTP/1.1"}));
    EXPECT_EQ(Walk("GET /", " "), (std::vector<std::string>{"GET", "/"}));
    EXPECT_EQ(Walk("host:", ":"), (std::vector<std::string>{"host", ""}));
    EXPECT_EQ(Walk(":8080", ":"), (std::vector<std::string>{"", "8080"}));
    EXPECT_EQ(Walk("host", ":"), (std::vector<std::string>{"host"}));
    EXPECT_EQ(Walk("a; b;", ";"), (std::vector<std::string>{"a", " b", ""}));
    EXPECT_EQ(Walk("a::b:c", "::"), (std::vector<std::string>{"a", "b:c"}));
    EXPECT_EQ(Walk("", ","), std::vector<std::string>{});
    EXPECT_EQ(Walk("a,b", ""), (std::vector<std::string>{"a,b"}));
}

// Guards the count at the object's separator.
TEST(Token, AmountCountsSeparatorsPlusOne) {
    CToken token("", ";");
    EXPECT_EQ(token.GetAmount(""), 0);
    EXPECT_EQ(token.GetAmount("a"), 1);
    EXPECT_EQ(token.GetAmount(";"), 2);
    EXPECT_EQ(token.GetAmount("a;;b;"), 4);
}

// Guards ParseString: whole-text separator, pieces trimmed of blanks, empty ones dropped.
TEST(Token, ParseStringTrimsAndDropsEmptyPieces) {
    EXPECT_EQ(Parse("a, b,,c", ","), (std::list<std::string>{"a", "b", "c"}));
    EXPECT_EQ(Parse("10.0.0.0/8;" + std::string(41, ' ') + ";::1/128;", ";"),
              (std::list<std::string>{"10.0.0.0/8", "::1/128"}));
    EXPECT_EQ(Parse("a--b-c--", "--"), (std::list<std::string>{"a", "b-c"}));
    EXPECT_EQ(Parse(" only ", ","), (std::list<std::string>{"only"}));
    EXPECT_EQ(Parse("", ","), std::list<std::string>{});
    EXPECT_EQ(Parse(" a,b ", ""), (std::list<std::string>{" a,b "}));
    EXPECT_EQ(Parse(" , ,", ","), std::list<std::string>{});
}

// Guards the set form: duplicates collapse and the output is replaced.
TEST(Token, ParseStringAndRemoveDupsCollapsesRepeats) {
    std::set<std::string> out{"stale"};
    CToken::ParseStringAndRemoveDups("b; a ;b;;a", ";", out);
    EXPECT_EQ(out, (std::set<std::string>{"a", "b"}));
}

}  // namespace
