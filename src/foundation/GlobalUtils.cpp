// SPDX-License-Identifier: Apache-2.0
// Free helpers on strings, paths, addresses, HTTP text and bounded C strings.
#include "foundation/GlobalUtils.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/GlobalConst.h"
#include "platform/ThisProcess.h"

namespace {
char FoldAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

std::string LowerAscii(std::string text) {
    for (char& c : text) c = FoldAscii(c);
    return text;
}

int HexDigitValue(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

void EraseAll(std::string& text, const std::string& what) {
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at)) {
        text.erase(at, what.size());
    }
}

void CutAtFirstOf(std::string& text, char c) {
    const std::size_t at = text.find(c);
    if (at != std::string::npos) text.erase(at);
}
}  // namespace

// ---- Strings

int StringNocaseCompare(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return -1;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const unsigned char x = static_cast<unsigned char>(FoldAscii(a[i]));
        const unsigned char y = static_cast<unsigned char>(FoldAscii(b[i]));
        if (x != y) return x < y ? -1 : 1;
    }
    return 0;
}

void StringTrimLeft(std::string& text, const std::string& chars) {
    text.erase(0, text.find_first_not_of(chars));
}

void StringTrimRight(std::string& text, const std::string& chars) {
    const std::size_t last = text.find_last_not_of(chars);
    text.erase(last == std::string::npos ? 0 : last + 1);
}

void StringTrim(std::string& text, const std::string& chars) {
    StringTrimRight(text, chars);
    StringTrimLeft(text, chars);
}

bool compareWithWildStr(const std::string& text, const std::string& pattern) {
    // Greedy match with backtracking to the last "*": linear in practice, no recursion.
    std::size_t t = 0, p = 0;
    std::size_t starAt = std::string::npos, resumeAt = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            starAt = p++;
            resumeAt = t;
        } else if (p < pattern.size() && pattern[p] == text[t]) {
            ++p;
            ++t;
        } else if (starAt != std::string::npos) {
            p = starAt + 1;
            t = ++resumeAt;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') ++p;
    return p == pattern.size();
}

// ---- Paths and files

std::string ConcatenatePath(const std::string& dir, const std::string& name,
                            std::string separator) {
    if (dir.empty()) return name;
    if (name.empty()) return dir;
    std::string left = dir;
    std::string right = name;
    if (!separator.empty()) {
        while (left.size() >= separator.size() &&
               left.compare(left.size() - separator.size(), separator.size(), separator) == 0) {
            left.erase(left.size() - separator.size());
        }
        while (right.compare(0, separator.size(), separator) == 0) right.erase(0, separator.size());
    }
    return left + separator + right;
}

std::string GetExecutableDirectory() {
    const std::string text = OwnExecutablePath();
    const std::size_t slash = text.rfind('/');
    if (slash == std::string::npos) return "";
    return slash == 0 ? "/" : text.substr(0, slash);
}

bool GetAllUsersAppDataPath(std::string& path) {
    const char* root = std::getenv("SWG_DATA_ROOT");
    path = (root != nullptr && root[0] != '\0') ? root : "/opt";
    return true;
}

long GetTempFolderPath(std::string& path) {
    path = "/tmp";
    return 0;
}

bool DoesFileExist(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

// ---- Hexadecimal

char* HexEncode(const unsigned char* data, int length) {
    if (data == nullptr || length < 0) return nullptr;
    static const char kDigits[] = "0123456789ABCDEF";
    const std::size_t count = static_cast<std::size_t>(length);
    char* text = new (std::nothrow) char[count * 2 + 1];
    if (text == nullptr) return nullptr;
    for (std::size_t i = 0; i < count; ++i) {
        text[2 * i] = kDigits[data[i] >> 4];
        text[2 * i + 1] = kDigits[data[i] & 0x0F];
    }
    text[count * 2] = '\0';
    return text;
}

bool HexDecode(const unsigned char* text, int length, std::vector<unsigned char>& out) {
    out.clear();
    if (text == nullptr || length < 0 || length % 2 != 0) return false;
    out.reserve(static_cast<std::size_t>(length) / 2);
    for (int i = 0; i < length; i += 2) {
        const int high = HexDigitValue(text[i]);
        const int low = HexDigitValue(text[i + 1]);
        if (high < 0 || low < 0) {
            out.clear();
            return false;
        }
        out.push_back(static_cast<unsigned char>(high << 4 | low));
    }
    return true;
}

// ---- Addresses

bool IsIPAddress(const std::string& text, unsigned int* value) {
    // inet_addr's error return is INADDR_NONE, the same bits as 255.255.255.255, so that
    // address cannot be told from an error and is refused with it.
    const in_addr_t address = inet_addr(text.c_str());
    const bool ok = address != INADDR_NONE && address != INADDR_ANY;
    if (value != nullptr) *value = ok ? ntohl(address) : 0;
    return ok;
}

bool IsIPv6Address(const std::string& text) {
    in6_addr address{};
    return inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

bool IsIPv4orIPv6Address(const std::string& text) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1 || IsIPv6Address(text);
}

bool IsValidOrAnyIPAddress(const std::string& text) {
    if (IsIPv6Address(text)) return true;
    in_addr address{};
    return inet_aton(text.c_str(), &address) != 0 && address.s_addr != INADDR_NONE;
}

std::string InaddrToAddress(const in_addr& address) {
    char text[INET_ADDRSTRLEN] = {};
    return inet_ntop(AF_INET, &address, text, sizeof(text)) != nullptr ? text : "";
}

std::string Inaddr6ToAddress(const in6_addr& address) {
    char text[INET6_ADDRSTRLEN] = {};
    return inet_ntop(AF_INET6, &address, text, sizeof(text)) != nullptr ? text : "";
}

std::string SockaddrToAddress(const sockaddr* address) {
    if (address == nullptr) return "";
    if (address->sa_family == AF_INET) {
        return InaddrToAddress(reinterpret_cast<const sockaddr_in*>(address)->sin_addr);
    }
    if (address->sa_family == AF_INET6) {
        return Inaddr6ToAddress(reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
    }
    return "";
}

// ---- HTTP text

int GetStatusCodeFromHTTPHeader(const char* header, int length) {
    constexpr int kLookAt = 20;
    if (header == nullptr || length <= 0) return SWG_E_HTTP_NO_STATUS_CODE;
    const int end = length < kLookAt ? length : kLookAt;
    int at = 0;
    while (at < end && header[at] != ' ' && header[at] != '\0') ++at;
    if (at >= end || header[at] != ' ') return SWG_E_HTTP_NO_STATUS_CODE;
    ++at;
    int code = 0;
    int digits = 0;
    // Three digits are a status code; the cap keeps a run of digits from overflowing.
    while (at < end && digits < 3 && header[at] >= '0' && header[at] <= '9') {
        code = code * 10 + (header[at] - '0');
        ++at;
        ++digits;
    }
    return digits == 0 ? SWG_E_HTTP_NO_STATUS_CODE : code;
}

int GetHostAndRequestFromURL(std::string url, std::string& host, std::string& request) {
    host.clear();
    request.clear();
    if (url.empty()) return SWG_E_HTTP_BAD_URL;
    const std::size_t scheme = url.find("//");
    if (scheme != std::string::npos) url.erase(0, scheme + 2);
    const std::size_t slash = url.find('/');
    if (slash == std::string::npos || slash == 0) return SWG_E_HTTP_BAD_URL;
    host = url.substr(0, slash);
    request = url.substr(slash + 1);
    return 0;
}

std::string ExtractDomainFromUrl(const std::string& url) {
    std::string domain = LowerAscii(url);
    EraseAll(domain, "http://");
    EraseAll(domain, "https://");
    EraseAll(domain, "www.");
    CutAtFirstOf(domain, '/');
    CutAtFirstOf(domain, ':');
    CutAtFirstOf(domain, '?');
    return domain;
}

bool GetEtagFromHTTPHeaders(const std::string& headers, std::string& etag) {
    static const std::string kName = "etag:";
    etag.clear();
    std::size_t start = 0;
    while (start < headers.size()) {
        std::size_t end = headers.find('\n', start);
        if (end == std::string::npos) end = headers.size();
        std::string line = headers.substr(start, end - start);
        if (line.size() >= kName.size() && LowerAscii(line.substr(0, kName.size())) == kName) {
            etag = line.substr(kName.size());
            StringTrim(etag, " \t\r");
            return true;
        }
        start = end + 1;
    }
    return false;
}

std::string GetHTTPStatusCodeDef(int statusCode) {
    struct Reason {
        int code;
        const char* text;
    };
    static const Reason kReasons[] = {
        {100, "Continue"},
        {101, "Switching Protocols"},
        {200, "OK"},
        {201, "Created"},
        {202, "Accepted"},
        {203, "Non-Authoritative Information"},
        {204, "No Content"},
        {205, "Reset Content"},
        {206, "Partial Content"},
        {300, "Multiple Choices"},
        {301, "Moved Permanently"},
        {302, "Found"},
        {303, "See Other"},
        {304, "Not Modified"},
        {305, "Use Proxy"},
        {307, "Temporary Redirect"},
        {308, "Permanent Redirect"},
        {400, "Bad Request"},
        {401, "Unauthorized"},
        {402, "Payment Required"},
        {403, "Forbidden"},
        {404, "Not Found"},
        {405, "Method Not Allowed"},
        {406, "Not Acceptable"},
        {407, "Proxy Authentication Required"},
        {408, "Request Timeout"},
        {409, "Conflict"},
        {410, "Gone"},
        {411, "Length Required"},
        {412, "Precondition Failed"},
        {413, "Content Too Large"},
        {414, "URI Too Long"},
        {415, "Unsupported Media Type"},
        {416, "Range Not Satisfiable"},
        {417, "Expectation Failed"},
        {421, "Misdirected Request"},
        {422, "Unprocessable Content"},
        {426, "Upgrade Required"},
        {428, "Precondition Required"},
        {429, "Too Many Requests"},
        {431, "Request Header Fields Too Large"},
        {451, "Unavailable For Legal Reasons"},
        {500, "Internal Server Error"},
        {501, "Not Implemented"},
        {502, "Bad Gateway"},
        {503, "Service Unavailable"},
        {504, "Gateway Timeout"},
        {505, "HTTP Version Not Supported"},
        {511, "Network Authentication Required"},
    };
    for (const Reason& reason : kReasons) {
        if (reason.code == statusCode) return reason.text;
    }
    return "Unknown";
}

// ---- Bounded C strings

int memcpy_s(void* dest, std::size_t destSize, const void* src, std::size_t count) {
    if (dest == nullptr) return EINVAL;
    if (src == nullptr) {
        std::memset(dest, 0, destSize);
        return EINVAL;
    }
    if (count > destSize) {
        std::memset(dest, 0, destSize);
        return ERANGE;
    }
    std::memmove(dest, src, count);
    return 0;
}

int strcpy_s(char* dest, std::size_t destSize, const char* src) {
    if (dest == nullptr || destSize == 0) return EINVAL;
    if (src == nullptr) {
        dest[0] = '\0';
        return EINVAL;
    }
    const std::size_t length = strnlen(src, destSize);
    if (length >= destSize) {
        dest[0] = '\0';
        return ERANGE;
    }
    std::memcpy(dest, src, length + 1);
    return 0;
}

std::size_t strnlen_s(const char* text, std::size_t maxLength) {
    return text == nullptr ? 0 : strnlen(text, maxLength);
}

std::size_t safe_strlcpyA(char* dest, const char* src, std::size_t size) {
    if (dest == nullptr || src == nullptr) return 0;
    const std::size_t length = std::strlen(src);
    if (size > 0) {
        const std::size_t copy = length < size ? length : size - 1;
        std::memmove(dest, src, copy);
        dest[copy] = '\0';
    }
    return length;
}

std::size_t safe_strlcatA(char* dest, const char* src, std::size_t size) {
    if (dest == nullptr || src == nullptr) return 0;
    const std::size_t used = strnlen(dest, size);
    // No terminator within `size`: nothing can be appended safely.
    if (used == size) return size + std::strlen(src);
    return used + safe_strlcpyA(dest + used, src, size - used);
}

std::size_t safe_strnlenA(const char* text, std::size_t maxLength) {
    return text == nullptr ? 0 : strnlen(text, maxLength);
}

int safe_vsnprintfA(char* buffer, std::size_t size, const char* format, va_list args) {
    if (buffer == nullptr || size == 0) return -1;
    if (format == nullptr) {
        buffer[0] = '\0';
        return -1;
    }
    const int wanted = std::vsnprintf(buffer, size, format, args);
    if (wanted < 0) {
        buffer[0] = '\0';
        return -1;
    }
    const std::size_t wantedSize = static_cast<std::size_t>(wanted);
    return static_cast<int>(wantedSize < size ? wantedSize : size - 1);
}

int safe_snprintfA(char* buffer, std::size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = safe_vsnprintfA(buffer, size, format, args);
    va_end(args);
    return result;
}

namespace {
// strerror_r is the GNU form (returning char*) under glibc with _GNU_SOURCE and the XSI
// form (returning int) elsewhere; these pick the text out of either.
[[maybe_unused]] const char* StrerrorText(const char* result, const char* /*buffer*/) {
    return result;
}
[[maybe_unused]] const char* StrerrorText(int /*result*/, const char* buffer) { return buffer; }
}  // namespace

std::string ErrnoText(int error) {
    char buffer[256] = {};
    return StrerrorText(strerror_r(error, buffer, sizeof(buffer)), buffer);
}
