// SPDX-License-Identifier: Apache-2.0
// SHA-256 on OpenSSL's EVP digest.
#include "core/HashManagerImp.h"

#include <openssl/evp.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/shared_lock_guard.hpp>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <mutex>
#include <new>

#include "foundation/GlobalConst.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Trace.h"
#include "platform/ProcessInfo.h"

namespace {

constexpr unsigned long kHashBytes = 32;
constexpr std::size_t kFilePiece = 16384;
constexpr std::size_t kPathBuffer = 2048;
constexpr long kInvalidArgument = static_cast<long>(0x80070057);

struct DigestFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using Digest = std::unique_ptr<EVP_MD_CTX, DigestFree>;

Digest StartDigest() {
    Digest context(EVP_MD_CTX_new());
    if (context && EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) context.reset();
    return context;
}

bool FinishDigest(EVP_MD_CTX* context, unsigned char* hash) {
    unsigned int length = 0;
    return EVP_DigestFinal_ex(context, hash, &length) == 1 && length == kHashBytes;
}

}  // namespace

CHashManagerImp::CHashManagerImp(PathLookup lookup, Now now)
    : m_lookup(std::move(lookup)), m_now(std::move(now)) {}

boost::posix_time::ptime CHashManagerImp::CurrentTime() const {
    return m_now ? m_now() : boost::posix_time::microsec_clock::universal_time();
}

void CHashManagerImp::SetCacheSize(unsigned long size) {
    std::unique_lock<boost::shared_mutex> hold(m_lock);
    m_cacheSize = size;
}

std::size_t CHashManagerImp::CacheCount() {
    boost::shared_lock_guard<boost::shared_mutex> hold(m_lock);
    return m_cache.size();
}

long CHashManagerImp::GetHashSHA256(unsigned int pid, unsigned char* hash, unsigned long size) {
    if (hash == nullptr || size < kHashBytes) return kInvalidArgument;
    char path[kPathBuffer] = {};
    const long found = m_lookup ? m_lookup(pid, path, sizeof(path)) : kInvalidArgument;
    if (found != 0) return found;
    {
        // Two hits may stamp the same entry at once: the later value stands.
        boost::shared_lock_guard<boost::shared_mutex> hold(m_lock);
        auto hit = m_cache.find(path);
        if (hit != m_cache.end()) {
            std::copy(hit->second.hash, hit->second.hash + kHashBytes, hash);
            hit->second.lastUsed = CurrentTime();
            return 0;
        }
    }
    SHA256_HASH_ENTRY entry;
    unsigned long fileSize = 0;
    const long read = DoSHA256_FileHash(path, entry.hash, kHashBytes, fileSize);
    if (read != 0) return read;
    entry.lastUsed = CurrentTime();
    std::copy(entry.hash, entry.hash + kHashBytes, hash);
    std::unique_lock<boost::shared_mutex> hold(m_lock);
    if (m_cache.size() >= m_cacheSize) ClearLRU();
    m_cache.emplace(path, entry);
    return 0;
}

void CHashManagerImp::ClearLRU() {
    if (m_cache.empty()) return;
    const boost::posix_time::ptime now = CurrentTime();
    auto oldest = m_cache.begin();
    int32_t oldestAge = 0;
    for (auto it = m_cache.begin(); it != m_cache.end(); ++it) {
        const int32_t age = static_cast<int32_t>((now - it->second.lastUsed).total_milliseconds());
        if (age > oldestAge) {
            oldestAge = age;
            oldest = it;
        }
    }
    m_cache.erase(oldest);
}

std::string CHashManagerImp::GetHashSHA256(unsigned char* data, unsigned long length) {
    if (data == nullptr) {
        DNTRACE(ERR, "CHashManagerImp::GetHashSHA256 : Invalid argument");
        return "";
    }
    unsigned char hash[kHashBytes] = {};
    if (DoSHA256_BufferHash(data, length, hash, sizeof(hash)) != 0) {
        DNTRACE(ERR, "CHashManagerImp::GetHashSHA256 : DoSHA256_BufferHash failed");
        return "";
    }
    std::unique_ptr<char[]> text(HexEncode(hash, static_cast<int>(kHashBytes)));
    if (!text) {
        DNTRACE(ERR, "CHashManagerImp::HasDoSHA256_BufferHash : HexEncode failed");
        return "";
    }
    return text.get();
}

long CHashManagerImp::DoSHA256_BufferHash(unsigned char* data, unsigned long length,
                                          unsigned char* hash, unsigned long size) {
    if (data == nullptr || hash == nullptr || size < kHashBytes) return kInvalidArgument;
    Digest context = StartDigest();
    if (!context || EVP_DigestUpdate(context.get(), data, length) != 1 ||
        !FinishDigest(context.get(), hash)) {
        return SWG_E_FAIL;
    }
    return 0;
}

long CHashManagerImp::DoSHA256_FileHash(const char* path, unsigned char* hash, unsigned long size,
                                        unsigned long& fileSize) {
    fileSize = 0;
    if (path == nullptr || hash == nullptr || size < kHashBytes) return kInvalidArgument;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "rbe"), &std::fclose);
    if (!file) return errno != 0 ? errno : SWG_E_FAIL;
    Digest context = StartDigest();
    if (!context) return SWG_E_FAIL;
    std::unique_ptr<unsigned char[]> piece(new (std::nothrow) unsigned char[kFilePiece]);
    if (!piece) return SWG_E_OUTOFMEMORY;
    for (;;) {
        const std::size_t got = std::fread(piece.get(), 1, kFilePiece, file.get());
        if (got > 0 && EVP_DigestUpdate(context.get(), piece.get(), got) != 1) return SWG_E_FAIL;
        fileSize += got;
        if (got < kFilePiece) break;
    }
    if (std::ferror(file.get()) != 0) return EIO;
    return FinishDigest(context.get(), hash) ? 0 : SWG_E_FAIL;
}

IHashManager* CHashManagerClassFactory::CreateInstance() {
    return new (std::nothrow) CHashManagerImp(&ServiceUtils::GetProcessFilePath);
}

void CHashManagerClassFactory::ReleaseInstance(IHashManager** instance) {
    if (instance == nullptr) return;
    delete *instance;
    *instance = nullptr;
}
