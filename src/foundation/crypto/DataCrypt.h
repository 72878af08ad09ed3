// SPDX-License-Identifier: Apache-2.0
// CDataCrypt: bytes and texts to protected blocks and back, with the process's key manager.
#pragma once

#include <cstdint>

#include "foundation/crypto/SingletonObfuscationMgr.h"

constexpr long DC_E_INVALIDARG = 0xFE140002L;        // null or empty input
constexpr long DC_E_BUFFER_TOO_SMALL = 0xFE140006L;  // the needed size has been stored

// Turns plain bytes into an opaque protected block (the serialised ObfuscatedData) and back.
// A block means something only to the run that made it. Blocks from the `...Alloc` operations
// carry a 32-bit length word in front of the returned pointer; give them back to CryptMemFree.
// Lengths are in bytes, also for the wide-character forms. Any thread may call; failures are
// logged through CAppLog and reported by code.
class IDataCrypt {
public:
    virtual ~IDataCrypt() = default;

    // Protects `length` bytes into `out` (`outLength` bytes). When the block does not fit, or
    // `out` is null, stores its size in `outLength` and gives DC_E_BUFFER_TOO_SMALL: that is
    // how a caller learns the size. DC_E_INVALIDARG for null or empty input.
    virtual long EncryptData(const unsigned char* in, unsigned int length, unsigned char* out,
                             unsigned int& outLength) = 0;
    // Protects `length` bytes into a new block. On failure both outputs are cleared.
    virtual long EncryptDataAlloc(const unsigned char* in, unsigned int length, unsigned char*& out,
                                  unsigned int& outLength) = 0;
    // The text with its terminating zero, as EncryptData and EncryptDataAlloc do.
    virtual long EncryptString(const char* text, unsigned char* out, unsigned int& outLength) = 0;
    virtual long EncryptString(const wchar_t* text, unsigned char* out,
                               unsigned int& outLength) = 0;
    virtual long EncryptStringAlloc(const char* text, unsigned char*& out,
                                    unsigned int& outLength) = 0;
    virtual long EncryptStringAlloc(const wchar_t* text, unsigned char*& out,
                                    unsigned int& outLength) = 0;

    // Recovers the plain bytes of a block of `length` bytes into `out` (`outLength` bytes).
    // Too small a buffer (or null) stores the size needed and gives DC_E_BUFFER_TOO_SMALL. A
    // malformed block gives the key manager's code: OBF_E_BUFFER_TOO_SMALL when truncated,
    // OBF_E_INVALIDARG when its lengths disagree, OBF_E_NO_SUCH_KEY for another run's block.
    virtual long DecryptData(const unsigned char* in, unsigned int length, unsigned char* out,
                             unsigned int& outLength) = 0;
    // The same into a new block (free it with CryptMemFree, wiping).
    virtual long DecryptDataAlloc(const unsigned char* in, unsigned int length, unsigned char*& out,
                                  unsigned int& outLength) = 0;
    virtual long DecryptString(const unsigned char* in, unsigned int length, char* out,
                               unsigned int& outLength) = 0;
    virtual long DecryptString(const unsigned char* in, unsigned int length, wchar_t* out,
                               unsigned int& outLength) = 0;
    virtual long DecryptStringAlloc(const unsigned char* in, unsigned int length, char*& out,
                                    unsigned int& outLength) = 0;
    virtual long DecryptStringAlloc(const unsigned char* in, unsigned int length, wchar_t*& out,
                                    unsigned int& outLength) = 0;

    // Frees a block of an `...Alloc` operation, first overwriting its bytes with zeros when
    // `wipe` is set. Null is ignored. Always 0.
    virtual long CryptMemFree(void* block, bool wipe) = 0;
    // Deletes this object.
    virtual void DestroyDataCrypt() = 0;
};

// The implementation on CSingletonObfuscationMgr, which must exist before any CDataCrypt: each
// object holds one reference to it.
class CDataCrypt : public IDataCrypt {
public:
    // Acquires the key manager. `result` gets 0, or OBF_E_NO_INSTANCE (logged) when there is
    // none; such an object fails every operation with that code.
    explicit CDataCrypt(long& result);
    // Makes an object in `out`; on failure destroys it, leaves `out` null and gives the code.
    static long CreateDataCrypt(IDataCrypt*& out);

    long EncryptData(const unsigned char* in, unsigned int length, unsigned char* out,
                     unsigned int& outLength) override;
    long EncryptDataAlloc(const unsigned char* in, unsigned int length, unsigned char*& out,
                          unsigned int& outLength) override;
    long EncryptString(const char* text, unsigned char* out, unsigned int& outLength) override;
    long EncryptString(const wchar_t* text, unsigned char* out, unsigned int& outLength) override;
    long EncryptStringAlloc(const char* text, unsigned char*& out,
                            unsigned int& outLength) override;
    long EncryptStringAlloc(const wchar_t* text, unsigned char*& out,
                            unsigned int& outLength) override;
    long DecryptData(const unsigned char* in, unsigned int length, unsigned char* out,
                     unsigned int& outLength) override;
    long DecryptDataAlloc(const unsigned char* in, unsigned int length, unsigned char*& out,
                          unsigned int& outLength) override;
    long DecryptString(const unsigned char* in, unsigned int length, char* out,
                       unsigned int& outLength) override;
    long DecryptString(const unsigned char* in, unsigned int length, wchar_t* out,
                       unsigned int& outLength) override;
    long DecryptStringAlloc(const unsigned char* in, unsigned int length, char*& out,
                            unsigned int& outLength) override;
    long DecryptStringAlloc(const unsigned char* in, unsigned int length, wchar_t*& out,
                            unsigned int& outLength) override;
    long CryptMemFree(void* block, bool wipe) override;
    void DestroyDataCrypt() override;

private:
    CInstanceSmartPtr<CSingletonObfuscationMgr> m_manager;
};
