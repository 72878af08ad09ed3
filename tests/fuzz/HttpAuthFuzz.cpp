// SPDX-License-Identifier: Apache-2.0
// libFuzzer target: CHttpAuth's readers of a proxy's answer on arbitrary text. The first
// input byte picks the attribute name and index; the input, up to its first zero byte, is the
// text each reader gets, as a proxy's line reaches them.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "upstream/HttpAuth.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* const kNames[] = {"Proxy-Authenticate:", "realm=", "Basic", ""};
    const std::string text(reinterpret_cast<const char*>(data), size);
    const unsigned int pick = size > 0 ? data[0] : 0;
    long result = 0;
    CHttpAuth auth(result);

    CHttpAuth::tagHttpHeader header{};
    (void)auth.ParseHeaderRespCode(&header, text.c_str());
    CHttpAuth::EAuthType type = CHttpAuth::AUTH_TYPE_BASIC;
    const long scheme = auth.ValidateAuthenticationMethods(type, text.c_str());
    if (scheme == 0 && type != CHttpAuth::AUTH_TYPE_BASIC) __builtin_trap();
    std::string realm;
    if (auth.ParseHeaderBasicAuthRealm(realm, text.c_str()) == 0 && realm.size() >= size) {
        __builtin_trap();
    }
    (void)auth.ParseHeaderAttribute(&header, text.c_str(), kNames[pick % 4], pick / 4 % 4);
    // The attribute always ends within its buffer.
    if (std::memchr(header.attribute, '\0', sizeof(header.attribute)) == nullptr) __builtin_trap();
    return 0;
}
