// SPDX-License-Identifier: Apache-2.0
// The domain read from the resolver configuration.
#include <gtest/gtest.h>

#include "platform/NetworkState.h"

namespace {

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
