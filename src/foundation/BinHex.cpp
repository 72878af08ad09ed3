// SPDX-License-Identifier: Apache-2.0
// CBinHex: bytes to hexadecimal text and back.
#include "foundation/BinHex.h"

#include <climits>

#include "foundation/AppLog.h"
#include "foundation/GlobalConst.h"

long CBinHex::bin2hex(const unsigned char* in, unsigned int length, char* out,
                      unsigned int& outLength) {
    if (in == nullptr || length > (UINT_MAX - 1) / 2) return SWG_E_MODULE_INVALID_ARG;
    const unsigned int size = length * 2 + 1;
    if (out == nullptr) {
        outLength = size;
        return 0;
    }
    if (outLength < size) return SWG_E_MODULE_INVALID_ARG;
    static const char kDigits[] = "0123456789ABCDEF";  // the digits of "%.2X"
    for (unsigned int i = 0; i < length; ++i) {
        out[2 * i] = kDigits[in[i] >> 4];
        out[2 * i + 1] = kDigits[in[i] & 0x0F];
    }
    out[2 * length] = '\0';
    outLength = size;
    return 0;
}

long CBinHex::hex2bin(const char* in, unsigned int length, unsigned char* out,
                      unsigned int& outLength) {
    if (length % 2 != 0 || outLength < length / 2) return SWG_E_MODULE_INVALID_ARG;
    if (in == nullptr) return SWG_E_MODULE_INVALID_ARG;
    if (out == nullptr) {
        outLength = length / 2;
        return 0;
    }
    for (unsigned int i = 0; i < length; i += 2) {
        unsigned char high = 0;
        unsigned char low = 0;
        long result = hexCharToInt(in[i], high);
        if (result == 0) result = hexCharToInt(in[i + 1], low);
        if (result != 0) {
            CAppLog::LogReturnCode(__func__, __FILE__, __LINE__, Logging::kImportanceError,
                                   "CBinHex::hexCharToInt", result, nullptr,
                                   "Not a hexadecimal digit in the pair at offset %u", i);
            return result;
        }
        out[i / 2] = static_cast<unsigned char>(high << 4 | low);
    }
    outLength = length / 2;
    return 0;
}

long CBinHex::hexCharToInt(char digit, unsigned char& value) {
    value = 0;
    if (digit >= '0' && digit <= '9') {
        value = static_cast<unsigned char>(digit - '0');
    } else if (digit >= 'a' && digit <= 'f') {
        value = static_cast<unsigned char>(digit - 'a' + 10);
    } else if (digit >= 'A' && digit <= 'F') {
        value = static_cast<unsigned char>(digit - 'A' + 10);
    } else {
        return SWG_E_MODULE_INVALID_ARG;
    }
    return 0;
}
