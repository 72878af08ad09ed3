// SPDX-License-Identifier: Apache-2.0
// Telling redirected connections from direct ones, and the record made for them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "proxy/SessionRecord.h"
#include "support/TestServers.h"

namespace {

using swg_test::Endpoint;

// A connection whose original destination is the listener itself was not redirected: it
// carries its own record, and must not get a second one.
TEST(SessionRecordTest, OnlyAnotherOriginalDestinationCountsAsRedirected) {
    EXPECT_FALSE(IsRedirectedDestination(nullptr, Endpoint("127.0.0.1", 5002)));
    const struct {
        const char* original;
        std::uint16_t port;
        const char* local;
        bool redirected;
    } cases[] = {{"127.0.0.1", 5002, "127.0.0.1", false},
                 {"127.0.0.1", 8080, "127.0.0.1", true},
                 {"198.18.0.1", 5002, "127.0.0.1", true},
                 {"::1", 5002, "::1", false},
                 {"::1", 443, "::1", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.original) + " " + std::to_string(c.port));
        const sockaddr_storage original = Endpoint(c.original, c.port);
        EXPECT_EQ(IsRedirectedDestination(&original, Endpoint(c.local, 5002)), c.redirected);
    }
}

// The record's reader takes the port at offset 2, the IPv4 address at 4, the IPv6 address at
// 8 and the pid at 796; host names stay empty.
TEST(SessionRecordTest, RecordLaysOutTheDestinationWhereTheReaderLooks) {
    ngc_session_info record;
    std::memset(&record, 0x5a, sizeof(record));
    FillSessionRecord(Endpoint("198.18.0.7", 8080), 4321, record);
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    EXPECT_EQ(bytes[2], 0x1f);
    EXPECT_EQ(bytes[3], 0x90);
    const unsigned char v4[4] = {198, 18, 0, 7};
    EXPECT_EQ(std::memcmp(bytes + 4, v4, 4), 0);
    EXPECT_EQ(record.host_names[0], '\0');
    EXPECT_EQ(record.process_id, 4321);

    FillSessionRecord(Endpoint("::1", 443), -1, record);
    EXPECT_EQ(bytes[2], 0x01);
    EXPECT_EQ(bytes[3], 0xbb);
    EXPECT_EQ(bytes[8 + 15], 1);
    EXPECT_EQ(record.process_id, -1);
}

// Every address that reaches the listener is a loop: the whole loopback range, the
// unspecified address (Linux connects it to this host), in either family and IPv4-mapped.
TEST(SessionRecordTest, ListenerDestinationCoversEveryAddressThatReachesIt) {
    for (const char* loop : {"127.0.0.1", "127.1.2.3", "0.0.0.0", "::1", "::", "::ffff:127.0.0.1",
                             "::ffff:127.9.9.9", "::ffff:0.0.0.0"})
        EXPECT_TRUE(IsListenerDestination(Endpoint(loop, 5002), 5002)) << loop;
    for (const char* other : {"198.18.0.1", "::2", "::ffff:198.18.0.1"})
        EXPECT_FALSE(IsListenerDestination(Endpoint(other, 5002), 5002)) << other;
    EXPECT_FALSE(IsListenerDestination(Endpoint("127.0.0.1", 5003), 5002));
    EXPECT_FALSE(IsListenerDestination(Endpoint("0.0.0.0", 5003), 5002));
}

}  // namespace
