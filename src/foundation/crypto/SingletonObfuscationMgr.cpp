// SPDX-License-Identifier: Apache-2.0
// The process's one key manager: reference count and locked operations.
#include "foundation/crypto/SingletonObfuscationMgr.h"

#include <new>

#include "foundation/AppLog.h"
#include "foundation/GlobalConst.h"

CSingletonObfuscationMgr* CSingletonObfuscationMgr::sm_pInstance = nullptr;
unsigned int CSingletonObfuscationMgr::sm_uiAcquisitionCount = 0;
CManualLock CSingletonObfuscationMgr::sm_instanceLock;

CSingletonObfuscationMgr::CSingletonObfuscationMgr(long& result, const unsigned char* publicKey,
                                                   unsigned int length, bool reserved)
    : CObfuscationMgr(result, publicKey, length, reserved) {}

long CSingletonObfuscationMgr::createSingletonInstance(CSingletonObfuscationMgr*& out,
                                                       const unsigned char* publicKey,
                                                       unsigned int length, bool reserved) {
    out = nullptr;
    CManualLockHolder hold(sm_instanceLock);
    if (sm_pInstance != nullptr || sm_uiAcquisitionCount != 0) return OBF_E_INSTANCE_EXISTS;
    long result = 0;
    auto* made = new (std::nothrow) CSingletonObfuscationMgr(result, publicKey, length, reserved);
    if (made == nullptr) result = SWG_E_OUTOFMEMORY;
    if (result != 0) {
        CAppLog::LogReturnCode(__func__, __FILE__, __LINE__, Logging::kImportanceError,
                               "CSingletonObfuscationMgr", result, nullptr,
                               "The key manager could not be made");
        delete made;
        return result;
    }
    sm_pInstance = made;
    sm_uiAcquisitionCount = 1;
    out = made;
    return 0;
}

CSingletonObfuscationMgr* CSingletonObfuscationMgr::acquireInstance() {
    CManualLockHolder hold(sm_instanceLock);
    if (sm_pInstance != nullptr) ++sm_uiAcquisitionCount;
    return sm_pInstance;
}

void CSingletonObfuscationMgr::releaseInstance(CSingletonObfuscationMgr* instance) {
    CSingletonObfuscationMgr* doomed = instance;
    {
        CManualLockHolder hold(sm_instanceLock);
        if (instance != nullptr && instance == sm_pInstance) {
            doomed = nullptr;
            if (--sm_uiAcquisitionCount == 0) {
                doomed = sm_pInstance;
                sm_pInstance = nullptr;
            }
        }
    }
    delete doomed;  // the keys are wiped outside the instance lock
}

long CSingletonObfuscationMgr::GenerateNewKeyPair() {
    return locked([&] { return CObfuscationMgr::GenerateNewKeyPair(); });
}
long CSingletonObfuscationMgr::SetPublicKey(const unsigned char* key, unsigned int length) {
    return locked([&] { return CObfuscationMgr::SetPublicKey(key, length); });
}
long CSingletonObfuscationMgr::GetPublicKey(unsigned char* out, unsigned int& length) {
    return locked([&] { return CObfuscationMgr::GetPublicKey(out, length); });
}
long CSingletonObfuscationMgr::PublicEncrypt(const unsigned char* in, unsigned int length,
                                             unsigned char* out, unsigned int& outLength) {
    return locked([&] { return CObfuscationMgr::PublicEncrypt(in, length, out, outLength); });
}
long CSingletonObfuscationMgr::PrivateDecrypt(const unsigned char* in, unsigned int length,
                                              unsigned char* out, unsigned int& outLength) {
    return locked([&] { return CObfuscationMgr::PrivateDecrypt(in, length, out, outLength); });
}
long CSingletonObfuscationMgr::GenerateSymmetricKey(std::uint32_t& ref) {
    return locked([&] { return CObfuscationMgr::GenerateSymmetricKey(ref); });
}
long CSingletonObfuscationMgr::GetEncrKeyData(unsigned char* out, unsigned int& length,
                                              std::uint32_t ref) {
    return locked([&] { return CObfuscationMgr::GetEncrKeyData(out, length, ref); });
}
long CSingletonObfuscationMgr::AddEncrSymmetricKey(const unsigned char* in, unsigned int length,
                                                   std::uint32_t& ref) {
    return locked([&] { return CObfuscationMgr::AddEncrSymmetricKey(in, length, ref); });
}
long CSingletonObfuscationMgr::RemoveSymmetricKey(std::uint32_t ref) {
    return locked([&] { return CObfuscationMgr::RemoveSymmetricKey(ref); });
}
void CSingletonObfuscationMgr::DeleteSymmetricKeys() {
    locked([&] { CObfuscationMgr::DeleteSymmetricKeys(); });
}
long CSingletonObfuscationMgr::SetActiveSymmetricKey(std::uint32_t ref) {
    return locked([&] { return CObfuscationMgr::SetActiveSymmetricKey(ref); });
}
long CSingletonObfuscationMgr::SymmetricEncrypt(const unsigned char* in, unsigned int length,
                                                ObfuscatedData*& out) {
    return locked([&] { return CObfuscationMgr::SymmetricEncrypt(in, length, out); });
}
long CSingletonObfuscationMgr::SymmetricDecrypt(const ObfuscatedData* block, unsigned char* out,
                                                unsigned int& length) {
    return locked([&] { return CObfuscationMgr::SymmetricDecrypt(block, out, length); });
}
