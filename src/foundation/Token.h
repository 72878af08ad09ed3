// SPDX-License-Identifier: Apache-2.0
// CToken: splits a text at a separator text, one token at a time or all at once.
#pragma once

#include <list>
#include <set>
#include <string>

// One object walks one text; not shared between threads.
class CToken {
public:
    // Trims " \r\n\t" from both ends of `text` and counts its tokens at `separator`
    // (a whole text, not a set of characters).
    CToken(std::string text, std::string separator);
    virtual ~CToken() = default;

    // Tokens in `text` at this object's separator: 0 for an empty text, else the number
    // of separator occurrences plus 1 (empty tokens count).
    int GetAmount(std::string text);

    // Whether GetNextToken has a token left to give.
    virtual bool MoreTokens();

    // The text up to the next separator (untrimmed, possibly empty), advancing past it;
    // the rest of the text for the last token; "" when none is left.
    std::string GetNextToken();

    // Replaces `out` with the pieces of `text` between occurrences of `separator`, each
    // trimmed of " " and left out when empty. An empty `text` gives nothing; an empty
    // `separator` gives `text` as the one entry.
    static void ParseString(const std::string& text, const std::string& separator,
                            std::list<std::string>& out);

    // ParseString into a set, so duplicates collapse; `out` is replaced.
    static void ParseStringAndRemoveDups(const std::string& text, const std::string& separator,
                                         std::set<std::string>& out);

private:
    int m_count = 0;
    int m_index = 0;
    std::string m_text;  // trimmed
    std::string m_rest;  // still to be read
    std::string m_separator;
};
