// SPDX-License-Identifier: Apache-2.0
// Basic proxy authentication: the request header, and reading the proxy's answer.
#include "upstream/HttpAuth.h"

#include <strings.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <ostream>
#include <sstream>
#include <streambuf>

#include "foundation/Base64.h"
#include "foundation/crypto/OpensslUtility.h"

namespace {
constexpr int kBase64LineLength = 76;

bool IsHttpSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Stream buffers over memory the caller wipes: credentials never sit in a stream's own
// buffer, which would be freed without a wipe.
class CReadBuffer : public std::streambuf {
public:
    CReadBuffer(char* data, std::size_t length) { setg(data, data, data + length); }
};
class CAppendBuffer : public std::streambuf {
public:
    explicit CAppendBuffer(std::string& out) : m_out(out) {}

protected:
    int_type overflow(int_type c) override {
        if (!traits_type::eq_int_type(c, traits_type::eof())) m_out.push_back(static_cast<char>(c));
        return traits_type::not_eof(c);
    }

private:
    std::string& m_out;
};

void WipeUpToZero(std::string& text) { SecureWipe(&text[0], ::strnlen(text.c_str(), text.size())); }

// The bounds of the next white-space-separated word at or after `cursor`; false at the end.
bool NextWord(const char*& cursor, const char*& begin, const char*& end) {
    while (*cursor != '\0' && IsHttpSpace(*cursor)) ++cursor;
    if (*cursor == '\0') return false;
    begin = cursor;
    while (*cursor != '\0' && !IsHttpSpace(*cursor)) ++cursor;
    end = cursor;
    return true;
}

void AppendBounded(char* buffer, std::size_t size, const char* begin, const char* end) {
    const std::size_t used = ::strnlen(buffer, size);
    const std::size_t room = size - 1 - used;
    const std::size_t length = static_cast<std::size_t>(end - begin);
    const std::size_t taken = length < room ? length : room;
    std::memcpy(buffer + used, begin, taken);
    buffer[used + taken] = '\0';
}
}  // namespace

CHttpAuth::CHttpAuth(long& result) { result = 0; }

long CHttpAuth::Request(std::string& request, std::string user, std::string password,
                        std::string secret, char* reserved1, EAuthType type,
                        std::string /*reserved2*/, std::string /*reserved3*/) {
    const long result = addAuthenticationHeader(request, type, "Proxy-Authorization:", user,
                                                password, secret, reserved1);
    SecureWipe(&user[0], user.size());
    SecureWipe(&password[0], password.size());
    SecureWipe(&secret[0], secret.size());
    request += "\r\n";
    return result;
}

long CHttpAuth::addAuthenticationHeader(std::string& request, EAuthType type,
                                        const std::string& headerName, std::string& user,
                                        std::string& password, const std::string& /*reserved1*/,
                                        char* /*reserved2*/) {
    if (type != AUTH_TYPE_BASIC) return HTTPAUTH_E_UNSUPPORTED;
    request += "Connection: Keep-Alive\r\n";

    // "user:password" (RFC 7617 section 2) in one buffer that is wiped after encoding.
    const std::size_t userLength = ::strnlen(user.c_str(), user.size());
    const std::size_t passwordLength = ::strnlen(password.c_str(), password.size());
    std::string plain(userLength + 1 + passwordLength, '\0');
    std::memcpy(&plain[0], user.data(), userLength);
    plain[userLength] = ':';
    std::memcpy(&plain[userLength + 1], password.data(), passwordLength);
    std::string encoded;
    encoded.reserve((plain.size() + 2) / 3 * 4);  // no reallocation leaves a copy behind
    {
        CReadBuffer inBuffer(&plain[0], plain.size());
        CAppendBuffer outBuffer(encoded);
        std::istream in(&inBuffer);
        std::ostream out(&outBuffer);
        // One line: a header value cannot hold the line ends of a wrapped encoding.
        lBase64::Encode(in, out, 0);
    }
    SecureWipe(&plain[0], plain.size());
    WipeUpToZero(user);
    WipeUpToZero(password);

    request.reserve(request.size() + headerName.size() + encoded.size() + 9);
    request += headerName;
    request += " Basic ";
    request += encoded;
    request += "\r\n";
    SecureWipe(&encoded[0], encoded.size());
    return 0;
}

long CHttpAuth::ParseHeaderRespCode(tagHttpHeader* header, const char* line) {
    if (header == nullptr || line == nullptr) return HTTPAUTH_E_INVALIDARG;
    if (::strncasecmp(line, "HTTP/1.0", 8) != 0 && ::strncasecmp(line, "HTTP/1.1", 8) != 0) {
        return HTTPAUTH_E_NOT_STATUS;
    }
    const char* cursor = line;
    while (*cursor != '\0' && !IsHttpSpace(*cursor)) ++cursor;
    while (*cursor != '\0' && IsHttpSpace(*cursor)) ++cursor;
    // atoi's reading, without its undefined result on overflow.
    long code = std::strtol(cursor, nullptr, 10);
    if (code > INT_MAX) code = INT_MAX;
    if (code < INT_MIN) code = INT_MIN;
    header->responseCode = static_cast<std::int32_t>(code);
    return 0;
}

long CHttpAuth::ParseHeaderAttribute(tagHttpHeader* header, const char* text, const char* name,
                                     unsigned int index) {
    if (header == nullptr || text == nullptr || name == nullptr) return HTTPAUTH_E_INVALIDARG;
    std::memset(header->attribute, 0, sizeof(header->attribute));
    const std::size_t nameLength = std::strlen(name);
    const char* cursor = text;
    const char* begin = nullptr;
    const char* end = nullptr;
    while (NextWord(cursor, begin, end)) {
        if (static_cast<std::size_t>(end - begin) < nameLength ||
            ::strncasecmp(begin, name, nameLength) != 0) {
            continue;
        }
        // Index 0 appends the matching word itself; the scan always moves on.
        bool found = true;
        for (unsigned int step = 0; step < index && found; ++step) {
            found = NextWord(cursor, begin, end);
        }
        if (!found) break;
        AppendBounded(header->attribute, sizeof(header->attribute), begin, end);
    }
    return 0;
}

long CHttpAuth::ValidateAuthenticationMethods(EAuthType& type, const char* text) {
    if (text == nullptr || *text == '\0') return HTTPAUTH_E_INVALIDARG;
    type = AUTH_TYPE_UNKNOWN;
    if (std::strlen(text) < 5) return HTTPAUTH_E_UNSUPPORTED;
    if (::strcasestr(text, "BASIC") == nullptr) return HTTPAUTH_E_UNSUPPORTED;
    type = AUTH_TYPE_BASIC;
    return 0;
}

long CHttpAuth::ParseHeaderBasicAuthRealm(std::string& realm, const char* text) {
    realm.clear();
    if (text == nullptr) return HTTPAUTH_E_INVALIDARG;
    const char* word = std::strstr(text, "realm");
    const char* open = word != nullptr ? std::strchr(word, '"') : nullptr;
    const char* close = open != nullptr ? std::strchr(open + 1, '"') : nullptr;
    if (close == nullptr) return HTTPAUTH_E_NO_REALM;
    realm.assign(open + 1, close);
    return 0;
}

void CHttpAuth::Base64Decode(std::string in, std::string& out) {
    std::istringstream input(in);
    std::ostringstream output;
    lBase64::Decode(input, output);
    out = output.str();
}

void CHttpAuth::Base64Encode(std::string in, std::string& out) {
    std::istringstream input(in);
    std::ostringstream output;
    lBase64::Encode(input, output, kBase64LineLength);
    out = output.str();
}
