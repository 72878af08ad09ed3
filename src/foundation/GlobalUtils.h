// SPDX-License-Identifier: Apache-2.0
// Free helpers on strings, paths, addresses, HTTP text and bounded C strings.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdarg>
#include <cstddef>
#include <string>
#include <vector>

// ---- Strings

// 0 when the texts are equal with ASCII letters folded to lower case; -1 at once when
// their lengths differ; otherwise -1 or 1 by the first differing folded byte.
int StringNocaseCompare(const std::string& a, const std::string& b);

// Remove every character of `chars` from both ends, the front or the back of `text`.
void StringTrim(std::string& text, const std::string& chars);
void StringTrimLeft(std::string& text, const std::string& chars);
void StringTrimRight(std::string& text, const std::string& chars);

// Whether `text` matches `pattern`, where each "*" stands for any run of characters
// (also none). Case-sensitive. Never throws.
bool compareWithWildStr(const std::string& text, const std::string& pattern);

// ---- Paths and files

// `dir` and `name` joined with exactly one `separator` between them (separators at the
// end of `dir` and the start of `name` are merged). An empty side gives the other one.
std::string ConcatenatePath(const std::string& dir, const std::string& name, std::string separator);

// Directory of the running program (OwnExecutablePath), without a trailing "/";
// "" when it cannot be read.
std::string GetExecutableDirectory();

// Sets `path` to the all-users data folder: the value of SWG_DATA_ROOT when that is
// set and not empty, else "/opt". Returns true.
bool GetAllUsersAppDataPath(std::string& path);

// Sets `path` to "/tmp". Returns 0.
long GetTempFolderPath(std::string& path);

// Whether something exists at `path` (stat succeeds; a directory counts).
bool DoesFileExist(const std::string& path);

// ---- Hexadecimal

// A new zero-terminated text of two upper-case hexadecimal digits per byte, owned by
// the caller (free with delete[]). Null for a null `data`, a negative `length`, or no
// memory.
char* HexEncode(const unsigned char* data, int length);

// Decodes `length` hexadecimal digits (either case) at `text` into `out` (replaced).
// Returns false, leaving `out` empty, for a null `text`, a negative or odd `length`,
// or a character that is not a digit.
bool HexDecode(const unsigned char* text, int length, std::vector<unsigned char>& out);

// ---- Addresses

// True when inet_addr accepts `text` (so also "1" or "10.1") and the address is neither
// 0.0.0.0 nor 255.255.255.255. `value`, if given, gets the address in host byte order,
// or 0 when the result is false.
bool IsIPAddress(const std::string& text, unsigned int* value = nullptr);

// True for an IPv6 address literal (inet_pton), without brackets or zone.
bool IsIPv6Address(const std::string& text);

// True for a dotted-quad IPv4 literal or an IPv6 literal (inet_pton of either family),
// including 0.0.0.0 and "::".
bool IsIPv4orIPv6Address(const std::string& text);

// True for what IsIPAddress accepts, for the IPv4 any address 0.0.0.0 (and its short
// forms such as "0"), and for any IPv6 literal including "::". 255.255.255.255 is false.
bool IsValidOrAnyIPAddress(const std::string& text);

// Text form of an address (inet_ntop): "192.0.2.1", "2001:db8::1".
std::string InaddrToAddress(const in_addr& address);
std::string Inaddr6ToAddress(const in6_addr& address);
// Text form of the address in an AF_INET or AF_INET6 socket address; "" for null or
// another family. The port is not included.
std::string SockaddrToAddress(const sockaddr* address);

// ---- HTTP text

// The status code of a status line such as "HTTP/1.1 302 Found": within the first 20
// bytes (fewer if `length` is smaller), the digits after the first space. Returns 30002
// when there is no text, no space or no digit.
int GetStatusCodeFromHTTPHeader(const char* header, int length);

// Strips `url` up to and including "//", then splits at the first "/": `host` before
// it, `request` after it (without the "/"). Returns 0; 30004 for an empty `url`, or when
// no host comes out (no "/" after the host, or an empty host), both outputs then empty.
int GetHostAndRequestFromURL(std::string url, std::string& host, std::string& request);

// Bare domain of a URL or Location value: lower case, every "http://", "https://" and
// "www." removed, then cut at the first "/", ":" and "?". Never fails.
std::string ExtractDomainFromUrl(const std::string& url);

// Finds the ETag header in a header block (name in any case) and sets `etag` to its
// value, trimmed of blanks and CR, quotes kept. Returns false, `etag` empty, if absent.
bool GetEtagFromHTTPHeaders(const std::string& headers, std::string& etag);

// Reason phrase of an HTTP status code ("OK", "Found", ...); "Unknown" otherwise.
std::string GetHTTPStatusCodeDef(int statusCode);

// ---- Bounded C strings
// Missing in glibc. Results follow the bounds-checked C library: 0, EINVAL for a null
// pointer or zero size, ERANGE when the source does not fit (the destination is then
// emptied or zeroed).
int memcpy_s(void* dest, std::size_t destSize, const void* src, std::size_t count);
int strcpy_s(char* dest, std::size_t destSize, const char* src);
// Length of `text` up to `maxLength`; 0 for null.
std::size_t strnlen_s(const char* text, std::size_t maxLength);

// The text of the errno value `error`, as strerror gives it, through strerror_r so that any
// thread may call it.
std::string ErrnoText(int error);

// strlcpy and strlcat: always zero-terminated within `size` (when size > 0), truncated
// to fit. Return the length they tried to create; 0 for null pointers.
std::size_t safe_strlcpyA(char* dest, const char* src, std::size_t size);
std::size_t safe_strlcatA(char* dest, const char* src, std::size_t size);
// Length of `text` up to `maxLength`; 0 for null.
std::size_t safe_strnlenA(const char* text, std::size_t maxLength);
// vsnprintf that truncates: the output is zero-terminated within `size`. Returns the
// number of characters stored, or -1 for a null buffer, zero size, null format or an
// encoding error (the buffer then holds "" when it can).
int safe_vsnprintfA(char* buffer, std::size_t size, const char* format, va_list args);
int safe_snprintfA(char* buffer, std::size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
