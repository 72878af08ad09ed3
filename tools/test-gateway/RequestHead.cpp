// SPDX-License-Identifier: Apache-2.0
// One request header block as the test gateway sees it: request line, headers, target.
#include "RequestHead.h"

#include <strings.h>

#include "GatewayOptions.h"

namespace testgw {
namespace {

std::string Trim(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return std::string();
    const std::size_t last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

bool SameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() && strncasecmp(a.c_str(), b.c_str(), a.size()) == 0;
}

// The path of an origin-form or absolute-form target without its query: queries are not
// logged.
std::string PathWithoutQuery(const std::string& path) {
    return path.substr(0, path.find_first_of("?#"));
}

}  // namespace

bool CRequestHead::Parse(const std::string& block, std::string& error) {
    *this = CRequestHead();
    std::size_t start = 0;
    bool first = true;
    while (start < block.size()) {
        const std::size_t end = block.find("\r\n", start);
        if (end == std::string::npos) {
            error = "header block not ended by CRLF";
            return false;
        }
        const std::string line = block.substr(start, end - start);
        start = end + 2;
        if (line.empty()) break;
        if (first) {
            first = false;
            if (!ParseRequestLine(line, error)) return false;
            continue;
        }
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos || colon == 0) {
            error = "header line without a name";
            return false;
        }
        m_headers.emplace_back(Trim(line.substr(0, colon)), Trim(line.substr(colon + 1)));
        m_rawLines.push_back(line + "\r\n");
    }
    if (first) {
        error = "empty request";
        return false;
    }
    return FindTarget(error);
}

bool CRequestHead::ParseRequestLine(const std::string& line, std::string& error) {
    const std::size_t space1 = line.find(' ');
    const std::size_t space2 = space1 == std::string::npos ? space1 : line.find(' ', space1 + 1);
    if (space2 == std::string::npos || line.compare(space2 + 1, 5, "HTTP/") != 0) {
        error = "bad request line";
        return false;
    }
    m_requestLine = line + "\r\n";
    m_method = line.substr(0, space1);
    m_uri = line.substr(space1 + 1, space2 - space1 - 1);
    return !m_method.empty() && !m_uri.empty();
}

bool CRequestHead::FindTarget(std::string& error) {
    if (IsConnect()) {
        if (!SplitHostPort(m_uri, -1, m_host, m_port)) {
            error = "CONNECT target is not host:port";
            return false;
        }
        m_logTarget = m_uri;
        return true;
    }
    std::string authority;
    std::string path = m_uri;
    static const std::string kScheme = "http://";
    if (m_uri.size() > kScheme.size() && strncasecmp(m_uri.c_str(), kScheme.c_str(), 7) == 0) {
        const std::size_t slash = m_uri.find('/', kScheme.size());
        authority = m_uri.substr(kScheme.size(), slash - kScheme.size());
        path = slash == std::string::npos ? "/" : m_uri.substr(slash);
    }
    // An absolute URI's authority outranks the Host line (RFC 9112, 3.2.2).
    if (authority.empty() && !LastValue("Host", authority)) {
        error = "request names no host";
        return false;
    }
    if (!SplitHostPort(authority, 80, m_host, m_port)) {
        error = "bad Host '" + authority + "'";
        return false;
    }
    m_logTarget = authority + PathWithoutQuery(path);
    return true;
}

bool CRequestHead::LastValue(const std::string& name, std::string& value) const {
    for (auto it = m_headers.rbegin(); it != m_headers.rend(); ++it) {
        if (SameName(it->first, name)) {
            value = it->second;
            return true;
        }
    }
    return false;
}

std::string CRequestHead::Without(const std::vector<std::string>& drop) const {
    std::string block = m_requestLine;
    for (std::size_t i = 0; i < m_headers.size(); ++i) {
        bool dropped = false;
        for (const std::string& name : drop)
            dropped = dropped || SameName(m_headers[i].first, name);
        if (!dropped) block += m_rawLines[i];
    }
    return block + "\r\n";
}

}  // namespace testgw
