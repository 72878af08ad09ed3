// SPDX-License-Identifier: Apache-2.0
// SHA-256 against published vectors, the file form against the buffer form, and the cache of
// executables' hashes: eviction of the entry used longest ago, refresh on a hit, ties.
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <cstring>
#include <fstream>
#include <set>
#include <string>

#include "core/HashManagerImp.h"

namespace {

using boost::posix_time::milliseconds;
using boost::posix_time::ptime;

constexpr long kInvalidArgument = static_cast<long>(0x80070057);

std::string Hash(const std::string& text) {
    return CHashManagerImp::GetHashSHA256(
        reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())), text.size());
}

// FIPS 180-2 examples, the one-million-'a' message included (crosses many blocks).
TEST(HashManagerTest, BufferHashMatchesPublishedVectors) {
    const struct {
        std::string message;
        const char* hash;
    } rows[] = {
        {"", "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855"},
        {"abc", "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248D6A61D20638B8E5C026930C3E6039A33CE45964FF2167F6ECEDD419DB06C1"},
        {std::string(1000000, 'a'),
         "CDC76E5C9914FB9281A1C7E284D73E67F1809A48A497200E046D39CCC7112CD0"},
    };
    for (const auto& row : rows) EXPECT_EQ(Hash(row.message), row.hash) << row.message.size();
    EXPECT_EQ(CHashManagerImp::GetHashSHA256(nullptr, 3), "");
}

// Executables are files on disk, read in pieces: the pieces' edges must not change the hash.
TEST(HashManagerTest, FileHashEqualsBufferHashAcrossPieceEdges) {
    char path[] = "/tmp/swg-hash-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_NE(fd, -1);
    close(fd);
    for (const size_t size : {size_t{0}, size_t{16384}, size_t{16385}, size_t{40000}}) {
        std::string content(size, '\0');
        for (size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i * 7);
        std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
        unsigned char hash[32] = {};
        unsigned long fileSize = 1;
        ASSERT_EQ(CHashManagerImp::DoSHA256_FileHash(path, hash, sizeof(hash), fileSize), 0);
        EXPECT_EQ(fileSize, size);
        unsigned char expected[32] = {};
        ASSERT_EQ(CHashManagerImp::DoSHA256_BufferHash(
                      reinterpret_cast<unsigned char*>(&content[0]), size, expected, 32),
                  0);
        EXPECT_EQ(std::memcmp(hash, expected, 32), 0) << size;
    }
    unlink(path);
    unsigned char hash[32] = {};
    unsigned long fileSize = 0;
    EXPECT_EQ(CHashManagerImp::DoSHA256_FileHash(path, hash, sizeof(hash), fileSize), ENOENT);
}

// Every pid maps to a file of its own in a temporary folder; the clock moves by hand.
class HashCacheTest : public ::testing::Test {
protected:
    void SetUp() override {
        char folder[] = "/tmp/swg-hash-cache-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        m_folder = folder;
    }
    void TearDown() override {
        for (const auto& file : m_files) unlink(file.c_str());
        rmdir(m_folder.c_str());
    }
    std::string PathOf(unsigned int pid) {
        char name[16];
        std::snprintf(name, sizeof(name), "/%04u", pid);  // path order is pid order
        return m_folder + name;
    }
    long Get(unsigned int pid, unsigned char* hash) {
        const std::string path = PathOf(pid);
        if (m_files.insert(path).second) std::ofstream(path) << "executable " << pid;
        return m_manager.GetHashSHA256(pid, hash, 32);
    }
    bool Cached(unsigned int pid) {
        // A cached entry answers after the file is gone.
        unlink(PathOf(pid).c_str());
        m_files.erase(PathOf(pid));
        unsigned char hash[32];
        return m_manager.GetHashSHA256(pid, hash, 32) == 0;
    }

    std::string m_folder;
    std::set<std::string> m_files;
    ptime m_now = boost::posix_time::time_from_string("2026-11-24 00:00:00");
    int m_lookups = 0;
    CHashManagerImp m_manager{[this](unsigned int pid, char* buffer, std::size_t size) {
                                  ++m_lookups;
                                  std::snprintf(buffer, size, "%s", PathOf(pid).c_str());
                                  return 0L;
                              },
                              [this] { return m_now; }};
};

TEST_F(HashCacheTest, EvictsTheEntryUsedLongestAgoOneAtATime) {
    m_manager.SetCacheSize(3);
    unsigned char hash[32];
    for (unsigned int pid = 1; pid <= 3; ++pid) {
        ASSERT_EQ(Get(pid, hash), 0);
        m_now += milliseconds(10);
    }
    ASSERT_EQ(Get(1, hash), 0);  // a hit: 1 is now the newest, 2 the oldest
    m_now += milliseconds(10);
    ASSERT_EQ(Get(4, hash), 0);
    EXPECT_EQ(m_manager.CacheCount(), 3u);
    EXPECT_TRUE(Cached(1));
    EXPECT_FALSE(Cached(2));
    EXPECT_TRUE(Cached(3));
    EXPECT_TRUE(Cached(4));
}

TEST_F(HashCacheTest, EqualAgesEvictTheFirstInPathOrder) {
    m_manager.SetCacheSize(2);
    unsigned char hash[32];
    ASSERT_EQ(Get(2, hash), 0);
    ASSERT_EQ(Get(1, hash), 0);
    ASSERT_EQ(Get(3, hash), 0);
    EXPECT_FALSE(Cached(1));
    EXPECT_TRUE(Cached(2));
}

TEST_F(HashCacheTest, ShortOutputIsRefusedBeforeAnyLookup) {
    unsigned char hash[32];
    EXPECT_EQ(m_manager.GetHashSHA256(1, hash, 31), kInvalidArgument);
    EXPECT_EQ(m_manager.GetHashSHA256(1, nullptr, 32), kInvalidArgument);
    EXPECT_EQ(m_lookups, 0);
    ASSERT_EQ(Get(1, hash), 0);
    unsigned char again[32];
    ASSERT_EQ(Get(1, again), 0);
    EXPECT_EQ(std::memcmp(hash, again, 32), 0);
    unsigned char expected[32];
    std::string content = "executable 1";
    ASSERT_EQ(CHashManagerImp::DoSHA256_BufferHash(reinterpret_cast<unsigned char*>(&content[0]),
                                                   content.size(), expected, 32),
              0);
    EXPECT_EQ(std::memcmp(hash, expected, 32), 0);
}

}  // namespace
