// SPDX-License-Identifier: Apache-2.0
// Tests of the agent's one-host address caches.
#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <string>
#include <vector>

#include "FakeAddressResolver.h"
#include "core/SWGAgent.h"

namespace {

using boost::posix_time::milliseconds;
using boost::posix_time::seconds;
using swg_test::FakeClock;
using swg_test::Ipv4;

const std::vector<unsigned int> kHostA4 = {Ipv4("198.18.0.10"), Ipv4("198.18.0.11")};
const std::vector<unsigned int> kHostB4 = {Ipv4("198.18.0.20")};
const std::vector<unsigned char> kHostA6 = swg_test::Ipv6("2001:db8::10");
const std::vector<unsigned char> kHostB6 = swg_test::Ipv6("2001:db8::20");

class SWGAgentCacheTest : public ::testing::Test {
protected:
    SWGAgentCacheTest() : start(clock.UniversalTime()) { agent.SetCacheClock(&clock); }
    ~SWGAgentCacheTest() override { agent.SetCacheClock(nullptr); }

    // Moves the fake clock to `offset` after the start of the test.
    void At(const boost::posix_time::time_duration& offset) { clock.Set(start + offset); }

    FakeClock clock;
    const boost::posix_time::ptime start;
    CSWGAgent agent;
};

// Guards the lifetime (hit at 30.9 s, miss at 31 s or before the stamp); a miss empties.
TEST_F(SWGAgentCacheTest, EntryLivesJustUnder31Seconds) {
    agent.CacheResolvedIPList("a.swg.test", kHostA4);
    agent.CacheResolvedIPV6List("a.swg.test", kHostA6);

    At(milliseconds(30900));
    EXPECT_EQ(agent.GetCachedResolvedIPList("a.swg.test"), kHostA4);
    EXPECT_EQ(agent.GetCachedResolvedIPv6List("a.swg.test"), kHostA6);

    At(seconds(31));
    EXPECT_TRUE(agent.GetCachedResolvedIPList("a.swg.test").empty());
    EXPECT_TRUE(agent.GetCachedResolvedIPv6List("a.swg.test").empty());

    At(seconds(5));
    EXPECT_TRUE(agent.GetCachedResolvedIPList("a.swg.test").empty()) << "miss did not empty";
    EXPECT_TRUE(agent.GetCachedResolvedIPv6List("a.swg.test").empty()) << "miss did not empty";

    // An entry stamped in the future (the wall clock was set back) must not live on.
    At(seconds(60));
    agent.CacheResolvedIPList("a.swg.test", kHostA4);
    At(seconds(0));
    EXPECT_TRUE(agent.GetCachedResolvedIPList("a.swg.test").empty());
}

// Guards the one-host rule: a get for another host empties that family's list only.
TEST_F(SWGAgentCacheTest, GetForAnotherHostEmptiesThatFamilyOnly) {
    agent.CacheResolvedIPList("a.swg.test", kHostA4);
    agent.CacheResolvedIPV6List("a.swg.test", kHostA6);
    At(seconds(1));

    EXPECT_TRUE(agent.GetCachedResolvedIPList("b.swg.test").empty());
    EXPECT_TRUE(agent.GetCachedResolvedIPList("a.swg.test").empty());
    EXPECT_EQ(agent.GetCachedResolvedIPv6List("a.swg.test"), kHostA6);

    EXPECT_TRUE(agent.GetCachedResolvedIPv6List("A.swg.test").empty()) << "host match is exact";
    EXPECT_TRUE(agent.GetCachedResolvedIPv6List("a.swg.test").empty());
}

// Guards the shared key: caching B in one family serves A's other-family list for B.
TEST_F(SWGAgentCacheTest, SharedKeyServesTheOtherFamilysAddressesForTheNewHost) {
    agent.CacheResolvedIPList("a.swg.test", kHostA4);
    At(seconds(5));
    agent.CacheResolvedIPV6List("b.swg.test", kHostB6);

    At(seconds(30));
    EXPECT_EQ(agent.GetCachedResolvedIPList("b.swg.test"), kHostA4);
    EXPECT_EQ(agent.GetCachedResolvedIPv6List("b.swg.test"), kHostB6);
    At(seconds(31));
    EXPECT_TRUE(agent.GetCachedResolvedIPList("b.swg.test").empty()) << "A's stamp decides";
    EXPECT_EQ(agent.GetCachedResolvedIPv6List("b.swg.test"), kHostB6);

    agent.CacheResolvedIPList("a.swg.test", kHostB4);
    EXPECT_TRUE(agent.GetCachedResolvedIPv6List("b.swg.test").empty());
}

}  // namespace
