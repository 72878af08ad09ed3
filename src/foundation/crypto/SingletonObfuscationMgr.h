// SPDX-License-Identifier: Apache-2.0
// CSingletonObfuscationMgr: the process's one key manager, shared by reference count.
#pragma once

#include <cstdint>

#include "foundation/ManualLock.h"
#include "foundation/crypto/ObfuscationMgr.h"

// The key manager of the process. createSingletonInstance makes it with one reference;
// acquireInstance adds one, releaseInstance drops one and destroys it (wiping every key) at
// zero. Every operation runs under the object's own lock, since the manager shares one cipher
// context; any thread may call. The inheritance is protected so that no caller reaches the
// unlocked operations.
class CSingletonObfuscationMgr : protected CObfuscationMgr {
public:
    // Makes the instance with one reference: with `publicKey` (`length` bytes, DER) when both
    // are set, else with a new RSA pair. Returns 0 with `out` set; OBF_E_INSTANCE_EXISTS with
    // `out` null when an instance exists; the constructor's code (logged) when it fails.
    // Holds the instance lock through the construction. `reserved` is not used.
    static long createSingletonInstance(CSingletonObfuscationMgr*& out,
                                        const unsigned char* publicKey, unsigned int length,
                                        bool reserved);
    // The instance with one more reference, or null when there is none.
    static CSingletonObfuscationMgr* acquireInstance();
    // Drops the reference of `instance`, destroying the instance at zero. A pointer that is
    // not the instance is destroyed at once; null is ignored.
    static void releaseInstance(CSingletonObfuscationMgr* instance);

    // The operations of CObfuscationMgr, each under the object's lock.
    long GenerateNewKeyPair();
    long SetPublicKey(const unsigned char* key, unsigned int length);
    long GetPublicKey(unsigned char* out, unsigned int& length);
    long PublicEncrypt(const unsigned char* in, unsigned int length, unsigned char* out,
                       unsigned int& outLength);
    long PrivateDecrypt(const unsigned char* in, unsigned int length, unsigned char* out,
                        unsigned int& outLength);
    long GenerateSymmetricKey(std::uint32_t& ref);
    long GetEncrKeyData(unsigned char* out, unsigned int& length, std::uint32_t ref);
    long AddEncrSymmetricKey(const unsigned char* in, unsigned int length, std::uint32_t& ref);
    long RemoveSymmetricKey(std::uint32_t ref);
    void DeleteSymmetricKeys();
    long SetActiveSymmetricKey(std::uint32_t ref);
    long SymmetricEncrypt(const unsigned char* in, unsigned int length, ObfuscatedData*& out);
    long SymmetricDecrypt(const ObfuscatedData* block, unsigned char* out, unsigned int& length);

    // Static and lock-free: they touch only the block.
    using CObfuscationMgr::DeserializeToObfuscatedData;
    using CObfuscationMgr::FreeObfuscatedData;
    using CObfuscationMgr::SerializeObfuscatedData;

private:
    CSingletonObfuscationMgr(long& result, const unsigned char* publicKey, unsigned int length,
                             bool reserved);
    ~CSingletonObfuscationMgr() override = default;

    template <class Operation>
    auto locked(Operation operation) {
        CManualLockHolder hold(m_lock);
        return operation();
    }

    CManualLock m_lock;

    static CSingletonObfuscationMgr* sm_pInstance;
    static unsigned int sm_uiAcquisitionCount;
    static CManualLock sm_instanceLock;
};

// Holds an acquired instance for a scope and gives its reference back at the end; holds null
// when there was none to acquire.
template <class T>
class CInstanceSmartPtr {
public:
    explicit CInstanceSmartPtr(T* instance) : m_instance(instance) {}
    ~CInstanceSmartPtr() {
        if (m_instance != nullptr) T::releaseInstance(m_instance);
    }
    CInstanceSmartPtr(const CInstanceSmartPtr&) = delete;
    CInstanceSmartPtr& operator=(const CInstanceSmartPtr&) = delete;

    explicit operator bool() const { return m_instance != nullptr; }
    T* operator->() const { return m_instance; }
    T* get() const { return m_instance; }

private:
    T* m_instance;
};
