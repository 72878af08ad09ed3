// SPDX-License-Identifier: Apache-2.0
// Which netlink notices count as a network change, and the domain read from the resolver
// configuration.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include "platform/NetworkState.h"

namespace {

TEST(NetlinkNetworkStateTest, OnlyAddressAndRouteChangesCount) {
    const struct {
        uint16_t type;
        bool counts;
    } rows[] = {
        {RTM_NEWADDR, true},   {RTM_DELADDR, true},  {RTM_NEWROUTE, true},
        {RTM_DELROUTE, true},  {RTM_NEWLINK, false}, {RTM_DELLINK, false},
        {RTM_NEWNEIGH, false}, {0, false},           {RTM_GETROUTE, false},
    };
    for (const auto& row : rows) EXPECT_EQ(IsRouteChangeNotice(row.type), row.counts) << row.type;
}

TEST(NetlinkNetworkStateTest, DomainIsTheDomainEntryElseTheFirstSearchEntry) {
    const struct {
        const char* text;
        const char* domain;
    } rows[] = {
        {"nameserver 198.18.0.1\n", ""},
        {"search a.test b.test\nsearch c.test\n", "a.test"},
        {"search a.test\ndomain corp.test\n", "corp.test"},
        {"# domain commented.test\n  domain\tspaced.test  \n", "spaced.test"},
        {"domain\nsearch a.test", "a.test"},
    };
    for (const auto& row : rows) EXPECT_EQ(ResolverDomain(row.text), row.domain) << row.text;
}

}  // namespace
