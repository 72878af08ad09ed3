// SPDX-License-Identifier: Apache-2.0
// SHA-256 against published vectors, the file form against the buffer form, and the cache of
// executables' hashes: eviction of the entry used longest ago, refresh on a hit, ties.
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <cstring>
#include <fstream>
#include <string>

#include "core/HashManagerImp.h"

namespace {

unsigned char* Bytes(std::string& text) { return reinterpret_cast<unsigned char*>(&text[0]); }

// FIPS 180-2 examples; the file form reads 16,384-byte pieces, whose edges must not matter.
TEST(HashManagerTest, MatchesPublishedVectorsFromMemoryAndFromFiles) {
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
    char path[] = "/tmp/swg-hash-XXXXXX";
    ASSERT_NE(mkstemp(path), -1);
    for (auto row : rows) {
        EXPECT_EQ(CHashManagerImp::GetHashSHA256(Bytes(row.message), row.message.size()), row.hash);
        std::ofstream(path, std::ios::binary | std::ios::trunc) << row.message;
        unsigned char fromFile[32] = {}, fromMemory[32] = {};
        unsigned long size = 0;
        ASSERT_EQ(CHashManagerImp::DoSHA256_FileHash(path, fromFile, 32, size), 0);
        ASSERT_EQ(CHashManagerImp::DoSHA256_BufferHash(Bytes(row.message), row.message.size(),
                                                       fromMemory, 32),
                  0);
        EXPECT_EQ(size, row.message.size());
        EXPECT_EQ(std::memcmp(fromFile, fromMemory, 32), 0);
    }
    unlink(path);
    EXPECT_EQ(CHashManagerImp::GetHashSHA256(nullptr, 3), "");
}

// Pid N is the file "N" in a folder of the test's own; the clock moves by hand. A path whose
// file is gone still answers while its entry is cached.
class HashCacheTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(mkdtemp(m_folder), nullptr); }
    void TearDown() override { (void)!std::system(("rm -rf " + std::string(m_folder)).c_str()); }
    long Get(unsigned int pid, unsigned long size = 32) {
        std::ofstream(Path(pid)) << "executable " << pid;
        m_now += boost::posix_time::milliseconds(m_step);
        return m_manager.GetHashSHA256(pid, m_hash, size);
    }
    bool Cached(unsigned int pid) {
        unlink(Path(pid).c_str());
        return m_manager.GetHashSHA256(pid, m_hash, 32) == 0;
    }
    std::string Path(unsigned int pid) const {
        return std::string(m_folder) + "/" + std::to_string(pid);
    }

    char m_folder[32] = "/tmp/swg-hash-cache-XXXXXX";
    unsigned char m_hash[32] = {};
    int m_step = 10;
    int m_lookups = 0;
    boost::posix_time::ptime m_now = boost::posix_time::time_from_string("2026-11-24 00:00:00");
    CHashManagerImp m_manager{[this](unsigned int pid, char* buffer, std::size_t size) {
                                  ++m_lookups;
                                  std::snprintf(buffer, size, "%s", Path(pid).c_str());
                                  return 0L;
                              },
                              [this] { return m_now; }};
};

TEST_F(HashCacheTest, EvictsTheEntryUsedLongestAgoOneAtATime) {
    EXPECT_EQ(Get(1, 31), static_cast<long>(0x80070057));
    EXPECT_EQ(m_lookups, 0);
    m_manager.SetCacheSize(3);
    for (unsigned int pid : {1, 2, 3, 1, 4}) ASSERT_EQ(Get(pid), 0);  // the hit on 1 refreshes it
    std::string expected = "executable 4";
    unsigned char hash[32];
    ASSERT_EQ(CHashManagerImp::DoSHA256_BufferHash(Bytes(expected), expected.size(), hash, 32), 0);
    EXPECT_EQ(std::memcmp(hash, m_hash, 32), 0);
    EXPECT_EQ(m_manager.CacheCount(), 3u);
    EXPECT_FALSE(Cached(2));
    EXPECT_TRUE(Cached(1) && Cached(3) && Cached(4));
}

TEST_F(HashCacheTest, EqualAgesEvictTheFirstInPathOrder) {
    m_step = 0;
    m_manager.SetCacheSize(2);
    for (unsigned int pid : {2, 1, 3}) ASSERT_EQ(Get(pid), 0);
    EXPECT_FALSE(Cached(1));
    EXPECT_TRUE(Cached(2));
}

}  // namespace
