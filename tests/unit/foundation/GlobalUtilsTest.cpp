// SPDX-License-Identifier: Apache-2.0
// Free helpers: exact results and codes that other areas compare against.
#include <arpa/inet.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/GlobalConst.h"
#include "foundation/GlobalUtils.h"

namespace {

// Case folding beyond A-Z, a length difference not reported as -1 at once, or a wrong sign.
TEST(GlobalUtilsStrings, NocaseCompareTreatsLengthFirst) {
    EXPECT_EQ(StringNocaseCompare("ABC", "abcd"), -1);
    EXPECT_EQ(StringNocaseCompare("abcd", "ABC"), -1);
    EXPECT_EQ(StringNocaseCompare("ABC", "abc"), 0);
    EXPECT_EQ(StringNocaseCompare("0", "1"), -1);
    EXPECT_EQ(StringNocaseCompare("1", "0"), 1);
    EXPECT_NE(StringNocaseCompare("[", "{"), 0);
}

// A trim that cuts inside the text, or fails on a text made only of trimmed characters.
TEST(GlobalUtilsStrings, TrimRemovesOnlyTheGivenCharactersAtTheEnds) {
    std::string text = " \r\n value \t x\t\n";
    StringTrim(text, " \r\n\t");
    EXPECT_EQ(text, "value \t x");
    text = "--a--";
    StringTrimLeft(text, "-");
    EXPECT_EQ(text, "a--");
    StringTrimRight(text, "-");
    EXPECT_EQ(text, "a");
    text = "    ";
    StringTrim(text, " ");
    EXPECT_EQ(text, "");
}

// Doubled or missing separators between folder and file name.
TEST(GlobalUtilsPaths, ConcatenatePathUsesOneSeparator) {
    EXPECT_EQ(ConcatenatePath("/opt/x", "SWGConfig.json", "/"), "/opt/x/SWGConfig.json");
    EXPECT_EQ(ConcatenatePath("/opt/x//", "/a", "/"), "/opt/x/a");
    EXPECT_EQ(ConcatenatePath("", "a", "/"), "a");
    EXPECT_EQ(ConcatenatePath("d", "", "/"), "d");
    EXPECT_EQ(ConcatenatePath("d", "n", "::"), "d::n");
}

// The data root ignoring SWG_DATA_ROOT, or taking an empty one; the program's directory
// with a trailing slash or pointing elsewhere.
TEST(GlobalUtilsPaths, DataRootAndProgramDirectory) {
    std::string path = "stale";
    unsetenv("SWG_DATA_ROOT");
    EXPECT_TRUE(GetAllUsersAppDataPath(path));
    EXPECT_EQ(path, "/opt");
    setenv("SWG_DATA_ROOT", "/tmp/swg-root", 1);
    EXPECT_TRUE(GetAllUsersAppDataPath(path));
    EXPECT_EQ(path, "/tmp/swg-root");
    setenv("SWG_DATA_ROOT", "", 1);
    EXPECT_TRUE(GetAllUsersAppDataPath(path));
    EXPECT_EQ(path, "/opt");
    unsetenv("SWG_DATA_ROOT");

    const std::string dir = GetExecutableDirectory();
    ASSERT_FALSE(dir.empty());
    EXPECT_NE(dir.back(), '/');
    EXPECT_TRUE(DoesFileExist(dir + "/test_foundation"));
    EXPECT_FALSE(DoesFileExist(dir + "/no-such-file.json"));
}

// 0.0.0.0 or 255.255.255.255 taken as an address, short forms refused, or a value left
// behind on refusal.
TEST(GlobalUtilsAddresses, IsIPAddressFollowsInetAddr) {
    struct Case {
        const char* text;
        bool ok;
        unsigned int value;
    } cases[] = {{"1.2.3.4", true, 0x01020304},
                 {"0.0.0.0", false, 0},
                 {"255.255.255.255", false, 0},
                 {"1", true, 1},
                 {"10.1", true, 0x0A000001},
                 {"garbage", false, 0},
                 {"", false, 0},
                 {"256.1.1.1", false, 0},
                 {"::1", false, 0}};
    for (const Case& c : cases) {
        unsigned int value = 0xDEADBEEF;
        EXPECT_EQ(IsIPAddress(c.text, &value), c.ok) << c.text;
        EXPECT_EQ(value, c.value) << c.text;
    }
}

// A literal of one family taken for the other, brackets accepted, or the any addresses
// refused where they are allowed.
TEST(GlobalUtilsAddresses, LiteralChecksByFamily) {
    struct Case {
        const char* text;
        bool v6;
        bool v4orV6;
        bool validOrAny;
    } cases[] = {
        {"::1", true, true, true},
        {"::", true, true, true},
        {"::ffff:10.0.0.0", true, true, true},
        {"[::1]", false, false, false},
        {"10.0.0.0", false, true, true},
        {"0.0.0.0", false, true, true},
        {"255.255.255.255", false, true, false},
        {"1", false, false, true},
        {"example.com", false, false, false},
        {"1.2.3.4.5", false, false, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(IsIPv6Address(c.text), c.v6) << c.text;
        EXPECT_EQ(IsIPv4orIPv6Address(c.text), c.v4orV6) << c.text;
        EXPECT_EQ(IsValidOrAnyIPAddress(c.text), c.validOrAny) << c.text;
    }
}

// A socket address read as the wrong family, or the port written into the text.
TEST(GlobalUtilsAddresses, SocketAddressToText) {
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(443);
    ASSERT_EQ(inet_pton(AF_INET, "198.18.0.7", &sin.sin_addr), 1);
    EXPECT_EQ(SockaddrToAddress(reinterpret_cast<sockaddr*>(&sin)), "198.18.0.7");
    sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    ASSERT_EQ(inet_pton(AF_INET6, "2001:db8:0:0::1", &sin6.sin6_addr), 1);
    EXPECT_EQ(SockaddrToAddress(reinterpret_cast<sockaddr*>(&sin6)), "2001:db8::1");
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    EXPECT_EQ(SockaddrToAddress(reinterpret_cast<sockaddr*>(&sun)), "");
    EXPECT_EQ(SockaddrToAddress(nullptr), "");
}

// A status code read past the 20-byte window or the given length, or a missing code not
// reported as 30002.
TEST(GlobalUtilsHttp, StatusCodeFromTheFirstTwentyBytes) {
    struct Case {
        const char* header;
        int length;
        int code;
    } cases[] = {
        {"HTTP/1.1 200 OK\r\n", 17, 200},
        {"HTTP/1.0 302 Found\r\nLocation: x\r\n", 33, 302},
        {"HTTP/1.1 200 OK", 10, 2},  // length cuts the code short
        {"HTTP/1.1 200", 9, SWG_E_HTTP_NO_STATUS_CODE},
        {"HTTP/1.1 OK 200", 15, SWG_E_HTTP_NO_STATUS_CODE},
        {"HTTP/1.1234567890123456789 200", 30, SWG_E_HTTP_NO_STATUS_CODE},
        {"", 0, SWG_E_HTTP_NO_STATUS_CODE},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(GetStatusCodeFromHTTPHeader(c.header, c.length), c.code) << c.header;
    }
    EXPECT_EQ(GetStatusCodeFromHTTPHeader(nullptr, 10), 30002);
    EXPECT_EQ(GetHTTPStatusCodeDef(302), "Found");
    EXPECT_EQ(GetHTTPStatusCodeDef(SWG_E_HTTP_NO_STATUS_CODE), "Unknown");
}

// A URL without a host accepted (30004 expected), the port cut from the host, or stale
// outputs left on failure.
TEST(GlobalUtilsHttp, HostAndRequestFromUrl) {
    struct Case {
        const char* url;
        int result;
        const char* host;
        const char* request;
    } cases[] = {
        {"http://echo.example/path?q=1", 0, "echo.example", "path?q=1"},
        {"https://a.example:8080/x/y", 0, "a.example:8080", "x/y"},
        {"a.example/x", 0, "a.example", "x"},
        {"http://a.example/", 0, "a.example", ""},
        {"http://a.example", SWG_E_HTTP_BAD_URL, "", ""},
        {"http:///path", SWG_E_HTTP_BAD_URL, "", ""},
        {"", 30004, "", ""},
    };
    for (const Case& c : cases) {
        std::string host = "stale";
        std::string request = "stale";
        EXPECT_EQ(GetHostAndRequestFromURL(c.url, host, request), c.result) << c.url;
        EXPECT_EQ(host, c.host) << c.url;
        EXPECT_EQ(request, c.request) << c.url;
    }
}

// A captive portal domain that keeps case, scheme, www, port, path or query.
TEST(GlobalUtilsHttp, DomainFromUrl) {
    EXPECT_EQ(ExtractDomainFromUrl("HTTP://WWW.Portal.Example:8080/login?x=1"), "portal.example");
    EXPECT_EQ(ExtractDomainFromUrl("https://portal.example?next=http://www.x"), "portal.example");
    EXPECT_EQ(ExtractDomainFromUrl("/relative/path"), "");
}

// A bounded copy that overruns, leaves the destination unterminated or half written, or
// reports the wrong length.
TEST(GlobalUtilsBounded, CopiesTruncateOrRefuseAndAlwaysTerminate) {
    char dest[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(memcpy_s(dest, sizeof(dest), "abcd", 4), 0);
    EXPECT_EQ(std::memcmp(dest, "abcd", 4), 0);
    EXPECT_EQ(memcpy_s(dest, sizeof(dest), "abcde", 5), ERANGE);
    EXPECT_EQ(dest[0], '\0');
    EXPECT_EQ(memcpy_s(nullptr, 4, "a", 1), EINVAL);
    EXPECT_EQ(strcpy_s(dest, sizeof(dest), "abc"), 0);
    EXPECT_STREQ(dest, "abc");
    EXPECT_EQ(strcpy_s(dest, sizeof(dest), "abcd"), ERANGE);
    EXPECT_STREQ(dest, "");
    EXPECT_EQ(strnlen_s("abcdef", 4), 4u);

    char buffer[6];
    EXPECT_EQ(safe_strlcpyA(buffer, "abc", sizeof(buffer)), 3u);
    EXPECT_EQ(safe_strlcatA(buffer, "defgh", sizeof(buffer)), 8u);
    EXPECT_STREQ(buffer, "abcde");
    EXPECT_EQ(safe_strlcpyA(buffer, "0123456789", sizeof(buffer)), 10u);
    EXPECT_STREQ(buffer, "01234");
    char unterminated[3] = {'a', 'b', 'c'};
    EXPECT_EQ(safe_strlcatA(unterminated, "d", sizeof(unterminated)), 4u);
    EXPECT_EQ(std::memcmp(unterminated, "abc", 3), 0);

    char formatted[8];
    EXPECT_EQ(safe_snprintfA(formatted, sizeof(formatted), "%d-%s", 42, "ok"), 5);
    EXPECT_STREQ(formatted, "42-ok");
    EXPECT_EQ(safe_snprintfA(formatted, sizeof(formatted), "%s", "0123456789"), 7);
    EXPECT_STREQ(formatted, "0123456");
    EXPECT_EQ(safe_snprintfA(formatted, 0, "%s", "x"), -1);
}

}  // namespace
