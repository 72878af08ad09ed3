// SPDX-License-Identifier: Apache-2.0
// Protected blocks for callers: sizes, allocation with a length word, and wiping.
#include "foundation/crypto/DataCrypt.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>

#include "foundation/AppLog.h"
#include "foundation/GlobalConst.h"
#include "foundation/crypto/OpensslUtility.h"

namespace {
constexpr std::size_t kLengthWord = sizeof(std::uint32_t);

// A block of `size` bytes behind a length word holding `size`; the pointer after the word.
unsigned char* AllocWithLengthWord(unsigned int size) {
    auto* memory = static_cast<unsigned char*>(std::malloc(kLengthWord + size));
    if (memory == nullptr) return nullptr;
    const std::uint32_t word = size;
    std::memcpy(memory, &word, kLengthWord);
    return memory + kLengthWord;
}

void SetLengthWord(unsigned char* block, unsigned int size) {
    const std::uint32_t word = size;
    std::memcpy(block - kLengthWord, &word, kLengthWord);
}

long LogFailure(const char* caller, int line, const char* invoked, long code) {
    CAppLog::LogReturnCode(caller, __FILE__, line, Logging::kImportanceError, invoked, code,
                           nullptr, "%s failed", invoked);
    return code;
}
#define DC_FAIL(invoked, code) LogFailure(__func__, __LINE__, invoked, code)
}  // namespace

CDataCrypt::CDataCrypt(long& result) : m_manager(CSingletonObfuscationMgr::acquireInstance()) {
    result = 0;
    if (!m_manager) {
        CAppLog::LogReturnCode(__func__, __FILE__, __LINE__, Logging::kImportanceError,
                               "CSingletonObfuscationMgr::acquireInstance", OBF_E_NO_INSTANCE,
                               nullptr, "CSingletonObfuscationMgr::acquireInstance returned NULL");
        result = OBF_E_NO_INSTANCE;
    }
}

long CDataCrypt::CreateDataCrypt(IDataCrypt*& out) {
    out = nullptr;
    long result = 0;
    auto* made = new (std::nothrow) CDataCrypt(result);
    if (made == nullptr) return SWG_E_OUTOFMEMORY;
    if (result != 0) {
        made->DestroyDataCrypt();
        return result;
    }
    out = made;
    return 0;
}

void CDataCrypt::DestroyDataCrypt() { delete this; }

// ---- protect -------------------------------------------------------------------------------

long CDataCrypt::EncryptDataAlloc(const unsigned char* in, unsigned int length, unsigned char*& out,
                                  unsigned int& outLength) {
    out = nullptr;
    outLength = 0;
    if (in == nullptr || length == 0) return DC_E_INVALIDARG;
    if (!m_manager) return OBF_E_NO_INSTANCE;
    ObfuscatedData* block = nullptr;
    long result = m_manager->SymmetricEncrypt(in, length, block);
    if (result != 0) return DC_FAIL("CSingletonObfuscationMgr::SymmetricEncrypt", result);

    unsigned int size = 0;
    result = CSingletonObfuscationMgr::SerializeObfuscatedData(block, size, nullptr);
    unsigned char* made = nullptr;
    if (result == OBF_E_BUFFER_TOO_SMALL) {
        made = AllocWithLengthWord(size);
        result = made == nullptr
                     ? SWG_E_OUTOFMEMORY
                     : CSingletonObfuscationMgr::SerializeObfuscatedData(block, size, made);
    } else if (result == 0) {
        result = SWG_E_FAIL;  // an empty buffer cannot hold a block
    }
    CSingletonObfuscationMgr::FreeObfuscatedData(block);
    if (result != 0) {
        (void)CryptMemFree(made, false);
        return DC_FAIL("CObfuscationMgr::SerializeObfuscatedData", result);
    }
    out = made;
    outLength = size;
    return 0;
}

long CDataCrypt::EncryptData(const unsigned char* in, unsigned int length, unsigned char* out,
                             unsigned int& outLength) {
    if (out == nullptr) outLength = 0;
    unsigned char* made = nullptr;
    unsigned int size = 0;
    const long result = EncryptDataAlloc(in, length, made, size);
    if (result != 0) return result;
    const bool fits = out != nullptr && size <= outLength;
    if (fits) std::memcpy(out, made, size);
    outLength = size;
    (void)CryptMemFree(made, false);  // cipher text: nothing to wipe
    return fits ? 0 : DC_E_BUFFER_TOO_SMALL;
}

long CDataCrypt::EncryptString(const char* text, unsigned char* out, unsigned int& outLength) {
    if (text == nullptr) return DC_E_INVALIDARG;
    return EncryptData(reinterpret_cast<const unsigned char*>(text),
                       static_cast<unsigned int>(std::strlen(text) + 1), out, outLength);
}

long CDataCrypt::EncryptString(const wchar_t* text, unsigned char* out, unsigned int& outLength) {
    if (text == nullptr) return DC_E_INVALIDARG;
    return EncryptData(reinterpret_cast<const unsigned char*>(text),
                       static_cast<unsigned int>((std::wcslen(text) + 1) * sizeof(wchar_t)), out,
                       outLength);
}

long CDataCrypt::EncryptStringAlloc(const char* text, unsigned char*& out,
                                    unsigned int& outLength) {
    if (text == nullptr) return DC_E_INVALIDARG;
    return EncryptDataAlloc(reinterpret_cast<const unsigned char*>(text),
                            static_cast<unsigned int>(std::strlen(text) + 1), out, outLength);
}

long CDataCrypt::EncryptStringAlloc(const wchar_t* text, unsigned char*& out,
                                    unsigned int& outLength) {
    if (text == nullptr) return DC_E_INVALIDARG;
    return EncryptDataAlloc(reinterpret_cast<const unsigned char*>(text),
                            static_cast<unsigned int>((std::wcslen(text) + 1) * sizeof(wchar_t)),
                            out, outLength);
}

// ---- recover -------------------------------------------------------------------------------

long CDataCrypt::DecryptData(const unsigned char* in, unsigned int length, unsigned char* out,
                             unsigned int& outLength) {
    if (in == nullptr || length == 0) return DC_E_INVALIDARG;
    if (!m_manager) return OBF_E_NO_INSTANCE;
    ObfuscatedData* block = nullptr;
    long result = CSingletonObfuscationMgr::DeserializeToObfuscatedData(in, length, block);
    // Not DC_E_BUFFER_TOO_SMALL: a truncated block is no question of the caller's buffer.
    if (result != 0) return DC_FAIL("CObfuscationMgr::DeserializeToObfuscatedData", result);
    unsigned int size = out != nullptr ? outLength : 0;
    result = m_manager->SymmetricDecrypt(block, out, size);
    CSingletonObfuscationMgr::FreeObfuscatedData(block);
    if (result == OBF_E_BUFFER_TOO_SMALL) {
        outLength = size;
        return DC_E_BUFFER_TOO_SMALL;
    }
    if (result != 0) return DC_FAIL("CSingletonObfuscationMgr::SymmetricDecrypt", result);
    outLength = size;
    return 0;
}

long CDataCrypt::DecryptDataAlloc(const unsigned char* in, unsigned int length, unsigned char*& out,
                                  unsigned int& outLength) {
    out = nullptr;
    outLength = 0;
    unsigned int size = 0;
    long result = DecryptData(in, length, nullptr, size);
    if (result != DC_E_BUFFER_TOO_SMALL) {
        return DC_FAIL("CDataCrypt::DecryptData", result == 0 ? SWG_E_FAIL : result);
    }
    unsigned char* made = AllocWithLengthWord(size);
    if (made == nullptr) return DC_FAIL("malloc", SWG_E_OUTOFMEMORY);
    result = DecryptData(in, length, made, size);
    if (result != 0) {
        (void)CryptMemFree(made, true);
        return result;
    }
    SetLengthWord(made, size);
    out = made;
    outLength = size;
    return 0;
}

long CDataCrypt::DecryptString(const unsigned char* in, unsigned int length, char* out,
                               unsigned int& outLength) {
    return DecryptData(in, length, reinterpret_cast<unsigned char*>(out), outLength);
}

long CDataCrypt::DecryptString(const unsigned char* in, unsigned int length, wchar_t* out,
                               unsigned int& outLength) {
    return DecryptData(in, length, reinterpret_cast<unsigned char*>(out), outLength);
}

long CDataCrypt::DecryptStringAlloc(const unsigned char* in, unsigned int length, char*& out,
                                    unsigned int& outLength) {
    unsigned char* made = nullptr;
    const long result = DecryptDataAlloc(in, length, made, outLength);
    out = reinterpret_cast<char*>(made);
    return result;
}

long CDataCrypt::DecryptStringAlloc(const unsigned char* in, unsigned int length, wchar_t*& out,
                                    unsigned int& outLength) {
    unsigned char* made = nullptr;
    const long result = DecryptDataAlloc(in, length, made, outLength);
    out = reinterpret_cast<wchar_t*>(made);
    return result;
}

long CDataCrypt::CryptMemFree(void* block, bool wipe) {
    if (block == nullptr) return 0;
    unsigned char* memory = static_cast<unsigned char*>(block) - kLengthWord;
    if (wipe) {
        std::uint32_t size = 0;
        std::memcpy(&size, memory, kLengthWord);
        SecureWipe(block, size);
    }
    std::free(memory);
    return 0;
}
