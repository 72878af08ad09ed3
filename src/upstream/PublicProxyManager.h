// SPDX-License-Identifier: Apache-2.0
// PublicProxyManager: the reference-counted reader of the system's HTTPS proxy settings.
#pragma once

#include <string>

// One instance per process, shared by reference count: AcquireSingletonInstance adds a
// reference, ReleaseSingletonInstance drops one and destroys the instance at zero. Any thread
// may acquire, release and call the operations; ObtainProxySettings runs without a lock and
// may run on several threads at once.
class PublicProxyManager {
public:
    // The instance, created on first use, with one more reference. Null when it cannot be
    // created.
    static PublicProxyManager* AcquireSingletonInstance();
    // Drops the reference of `instance`; destroys the instance when none is left. A pointer
    // that is not the instance (null included) is ignored.
    static void ReleaseSingletonInstance(PublicProxyManager* instance);

    // Reads the system's HTTPS proxy. Returns 0 with `host` (an IPv4 address) and `port`
    // set when a usable one is configured, -1 otherwise (none, disabled, given by name,
    // unreadable). Never throws.
    int ObtainProxySettings(std::string& host, int& port);
    // The host and port texts of the stored credentials' proxy; two empty texts when none
    // are stored. Always 0.
    int GetProxyHostData(std::string& host, std::string& port);
    // The PROXY_TYPE of the stored credentials; PROXY_TYPE_UNSET when none are stored.
    int ReturnProxyType();
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
