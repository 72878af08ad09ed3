// SPDX-License-Identifier: Apache-2.0
// CObfuscationMgr: run-time keys held only in memory, and the protected block they make.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>

// OpenSSL's own types, declared here so that users of this header need no OpenSSL header.
struct evp_cipher_ctx_st;
struct evp_pkey_st;

// Result codes of the key manager.
constexpr long OBF_E_INVALIDARG = 0xFE730002L;        // bad argument or malformed block
constexpr long OBF_E_KEY_NO_MEMORY = 0xFE730004L;     // out of memory in key generation
constexpr long OBF_E_NO_INSTANCE = 0xFE730005L;       // no singleton to acquire
constexpr long OBF_E_BUFFER_TOO_SMALL = 0xFE730006L;  // the needed size has been stored
constexpr long OBF_E_NO_CONTEXT = 0xFE730007L;        // no cipher context or no RSA key
constexpr long OBF_E_INSTANCE_EXISTS = 0xFE730008L;   // the singleton already exists
constexpr long OBF_E_OPENSSL = 0xFE73000AL;           // an OpenSSL operation failed
constexpr long OBF_E_NO_PRIVATE_KEY = 0xFE73000BL;
constexpr long OBF_E_NO_SUCH_KEY = 0xFE73000CL;
constexpr long OBF_E_KEY_HELD = 0xFE73000DL;  // the key reference is already held

// A key reference that names no key; where a reference is looked up it means the newest.
constexpr std::uint32_t kNewestKeyRef = 0xFFFFFFFFU;

// One AES-256 key: its reference, then the raw key. Allocated as one 36-byte block and
// zeroed before it is freed.
struct KeyData {
    std::uint32_t keyRef;
    unsigned char key[32];
};
static_assert(sizeof(KeyData) == 36, "KeyData is sent whole under RSA");

// The head of a protected block. The cipher text follows at once (offset 28): bufferLength
// bytes of room, of which the first dataLength are used. The block is its own serialised
// form (host byte order, copied as it is) and means something only to the run that made it.
struct ObfuscatedData {
    std::uint32_t keyRef;        // the KeyData that made it
    std::uint32_t bufferLength;  // plain length + 16 (one cipher block)
    std::uint32_t dataLength;    // cipher bytes written
    unsigned char iv[16];        // zero: the cipher has no vector
};
static_assert(sizeof(ObfuscatedData) == 28, "the cipher text starts at offset 28");

// Holds an RSA pair (or a public key alone), one cipher context and a list of symmetric keys,
// the newest of which protects. Not thread-safe: one thread at a time, which
// CSingletonObfuscationMgr provides with its lock. Failures are logged through CAppLog and
// reported by code.
class CObfuscationMgr {
public:
    // Initialises OpenSSL, takes `publicKey` (`length` bytes of DER SubjectPublicKeyInfo) when
    // both are set, otherwise makes a new 2048-bit pair, then creates the cipher context.
    // `result` gets 0 or the code of the step that failed (logged). `reserved` is not used.
    CObfuscationMgr(long& result, const unsigned char* publicKey, unsigned int length,
                    bool reserved);
    // Wipes every key, then frees the cipher context and the RSA key.
    virtual ~CObfuscationMgr();
    CObfuscationMgr(const CObfuscationMgr&) = delete;
    CObfuscationMgr& operator=(const CObfuscationMgr&) = delete;

    // Replaces the RSA key by a new 2048-bit pair with exponent 65537. 0 or OBF_E_OPENSSL.
    long GenerateNewKeyPair();
    // Replaces the RSA key by `key` (DER SubjectPublicKeyInfo of an RSA key); afterwards there
    // is no private key. 0, OBF_E_INVALIDARG for a null, empty or unreadable key.
    long SetPublicKey(const unsigned char* key, unsigned int length);
    // Writes the public key as DER SubjectPublicKeyInfo. A null `out` or too small a `length`
    // stores the size and gives OBF_E_BUFFER_TOO_SMALL; OBF_E_NO_CONTEXT without a key.
    long GetPublicKey(unsigned char* out, unsigned int& length) const;

    // RSA with PKCS#1 v1.5 padding. `outLength` must be the RSA size in bytes; otherwise (or
    // with a null `out`) it is set to that size and OBF_E_BUFFER_TOO_SMALL is returned. On
    // success `outLength` is the length written. OBF_E_NO_CONTEXT without a key,
    // OBF_E_NO_PRIVATE_KEY for a decryption without one, OBF_E_OPENSSL on a failure.
    long PublicEncrypt(const unsigned char* in, unsigned int length, unsigned char* out,
                       unsigned int& outLength);
    long PrivateDecrypt(const unsigned char* in, unsigned int length, unsigned char* out,
                        unsigned int& outLength);

    // Makes a random key under a new reference (never kNewestKeyRef, never one held) and adds
    // it as the newest; `ref` gets it. OBF_E_OPENSSL when the random generator fails,
    // OBF_E_KEY_NO_MEMORY when the key cannot be stored.
    long GenerateSymmetricKey(std::uint32_t& ref);
    // PublicEncrypt of the whole KeyData of `ref`. OBF_E_NO_SUCH_KEY if unknown.
    long GetEncrKeyData(unsigned char* out, unsigned int& length, std::uint32_t ref);
    // Adds the key that GetEncrKeyData of a manager holding our public key made. `ref` gets
    // its reference, or kNewestKeyRef on failure: OBF_E_INVALIDARG for null or empty input or
    // a result shorter than a KeyData, OBF_E_NO_PRIVATE_KEY, OBF_E_KEY_HELD.
    long AddEncrSymmetricKey(const unsigned char* in, unsigned int length, std::uint32_t& ref);
    // Wipes and forgets the key `ref`; an active key gives way to the newest. 0 or
    // OBF_E_NO_SUCH_KEY.
    long RemoveSymmetricKey(std::uint32_t ref);
    // Wipes and forgets every key.
    void DeleteSymmetricKeys();
    // Makes `ref` the key that protects; kNewestKeyRef means the newest. OBF_E_NO_SUCH_KEY for
    // a reference not held.
    long SetActiveSymmetricKey(std::uint32_t ref);

    // Protects `length` bytes into a new block (free it with FreeObfuscatedData). AES-256 in
    // ECB mode with PKCS#7 padding: equal plain texts under one key give equal blocks.
    // OBF_E_INVALIDARG for null or empty input, OBF_E_NO_CONTEXT, OBF_E_NO_SUCH_KEY when no key
    // is active, OBF_E_OPENSSL.
    long SymmetricEncrypt(const unsigned char* in, unsigned int length, ObfuscatedData*& out);
    // Recovers the plain text of `block` into `out`, which needs dataLength + 16 bytes; a null
    // `out` or a smaller `length` stores that size and gives OBF_E_BUFFER_TOO_SMALL. On
    // success `length` is the plain length. OBF_E_INVALIDARG for a null block or one whose
    // data length exceeds its buffer, OBF_E_NO_SUCH_KEY for a key not held (a block of an
    // earlier run), OBF_E_OPENSSL for a cipher text that does not decrypt.
    long SymmetricDecrypt(const ObfuscatedData* block, unsigned char* out, unsigned int& length);

    // Copies `block` out (28 + bufferLength bytes). A null `out` or too small a `length`
    // stores the size and gives OBF_E_BUFFER_TOO_SMALL; a null block gives OBF_E_INVALIDARG.
    static long SerializeObfuscatedData(const ObfuscatedData* block, unsigned int& length,
                                        unsigned char* out);
    // Copies a serialised block of `length` bytes into a new block. OBF_E_BUFFER_TOO_SMALL
    // (and nothing made) when `length` is below the head or below the size the head gives;
    // OBF_E_INVALIDARG for null input; the key reference is not looked at here.
    static long DeserializeToObfuscatedData(const unsigned char* in, unsigned int length,
                                            ObfuscatedData*& out);
    // Frees a block; null is ignored. Cipher text only, so no wipe.
    static void FreeObfuscatedData(ObfuscatedData* block);
    // The cipher text that follows the head.
    static unsigned char* CipherText(ObfuscatedData* block);
    static const unsigned char* CipherText(const ObfuscatedData* block);

private:
    KeyData* findKey(std::uint32_t ref) const;
    bool holdsKey(std::uint32_t ref) const;
    long generateUniqueKeyRef(std::uint32_t& ref);
    long rsaCrypt(bool encrypt, const unsigned char* in, unsigned int length, unsigned char* out,
                  unsigned int& outLength);
    static void freeSymmetricKey(KeyData* key);

    evp_pkey_st* m_pKeyPair = nullptr;
    evp_cipher_ctx_st* m_pCipherCtx = nullptr;
    bool m_bPrivateKeyAvailable = false;
    std::list<KeyData*> m_keys;  // in order of addition
    std::uint32_t m_activeKeyRef = kNewestKeyRef;
};
