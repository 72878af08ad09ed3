// SPDX-License-Identifier: Apache-2.0
// CToken: walking a text token by token, and ParseString's trimming.
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
    for (int guard = 0; token.MoreTokens() && guard < 100; ++guard) {
        out.push_back(token.GetNextToken());
    }
    EXPECT_EQ(token.GetNextToken(), "") << "a token after the walk ended";
    return out;
}

std::list<std::string> Parse(const std::string& text, const std::string& separator) {
    std::list<std::string> out{"stale"};
    CToken::ParseString(text, separator, out);
    return out;
}

using Tokens = std::vector<std::string>;
using Pieces = std::list<std::string>;

// Blanks around the whole text kept, an empty token lost, a token trimmed inside, a
// multi-character separator taken as a set of characters, or a walk that does not end.
TEST(Token, WalkTrimsTheTextButNotItsTokens) {
    EXPECT_EQ(Walk("  \t x:y \r\n", ":"), (Tokens{"x", "y"}));
    EXPECT_EQ(Walk("GET / HTTP/1.1", " "), (Tokens{"GET", "/", "HTTP/1.1"}));
    EXPECT_EQ(Walk("host:", ":"), (Tokens{"host", ""}));
    EXPECT_EQ(Walk(":8080", ":"), (Tokens{"", "8080"}));
    EXPECT_EQ(Walk("a; b;", ";"), (Tokens{"a", " b", ""}));
    EXPECT_EQ(Walk("a::b:c", "::"), (Tokens{"a", "b:c"}));
    EXPECT_EQ(Walk("", ","), Tokens{});
    EXPECT_EQ(Walk("a,b", ""), (Tokens{"a,b"}));
}

// ParseString keeping blanks or empty pieces, appending to an old list, or splitting at
// single characters of a longer separator; the set form keeping duplicates.
TEST(Token, ParseStringTrimsAndDropsEmptyPieces) {
    EXPECT_EQ(Parse("a, b,,c", ","), (Pieces{"a", "b", "c"}));
    EXPECT_EQ(Parse("10.0.0.0/8;" + std::string(41, ' ') + ";::1/128;", ";"),
              (Pieces{"10.0.0.0/8", "::1/128"}));
    EXPECT_EQ(Parse("a--b-c--", "--"), (Pieces{"a", "b-c"}));
    EXPECT_EQ(Parse("", ","), Pieces{});
    EXPECT_EQ(Parse(" a,b ", ""), (Pieces{" a,b "}));

    std::set<std::string> out{"stale"};
    CToken::ParseStringAndRemoveDups("b; a ;b;;a", ";", out);
    EXPECT_EQ(out, (std::set<std::string>{"a", "b"}));
}

}  // namespace
