// SPDX-License-Identifier: Apache-2.0
// CToken: splits a text at a separator text.
#include "foundation/Token.h"

#include "foundation/GlobalUtils.h"

CToken::CToken(std::string text, std::string separator)
    : m_text(std::move(text)), m_separator(std::move(separator)) {
    StringTrim(m_text, " \r\n\t");
    m_rest = m_text;
    m_count = GetAmount(m_text);
}

int CToken::GetAmount(std::string text) {
    if (text.empty()) return 0;
    if (m_separator.empty()) return 1;
    int count = 1;
    for (std::size_t at = text.find(m_separator); at != std::string::npos;
         at = text.find(m_separator, at + m_separator.size())) {
        ++count;
    }
    return count;
}

bool CToken::MoreTokens() { return m_index < m_count; }

std::string CToken::GetNextToken() {
    if (m_index >= m_count) return "";
    ++m_index;
    const std::size_t at = m_separator.empty() ? std::string::npos : m_rest.find(m_separator);
    std::string token;
    if (at == std::string::npos) {
        token.swap(m_rest);
    } else {
        token = m_rest.substr(0, at);
        m_rest.erase(0, at + m_separator.size());
    }
    return token;
}

void CToken::ParseString(const std::string& text, const std::string& separator,
                         std::list<std::string>& out) {
    out.clear();
    if (text.empty()) return;
    if (separator.empty()) {
        out.push_back(text);
        return;
    }
    std::size_t start = 0;
    for (;;) {
        const std::size_t at = text.find(separator, start);
        std::string piece =
            text.substr(start, at == std::string::npos ? std::string::npos : at - start);
        StringTrim(piece, " ");
        if (!piece.empty()) out.push_back(std::move(piece));
        if (at == std::string::npos) break;
        start = at + separator.size();
    }
}

void CToken::ParseStringAndRemoveDups(const std::string& text, const std::string& separator,
                                      std::set<std::string>& out) {
    std::list<std::string> tokens;
    ParseString(text, separator, tokens);
    out.clear();
    out.insert(tokens.begin(), tokens.end());
}
