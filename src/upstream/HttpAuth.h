// SPDX-License-Identifier: Apache-2.0
// CHttpAuth: the Proxy-Authorization header (Basic) and the parsing of a proxy's answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

constexpr long HTTPAUTH_E_INVALIDARG = 0xFE15000BL;   // a null or empty argument
constexpr long HTTPAUTH_E_UNSUPPORTED = 0xFE150010L;  // the scheme is not supported
constexpr long HTTPAUTH_E_NOT_STATUS = 0xFE150012L;   // not an HTTP status line
constexpr long HTTPAUTH_E_NO_REALM = 0xFE150015L;     // no realm was found

// Stateless; any thread may call. Nothing here logs: every outcome is a result code. Texts
// from a proxy are read only up to their terminating zero and never written past a buffer.
class CHttpAuth {
public:
    enum EAuthType : std::int32_t {
        AUTH_TYPE_BASIC = 1,
        AUTH_TYPE_UNKNOWN = 99,  // no scheme recognised
    };

    static constexpr std::size_t kAttributeBytes = 4096;
    struct tagHttpHeader {
        std::int32_t responseCode;
        char attribute[kAttributeBytes];
    };

    // Sets `result` to 0.
    explicit CHttpAuth(long& result);
    virtual ~CHttpAuth() = default;

    // Appends the Proxy-Authorization lines for `type` (addAuthenticationHeader), then wipes
    // `user`, `password` and `secret` whatever the outcome, then appends "\r\n". Returns the
    // result of addAuthenticationHeader. `reserved1` to `reserved3` are accepted for callers
    // that pass them and not used.
    long Request(std::string& request, std::string user, std::string password, std::string secret,
                 char* reserved1, EAuthType type, std::string reserved2, std::string reserved3);

    // For Basic: appends "Connection: Keep-Alive\r\n", then `headerName`, " Basic " and the
    // Base64 of "user:password" on one line, and wipes `user` and `password` in place up to
    // their first zero byte. Any other type gives HTTPAUTH_E_UNSUPPORTED and changes nothing.
    // The last two arguments are not used.
    long addAuthenticationHeader(std::string& request, EAuthType type,
                                 const std::string& headerName, std::string& user,
                                 std::string& password, const std::string& reserved1,
                                 char* reserved2);

    // Stores the status code of an "HTTP/1.0" or "HTTP/1.1" line (either case) in `header`:
    // the number after the first run of white space, clamped to the int32 range, 0 when there
    // is none. HTTPAUTH_E_INVALIDARG for a null argument, HTTPAUTH_E_NOT_STATUS otherwise.
    long ParseHeaderRespCode(tagHttpHeader* header, const char* line);
    // Zeroes the attribute buffer, then for every white-space-separated word of `text` that
    // begins with `name` (either case) appends the `index`-th word after it (0: the word
    // itself), bounded by the buffer; scanning goes on after the appended word.
    // HTTPAUTH_E_INVALIDARG for a null argument.
    long ParseHeaderAttribute(tagHttpHeader* header, const char* text, const char* name,
                              unsigned int index);
    // `type` becomes AUTH_TYPE_BASIC when `text` offers Basic (either case), else
    // AUTH_TYPE_UNKNOWN with HTTPAUTH_E_UNSUPPORTED. HTTPAUTH_E_INVALIDARG for a null or empty
    // text (`type` then unchanged).
    long ValidateAuthenticationMethods(EAuthType& type, const char* text);
    // `realm` becomes what lies between the two double quotes after "realm". It is emptied
    // first; HTTPAUTH_E_INVALIDARG for a null text, HTTPAUTH_E_NO_REALM on any miss.
    long ParseHeaderBasicAuthRealm(std::string& realm, const char* text);

    // Base64 through lBase64, encoded with lines of 76 characters.
    void Base64Decode(std::string in, std::string& out);
    void Base64Encode(std::string in, std::string& out);
};
