// SPDX-License-Identifier: Apache-2.0
// OpenSSL set-up, error texts and random keys.
#include "foundation/crypto/OpensslUtility.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "foundation/AppLog.h"
#include "foundation/BinHex.h"
#include "foundation/GlobalConst.h"
#include "foundation/ManualLock.h"

namespace {
CManualLock& OpenSSLLock() {
    // Never destroyed: a thread may still initialise while statics are torn down.
    static CManualLock* lock = new CManualLock;
    return *lock;
}

// Error strings of both libraries. The host's openssl.cnf is left to load as OpenSSL decides:
// on Linux it carries the crypto policy and the FIPS provider's settings, which a
// process-wide "no configuration" would shut out (docs/decisions).
constexpr std::uint64_t kInitOptions =
    OPENSSL_INIT_LOAD_CRYPTO_STRINGS | OPENSSL_INIT_LOAD_SSL_STRINGS;
}  // namespace

void COpensslUtility::InitOpenSSL(bool cryptoOnly) {
    CManualLockHolder hold(OpenSSLLock());
    if (cryptoOnly) {
        (void)OPENSSL_init_crypto(kInitOptions, nullptr);
    } else {
        (void)OPENSSL_init_ssl(kInitOptions, nullptr);
    }
}

long COpensslUtility::GetLastOpenSSLError(unsigned long& code, char* text, unsigned long size) {
    if (text == nullptr || size == 0) return OSSLU_E_INVALIDARG;
    code = 0;
    std::strncpy(text, "unknown", size - 1);
    text[size - 1] = '\0';
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
        code = error;
        ERR_error_string_n(error, text, size);
    }
    return 0;
}

std::string COpensslUtility::GetLastOpenSSLError() {
    const unsigned long error = ERR_get_error();
    ERR_clear_error();
    if (error == 0) return std::string();
    char text[256];
    ERR_error_string_n(error, text, sizeof(text));
    return text;
}

long COpensslUtility::GenerateKey(char* out, unsigned int size, unsigned int bytes) {
    if (out == nullptr || static_cast<unsigned long long>(size) < bytes * 2ULL + 1) {
        return OSSLU_E_INVALIDARG;
    }
    std::unique_ptr<unsigned char[]> raw(new (std::nothrow) unsigned char[bytes + 1]);
    if (!raw) return SWG_E_OUTOFMEMORY;
    long result = 0;
    if (RAND_bytes(raw.get(), static_cast<int>(bytes)) != 1) {
        CAppLog::LogReturnCode(__func__, __FILE__, __LINE__, Logging::kImportanceError,
                               "RAND_bytes", OSSLU_E_OPENSSL, GetLastOpenSSLError().c_str(),
                               "No random bytes for a key of %u bytes", bytes);
        result = OSSLU_E_OPENSSL;
    } else {
        unsigned int outLength = size;
        result = CBinHex::bin2hex(raw.get(), bytes, out, outLength);
    }
    SecureWipe(raw.get(), bytes);
    return result;
}

void SecureWipe(void* data, std::size_t length) {
    if (data != nullptr && length != 0) OPENSSL_cleanse(data, length);
}
