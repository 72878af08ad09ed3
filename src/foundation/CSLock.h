// SPDX-License-Identifier: Apache-2.0
// CCSLock: a recursive mutex behind Lock and Unlock, for process-wide records.
#pragma once

#include <mutex>

// The same thread may take it again while it holds it. lock/unlock let std::lock_guard hold
// it; Lock/Unlock are the names its users call. Never throws in normal use.
class CCSLock {
public:
    // Blocks until the calling thread holds the lock.
    void Lock() { m_mutex.lock(); }
    // Gives up one hold of the calling thread, which must hold it.
    void Unlock() { m_mutex.unlock(); }

    void lock() { Lock(); }
    void unlock() { Unlock(); }

private:
    std::recursive_mutex m_mutex;
};
