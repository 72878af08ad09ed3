// SPDX-License-Identifier: Apache-2.0
// SHA-256 of memory buffers and of processes' executables, the latter with a cache.
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <cstddef>
#include <functional>
#include <map>
#include <string>

// The hash of a process's executable, behind the class factory. Every method may be called
// from any thread at any time.
class IHashManager {
public:
    virtual ~IHashManager() = default;
    // The most entries the cache keeps; a smaller value than the count in hand does not
    // shrink it at once: each later insertion evicts one.
    virtual void SetCacheSize(unsigned long size) = 0;
    // The SHA-256 of the executable of `pid` into `hash` (32 bytes of `size`). 0, 0x80070057
    // for a null `hash` or a `size` below 32, or the code of the failed path look-up or read.
    // Reads the file on a cache miss; the cache key is the path alone.
    virtual long GetHashSHA256(unsigned int pid, unsigned char* hash, unsigned long size) = 0;
};

// One cached hash and when it was last used.
struct SHA256_HASH_ENTRY {
    boost::posix_time::ptime lastUsed;
    unsigned char hash[32] = {};
};

class CHashManagerImp : public IHashManager {
public:
    // Looks up the executable path of a process: 0 and a zero-terminated path in the buffer,
    // or an error code.
    using PathLookup = std::function<long(unsigned int pid, char* buffer, std::size_t size)>;
    // The clock of the entries' time of last use.
    using Now = std::function<boost::posix_time::ptime()>;

    explicit CHashManagerImp(PathLookup lookup, Now now = Now());

    void SetCacheSize(unsigned long size) override;
    long GetHashSHA256(unsigned int pid, unsigned char* hash, unsigned long size) override;

    // The SHA-256 of `length` bytes at `data` as 64 upper-case hexadecimal digits; empty on
    // failure (null data), logged.
    static std::string GetHashSHA256(unsigned char* data, unsigned long length);
    // One SHA-256 pass over `data` into `hash` (32 bytes of `size`). 0 or 0x80070057.
    static long DoSHA256_BufferHash(unsigned char* data, unsigned long length, unsigned char* hash,
                                    unsigned long size);
    // The SHA-256 of the file at `path`, read in 16,384-byte pieces, and its size in bytes.
    // 0, 0x80070057 for bad arguments, or the errno of the failed open or read.
    static long DoSHA256_FileHash(const char* path, unsigned char* hash, unsigned long size,
                                  unsigned long& fileSize);

    // The number of cached entries.
    std::size_t CacheCount();

private:
    // Erases the entry used longest ago; on equal ages the first in path order.
    void ClearLRU();
    boost::posix_time::ptime CurrentTime() const;

    unsigned long long m_cacheSize = 512;
    std::map<std::string, SHA256_HASH_ENTRY> m_cache;
    boost::shared_mutex m_lock;
    PathLookup m_lookup;
    Now m_now;
};

// Hands out the one hash manager.
class CHashManagerClassFactory {
public:
    // A new instance that looks paths up in /proc, or null when memory is short.
    static IHashManager* CreateInstance();
    // Destroys `*instance`, if any, and clears the pointer.
    static void ReleaseInstance(IHashManager** instance);
};
