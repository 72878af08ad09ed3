// SPDX-License-Identifier: Apache-2.0
// PublicProxyManager: the reference-counted reader of the system's HTTPS proxy settings.
#pragma once

#include <string>

#include "foundation/CSLock.h"

class CSingletonObfuscationMgr;
class ISystemProxySettings;
class ProxyIfc;

// One instance per process, shared by reference count: AcquireSingletonInstance adds a
// reference, ReleaseSingletonInstance drops one and destroys the instance at zero. The
// instance holds the process's key manager with one key, and a ProxyIfc for stored proxy
// credentials (empty: nothing in the agent stores any). Any thread may acquire, release and
// call the operations; ObtainProxySettings runs without a lock and may run on several threads
// at once.
class PublicProxyManager {
public:
    // The instance, created on first use (on the host's settings), with one more reference.
    // Null when it cannot be allocated.
    static PublicProxyManager* AcquireSingletonInstance();
    // Drops the reference of `instance`; destroys the instance when none is left. A pointer
    // that is not the instance (null included) is ignored.
    static void ReleaseSingletonInstance(PublicProxyManager* instance);

    // A manager that reads `settings`, which must outlive it. Makes the key manager and its
    // key, then the ProxyIfc; when a step fails (logged; e.g. a key manager exists already)
    // the manager works without a ProxyIfc.
    explicit PublicProxyManager(ISystemProxySettings& settings);
    // Destroys the ProxyIfc, then gives the key manager back, which wipes the key at zero.
    ~PublicProxyManager();
    PublicProxyManager(const PublicProxyManager&) = delete;
    PublicProxyManager& operator=(const PublicProxyManager&) = delete;

    // Reads the system's HTTPS proxy. Returns 0 with `host` (an IPv4 address) and `port`
    // (1 to 65535) set when a usable one is configured, -1 otherwise: none, disabled, given by
    // name (`host` then holds the name), or a port that cannot be read. Never throws.
    int ObtainProxySettings(std::string& host, int& port);
    // The host and port texts of the stored credentials' proxy; two empty texts when there is
    // no ProxyIfc. Always 0.
    int GetProxyHostData(std::string& host, std::string& port);
    // The PROXY_TYPE of the stored credentials' kind; PROXY_TYPE_UNSET without a ProxyIfc.
    int ReturnProxyType();

private:
    void createProxyIfcObj();
    bool createObfuscationInstance();
    bool generateSymmetricKey();
    void releaseObfuscationInstance();

    ISystemProxySettings& m_settings;
    ProxyIfc* m_pProxyIfc = nullptr;                        // owned
    CSingletonObfuscationMgr* m_pObfuscationMgr = nullptr;  // one reference

    static PublicProxyManager* sm_pPublicProxyManagerInstance;
    static unsigned int sm_uiAcquisitionCount;
    static CCSLock m_Lock;
};

// Holds an acquired instance for a scope and releases it at the end. Holds null when the
// acquisition failed; test with operator bool before use.
template <class T>
class CSmartPtrInstance {
public:
    explicit CSmartPtrInstance(T* instance) : m_instance(instance) {}
    ~CSmartPtrInstance() {
        if (m_instance != nullptr) T::ReleaseSingletonInstance(m_instance);
    }
    CSmartPtrInstance(const CSmartPtrInstance&) = delete;
    CSmartPtrInstance& operator=(const CSmartPtrInstance&) = delete;

    explicit operator bool() const { return m_instance != nullptr; }
    T* operator->() const { return m_instance; }
    T* get() const { return m_instance; }

private:
    T* m_instance;
};
