// SPDX-License-Identifier: Apache-2.0
// CHttpAuth: the Basic header against RFC 7617, the wipe of credentials, the answer parsers.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "upstream/HttpAuth.h"

namespace {

const char kRequestLine[] = "CONNECT a.example:443 HTTP/1.1\r\n";

// Guards the header text: RFC 7617's examples (section 2 and the UTF-8 one of 2.1), and a
// long pair that must stay on one line of the header.
TEST(HttpAuth, BasicHeaderMatchesTheRfcExamples) {
    const struct {
        const char* user;
        const char* password;
        const char* encoded;
    } cases[] = {
        {"Aladdin", "open sesame", "QWxhZGRpbjpvcGVuIHNlc2FtZQ=="},
        {"test", "123\xC2\xA3", "dGVzdDoxMjPCow=="},
        {"a-rather-long-user-name-for-one-line", "and-a-password-just-as-long",
         "YS1yYXRoZXItbG9uZy11c2VyLW5hbWUtZm9yLW9uZS1saW5lOmFuZC1hLXBhc3N3b3JkLWp1c3QtYXMtbG9uZw="
         "="},
    };
    for (const auto& c : cases) {
        long result = -1;
        CHttpAuth auth(result);
        std::string request = kRequestLine;
        EXPECT_EQ(auth.Request(request, c.user, c.password, "", nullptr, CHttpAuth::AUTH_TYPE_BASIC,
                               "", ""),
                  0);
        EXPECT_EQ(request, std::string(kRequestLine) +
                               "Connection: Keep-Alive\r\nProxy-Authorization: Basic " + c.encoded +
                               "\r\n\r\n");
    }
}

// Guards the wipe in place of the caller's strings, and a scheme that is not Basic: no
// header, yet the request is still ended.
TEST(HttpAuth, CredentialsAreWipedAndAnUnknownSchemeAddsNoHeader) {
    long result = -1;
    CHttpAuth auth(result);
    std::string request;
    std::string user = "alice";
    std::string password = "pw";
    EXPECT_EQ(auth.addAuthenticationHeader(request, CHttpAuth::AUTH_TYPE_BASIC,
                                           "Proxy-Authorization:", user, password, "", nullptr),
              0);
    EXPECT_EQ(user, std::string(5, '\0'));
    EXPECT_EQ(password, std::string(2, '\0'));

    request = kRequestLine;
    EXPECT_EQ(
        auth.Request(request, "alice", "pw", "", nullptr, CHttpAuth::AUTH_TYPE_UNKNOWN, "", ""),
        HTTPAUTH_E_UNSUPPORTED);
    EXPECT_EQ(request, std::string(kRequestLine) + "\r\n");
}

// Guards the status line reader: version words of either case, white space runs, lines that
// are not status lines, and a code too large for atoi.
TEST(HttpAuth, StatusLinesGiveTheirCode) {
    const struct {
        const char* line;
        long result;
        int code;
    } cases[] = {
        {"HTTP/1.1 407 Proxy Authentication Required", 0, 407},
        {"http/1.0 \t 200 OK", 0, 200},
        {"HTTP/1.1", 0, 0},
        {"HTTP/1.1 99999999999999999999", 0, INT_MAX},
        {"HTTP/2 407", HTTPAUTH_E_NOT_STATUS, -1},
        {"407 Proxy Authentication Required", HTTPAUTH_E_NOT_STATUS, -1},
    };
    long result = -1;
    CHttpAuth auth(result);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        CHttpAuth::tagHttpHeader header{};
        header.responseCode = -1;
        EXPECT_EQ(auth.ParseHeaderRespCode(&header, c.line), c.result);
        EXPECT_EQ(header.responseCode, c.code);
    }
    EXPECT_EQ(auth.ParseHeaderRespCode(nullptr, "HTTP/1.1 200"), HTTPAUTH_E_INVALIDARG);
}

// Guards the challenge readers: Basic in any case, other schemes (99), quoted realms only,
// and attribute words gathered across matches within the buffer, index 0 included.
TEST(HttpAuth, ChallengesGiveSchemeRealmAndAttributes) {
    long result = -1;
    CHttpAuth auth(result);
    const struct {
        const char* text;
        long result;
        CHttpAuth::EAuthType type;
    } schemes[] = {
        {"Negotiate, NTLM", HTTPAUTH_E_UNSUPPORTED, CHttpAuth::AUTH_TYPE_UNKNOWN},
        {"bAsIc realm=\"corp\"", 0, CHttpAuth::AUTH_TYPE_BASIC},
        {"Bas", HTTPAUTH_E_UNSUPPORTED, CHttpAuth::AUTH_TYPE_UNKNOWN},
    };
    for (const auto& s : schemes) {
        CHttpAuth::EAuthType type = CHttpAuth::AUTH_TYPE_BASIC;
        EXPECT_EQ(auth.ValidateAuthenticationMethods(type, s.text), s.result) << s.text;
        EXPECT_EQ(type, s.type) << s.text;
    }
    CHttpAuth::EAuthType type = CHttpAuth::AUTH_TYPE_BASIC;
    EXPECT_EQ(auth.ValidateAuthenticationMethods(type, ""), HTTPAUTH_E_INVALIDARG);

    std::string realm = "stale";
    EXPECT_EQ(auth.ParseHeaderBasicAuthRealm(realm, "Basic realm=\"corp proxy\""), 0);
    EXPECT_EQ(realm, "corp proxy");
    EXPECT_EQ(auth.ParseHeaderBasicAuthRealm(realm, "Basic realm=x"), HTTPAUTH_E_NO_REALM);
    EXPECT_EQ(realm, "");
    EXPECT_EQ(auth.ParseHeaderBasicAuthRealm(realm, "Basic realm=\"open"), HTTPAUTH_E_NO_REALM);

    const char answer[] = "Proxy-Authenticate: Basic\r\nproxy-authenticate: NTLM";
    const struct {
        unsigned int index;
        const char* expected;
    } attributes[] = {
        {1, "BasicNTLM"}, {0, "Proxy-Authenticate:proxy-authenticate:"}, {3, "NTLM"}, {4, ""}};
    for (const auto& a : attributes) {
        CHttpAuth::tagHttpHeader header{};
        EXPECT_EQ(auth.ParseHeaderAttribute(&header, answer, "PROXY-AUTHENTICATE:", a.index), 0);
        EXPECT_STREQ(header.attribute, a.expected);
    }
    const std::string longWord = "x " + std::string(5000, 'w');
    CHttpAuth::tagHttpHeader header{};
    EXPECT_EQ(auth.ParseHeaderAttribute(&header, longWord.c_str(), "x", 1), 0);
    EXPECT_EQ(std::strlen(header.attribute), sizeof(header.attribute) - 1);
}

}  // namespace
