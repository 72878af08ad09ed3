// SPDX-License-Identifier: Apache-2.0
// CManualLock: the recursive lock of the common code, and its scoped holder.
#pragma once

#include <mutex>

// The same thread may take it again while it holds it (it counts the holds of its owner).
// Never throws in normal use.
class CManualLock {
public:
    // Blocks until the calling thread holds the lock.
    void Lock() { m_mutex.lock(); }
    // Gives up one hold of the calling thread, which must hold it.
    void Unlock() { m_mutex.unlock(); }

private:
    std::recursive_mutex m_mutex;
};

// Holds a CManualLock for a scope.
class CManualLockHolder {
public:
    explicit CManualLockHolder(CManualLock& lock) : m_lock(lock) { m_lock.Lock(); }
    ~CManualLockHolder() { m_lock.Unlock(); }
    CManualLockHolder(const CManualLockHolder&) = delete;
    CManualLockHolder& operator=(const CManualLockHolder&) = delete;

private:
    CManualLock& m_lock;
};
