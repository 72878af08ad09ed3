// SPDX-License-Identifier: Apache-2.0
// Run-time keys and protected blocks on OpenSSL 3's EVP interfaces.
#include "foundation/crypto/ObfuscationMgr.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "foundation/AppLog.h"
#include "foundation/GlobalConst.h"
#include "foundation/crypto/OpensslUtility.h"

namespace {
constexpr Logging::DebugImportance kImportanceWarning = 0x57;
constexpr int kRsaBits = 2048;
constexpr unsigned int kCipherBlock = 16;
// EVP lengths are int: plain texts stay well below, with room for the padding block.
constexpr unsigned int kMaxPlainBytes = INT_MAX - 2 * kCipherBlock;

// Logs a failure of `invoked` from the calling function, with the OpenSSL text when there is
// one, and gives `code`.
long LogFailure(const char* caller, int line, const char* invoked, long code,
                bool withOpenSslText) {
    const std::string text = withOpenSslText ? COpensslUtility::GetLastOpenSSLError() : "";
    CAppLog::LogReturnCode(caller, __FILE__, line, Logging::kImportanceError, invoked, code,
                           text.empty() ? nullptr : text.c_str(), "%s failed", invoked);
    return code;
}
#define OBF_FAIL(invoked, code) LogFailure(__func__, __LINE__, invoked, code, false)
#define OBF_FAIL_OPENSSL(invoked) LogFailure(__func__, __LINE__, invoked, OBF_E_OPENSSL, true)

void ResetCipher(EVP_CIPHER_CTX* context) {
    if (EVP_CIPHER_CTX_reset(context) != 1) {
        CAppLog::LogReturnCode(__func__, __FILE__, __LINE__, kImportanceWarning,
                               "EVP_CIPHER_CTX_reset", OBF_E_OPENSSL, nullptr,
                               "The cipher context was not reset");
    }
}
}  // namespace

CObfuscationMgr::CObfuscationMgr(long& result, const unsigned char* publicKey, unsigned int length,
                                 bool /*reserved*/) {
    COpensslUtility::InitOpenSSL(true);
    if (publicKey != nullptr && length != 0) {
        result = SetPublicKey(publicKey, length);
        if (result != 0) (void)OBF_FAIL("SetPublicKey", result);
    } else {
        result = GenerateNewKeyPair();
        if (result != 0) (void)OBF_FAIL("GenerateNewKeyPair", result);
    }
    if (result != 0) return;
    m_pCipherCtx = EVP_CIPHER_CTX_new();
    if (m_pCipherCtx == nullptr) result = OBF_FAIL_OPENSSL("EVP_CIPHER_CTX_new");
}

CObfuscationMgr::~CObfuscationMgr() {
    DeleteSymmetricKeys();
    EVP_CIPHER_CTX_free(m_pCipherCtx);
    EVP_PKEY_free(m_pKeyPair);
}

// ---- RSA -----------------------------------------------------------------------------------

long CObfuscationMgr::GenerateNewKeyPair() {
    EVP_PKEY_free(m_pKeyPair);
    m_pKeyPair = nullptr;
    m_bPrivateKeyAvailable = false;
    // The default public exponent of RSA key generation is 65537.
    m_pKeyPair = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(kRsaBits));
    if (m_pKeyPair == nullptr) return OBF_FAIL_OPENSSL("EVP_PKEY_Q_keygen");
    m_bPrivateKeyAvailable = true;
    return 0;
}

long CObfuscationMgr::SetPublicKey(const unsigned char* key, unsigned int length) {
    if (key == nullptr || length == 0 || length > INT_MAX) return OBF_E_INVALIDARG;
    const unsigned char* cursor = key;
    EVP_PKEY* parsed = d2i_PUBKEY(nullptr, &cursor, static_cast<long>(length));
    if (parsed == nullptr || EVP_PKEY_is_a(parsed, "RSA") != 1) {
        EVP_PKEY_free(parsed);
        (void)OBF_FAIL_OPENSSL("d2i_PUBKEY");
        return OBF_E_INVALIDARG;
    }
    EVP_PKEY_free(m_pKeyPair);
    m_pKeyPair = parsed;
    m_bPrivateKeyAvailable = false;
    return 0;
}

long CObfuscationMgr::GetPublicKey(unsigned char* out, unsigned int& length) const {
    if (m_pKeyPair == nullptr) return OBF_E_NO_CONTEXT;
    const int size = i2d_PUBKEY(m_pKeyPair, nullptr);
    if (size <= 0) return OBF_FAIL_OPENSSL("i2d_PUBKEY");
    if (out == nullptr || length < static_cast<unsigned int>(size)) {
        length = static_cast<unsigned int>(size);
        return OBF_E_BUFFER_TOO_SMALL;
    }
    unsigned char* cursor = out;
    if (i2d_PUBKEY(m_pKeyPair, &cursor) != size) return OBF_FAIL_OPENSSL("i2d_PUBKEY");
    length = static_cast<unsigned int>(size);
    return 0;
}

long CObfuscationMgr::PublicEncrypt(const unsigned char* in, unsigned int length,
                                    unsigned char* out, unsigned int& outLength) {
    return rsaCrypt(true, in, length, out, outLength);
}

long CObfuscationMgr::PrivateDecrypt(const unsigned char* in, unsigned int length,
                                     unsigned char* out, unsigned int& outLength) {
    return rsaCrypt(false, in, length, out, outLength);
}

long CObfuscationMgr::rsaCrypt(bool encrypt, const unsigned char* in, unsigned int length,
                               unsigned char* out, unsigned int& outLength) {
    if (in == nullptr || length == 0) return OBF_E_INVALIDARG;
    if (m_pKeyPair == nullptr) return OBF_E_NO_CONTEXT;
    if (!encrypt && !m_bPrivateKeyAvailable) return OBF_E_NO_PRIVATE_KEY;
    const unsigned int size = static_cast<unsigned int>(EVP_PKEY_get_size(m_pKeyPair));
    if (out == nullptr || outLength != size) {
        outLength = size;
        return OBF_E_BUFFER_TOO_SMALL;
    }
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(m_pKeyPair, nullptr);
    std::size_t written = size;
    bool done = context != nullptr;
    if (encrypt) {
        done = done && EVP_PKEY_encrypt_init(context) == 1 &&
               EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1 &&
               EVP_PKEY_encrypt(context, out, &written, in, length) == 1;
    } else {
        done = done && EVP_PKEY_decrypt_init(context) == 1 &&
               EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1 &&
               EVP_PKEY_decrypt(context, out, &written, in, length) == 1;
    }
    EVP_PKEY_CTX_free(context);
    if (!done) return OBF_FAIL_OPENSSL(encrypt ? "EVP_PKEY_encrypt" : "EVP_PKEY_decrypt");
    outLength = static_cast<unsigned int>(written);
    return 0;
}

// ---- symmetric keys ------------------------------------------------------------------------

KeyData* CObfuscationMgr::findKey(std::uint32_t ref) const {
    if (m_keys.empty()) return nullptr;
    if (ref == kNewestKeyRef) return m_keys.back();
    for (KeyData* key : m_keys) {
        if (key->keyRef == ref) return key;
    }
    return nullptr;
}

bool CObfuscationMgr::holdsKey(std::uint32_t ref) const {
    return ref != kNewestKeyRef && findKey(ref) != nullptr;
}

long CObfuscationMgr::generateUniqueKeyRef(std::uint32_t& ref) {
    do {
        if (RAND_bytes(reinterpret_cast<unsigned char*>(&ref), sizeof(ref)) != 1) {
            return OBF_FAIL_OPENSSL("RAND_pseudo_bytes");
        }
    } while (ref == kNewestKeyRef || holdsKey(ref));
    return 0;
}

long CObfuscationMgr::GenerateSymmetricKey(std::uint32_t& ref) {
    const long result = generateUniqueKeyRef(ref);
    if (result != 0) return result;
    auto* key = static_cast<KeyData*>(std::calloc(1, sizeof(KeyData)));
    if (key == nullptr) return OBF_FAIL("calloc", OBF_E_KEY_NO_MEMORY);
    key->keyRef = ref;
    if (RAND_bytes(key->key, sizeof(key->key)) != 1) {
        freeSymmetricKey(key);
        return OBF_FAIL_OPENSSL("RAND_bytes");
    }
    try {
        m_keys.push_back(key);
    } catch (const std::bad_alloc&) {
        freeSymmetricKey(key);
        return OBF_FAIL("push_back", OBF_E_KEY_NO_MEMORY);
    }
    return 0;
}

long CObfuscationMgr::GetEncrKeyData(unsigned char* out, unsigned int& length, std::uint32_t ref) {
    const KeyData* key = findKey(ref);
    if (key == nullptr) return OBF_E_NO_SUCH_KEY;
    return PublicEncrypt(reinterpret_cast<const unsigned char*>(key), sizeof(KeyData), out, length);
}

long CObfuscationMgr::AddEncrSymmetricKey(const unsigned char* in, unsigned int length,
                                          std::uint32_t& ref) {
    ref = kNewestKeyRef;
    if (in == nullptr || length == 0) return OBF_E_INVALIDARG;
    if (!m_bPrivateKeyAvailable) return OBF_E_NO_PRIVATE_KEY;
    unsigned int size = 0;
    long result = PrivateDecrypt(in, length, nullptr, size);  // learns the RSA size
    if (result != OBF_E_BUFFER_TOO_SMALL) return result;
    auto* block = static_cast<unsigned char*>(std::malloc(size));
    if (block == nullptr) return OBF_FAIL("malloc", OBF_E_KEY_NO_MEMORY);
    result = PrivateDecrypt(in, length, block, size);
    if (result == 0 && size < sizeof(KeyData)) {
        result = OBF_FAIL("PrivateDecrypt", OBF_E_INVALIDARG);
    }
    std::uint32_t found = kNewestKeyRef;
    if (result == 0) {
        std::memcpy(&found, block, sizeof(found));
        if (found == kNewestKeyRef || holdsKey(found)) result = OBF_E_KEY_HELD;
    }
    if (result == 0) {
        // The block becomes the KeyData; bytes after its 36 are not part of the key.
        SecureWipe(block + sizeof(KeyData), size - sizeof(KeyData));
        try {
            m_keys.push_back(reinterpret_cast<KeyData*>(block));
            ref = found;
            return 0;
        } catch (const std::bad_alloc&) {
            result = OBF_E_KEY_NO_MEMORY;
        }
    }
    SecureWipe(block, size);
    std::free(block);
    return result;
}

long CObfuscationMgr::RemoveSymmetricKey(std::uint32_t ref) {
    for (auto it = m_keys.begin(); it != m_keys.end(); ++it) {
        if ((*it)->keyRef != ref) continue;
        freeSymmetricKey(*it);
        m_keys.erase(it);
        if (m_activeKeyRef == ref) m_activeKeyRef = kNewestKeyRef;
        return 0;
    }
    return OBF_E_NO_SUCH_KEY;
}

void CObfuscationMgr::DeleteSymmetricKeys() {
    for (KeyData* key : m_keys) freeSymmetricKey(key);
    m_keys.clear();
    m_activeKeyRef = kNewestKeyRef;
}

long CObfuscationMgr::SetActiveSymmetricKey(std::uint32_t ref) {
    if (ref != kNewestKeyRef && !holdsKey(ref)) return OBF_E_NO_SUCH_KEY;
    m_activeKeyRef = ref;
    return 0;
}

void CObfuscationMgr::freeSymmetricKey(KeyData* key) {
    SecureWipe(key, sizeof(KeyData));
    std::free(key);
}

// ---- protected blocks ----------------------------------------------------------------------

long CObfuscationMgr::SymmetricEncrypt(const unsigned char* in, unsigned int length,
                                       ObfuscatedData*& out) {
    out = nullptr;
    if (in == nullptr || length == 0 || length > kMaxPlainBytes) return OBF_E_INVALIDARG;
    if (m_pCipherCtx == nullptr) return OBF_E_NO_CONTEXT;
    const KeyData* key = findKey(m_activeKeyRef);
    if (key == nullptr) return OBF_E_NO_SUCH_KEY;

    // Zeroed head, so the vector field stays zero: ECB has no vector.
    void* memory = std::calloc(1, sizeof(ObfuscatedData) + length + kCipherBlock);
    if (memory == nullptr) return OBF_FAIL("calloc", SWG_E_OUTOFMEMORY);
    auto* block = new (memory) ObfuscatedData{};
    block->bufferLength = length + kCipherBlock;

    int written = 0;
    int last = 0;
    long result = 0;
    if (EVP_EncryptInit_ex(m_pCipherCtx, EVP_aes_256_ecb(), nullptr, key->key, nullptr) != 1) {
        result = OBF_FAIL_OPENSSL("EVP_EncryptInit_ex");
    } else if (EVP_EncryptUpdate(m_pCipherCtx, CipherText(block), &written, in,
                                 static_cast<int>(length)) != 1) {
        result = OBF_FAIL_OPENSSL("EVP_EncryptUpdate");
    } else if (EVP_EncryptFinal_ex(m_pCipherCtx, CipherText(block) + written, &last) != 1) {
        result = OBF_FAIL_OPENSSL("EVP_EncryptFinal_ex");
    }
    ResetCipher(m_pCipherCtx);
    if (result != 0) {
        FreeObfuscatedData(block);
        return result;
    }
    block->dataLength = static_cast<std::uint32_t>(written + last);
    block->keyRef = key->keyRef;
    out = block;
    return 0;
}

long CObfuscationMgr::SymmetricDecrypt(const ObfuscatedData* block, unsigned char* out,
                                       unsigned int& length) {
    if (block == nullptr) return OBF_E_INVALIDARG;
    if (m_pCipherCtx == nullptr) return OBF_E_NO_CONTEXT;
    // A block from elsewhere may claim more cipher text than it holds.
    if (block->dataLength > block->bufferLength || block->dataLength > kMaxPlainBytes) {
        return OBF_FAIL("SymmetricDecrypt", OBF_E_INVALIDARG);
    }
    const unsigned int needed = block->dataLength + kCipherBlock;
    if (out == nullptr || length < needed) {
        length = needed;
        return OBF_E_BUFFER_TOO_SMALL;
    }
    const KeyData* key = findKey(block->keyRef);
    if (key == nullptr) return OBF_FAIL("findKey", OBF_E_NO_SUCH_KEY);

    int written = 0;
    int last = 0;
    long result = 0;
    if (EVP_DecryptInit_ex(m_pCipherCtx, EVP_aes_256_ecb(), nullptr, key->key, nullptr) != 1) {
        result = OBF_FAIL_OPENSSL("EVP_DecryptInit_ex");
    } else if (EVP_DecryptUpdate(m_pCipherCtx, out, &written, CipherText(block),
                                 static_cast<int>(block->dataLength)) != 1) {
        result = OBF_FAIL_OPENSSL("EVP_DecryptUpdate");
    } else if (EVP_DecryptFinal_ex(m_pCipherCtx, out + written, &last) != 1) {
        result = OBF_FAIL_OPENSSL("EVP_DecryptFinal_ex");
    }
    ResetCipher(m_pCipherCtx);
    if (result != 0) {
        SecureWipe(out, needed);  // a partial plain text must not stay behind
        return result;
    }
    length = static_cast<unsigned int>(written + last);
    return 0;
}

long CObfuscationMgr::SerializeObfuscatedData(const ObfuscatedData* block, unsigned int& length,
                                              unsigned char* out) {
    if (block == nullptr) return OBF_E_INVALIDARG;
    const unsigned long long size = sizeof(ObfuscatedData) + 0ULL + block->bufferLength;
    if (size > UINT_MAX) return OBF_E_INVALIDARG;
    if (out == nullptr || length < size) {
        length = static_cast<unsigned int>(size);
        return OBF_E_BUFFER_TOO_SMALL;
    }
    std::memcpy(out, block, static_cast<std::size_t>(size));
    length = static_cast<unsigned int>(size);
    return 0;
}

long CObfuscationMgr::DeserializeToObfuscatedData(const unsigned char* in, unsigned int length,
                                                  ObfuscatedData*& out) {
    out = nullptr;
    if (in == nullptr) return OBF_E_INVALIDARG;
    if (length < sizeof(ObfuscatedData)) {
        return OBF_FAIL("DeserializeToObfuscatedData", OBF_E_BUFFER_TOO_SMALL);
    }
    ObfuscatedData head;
    std::memcpy(&head, in, sizeof(head));
    const unsigned long long size = sizeof(ObfuscatedData) + 0ULL + head.bufferLength;
    if (length < size) return OBF_FAIL("DeserializeToObfuscatedData", OBF_E_BUFFER_TOO_SMALL);
    void* memory = std::malloc(static_cast<std::size_t>(size));
    if (memory == nullptr) return OBF_FAIL("malloc", SWG_E_OUTOFMEMORY);
    auto* block = new (memory) ObfuscatedData(head);
    std::memcpy(CipherText(block), in + sizeof(ObfuscatedData), head.bufferLength);
    out = block;
    return 0;
}

void CObfuscationMgr::FreeObfuscatedData(ObfuscatedData* block) { std::free(block); }

unsigned char* CObfuscationMgr::CipherText(ObfuscatedData* block) {
    return reinterpret_cast<unsigned char*>(block) + sizeof(ObfuscatedData);
}

const unsigned char* CObfuscationMgr::CipherText(const ObfuscatedData* block) {
    return reinterpret_cast<const unsigned char*>(block) + sizeof(ObfuscatedData);
}
