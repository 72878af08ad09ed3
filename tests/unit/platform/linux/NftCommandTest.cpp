// SPDX-License-Identifier: Apache-2.0
// How the redirector tells nftables errors apart, on the texts libnftables prints.
#include <gtest/gtest.h>

#include "platform/linux/NftCommand.h"

namespace {

struct ErrorRow {
    const char* text;
    NftErrorKind kind;
};

// Only a missing table or set may count as a disruption, and only a passing shortage may be
// retried quietly: a shortage taken for a vanished table forgets a live table, a refusal
// taken for a shortage is retried for ever without an error.
TEST(NftErrorTest, ErrorsAreToldApartByTheSystemErrorTheyName) {
    const ErrorRow rows[] = {
        {"Error: No such file or directory\nlist table inet tsc_swg\n", NftErrorKind::NotFound},
        {"Error: Could not process rule: No such file or directory\nflush set inet tsc_swg e",
         NftErrorKind::NotFound},
        {"Error: Could not process rule: Cannot allocate memory\n", NftErrorKind::Transient},
        {"Error: Could not process rule: No buffer space available\n", NftErrorKind::Transient},
        {"no netlink socket: Too many open files", NftErrorKind::Transient},
        {"", NftErrorKind::Transient},
        {"Error: Could not process rule: Operation not permitted\n", NftErrorKind::Refused},
        {"Error: Could not process rule: Operation not supported\n", NftErrorKind::Refused},
        {"Error: syntax error, unexpected '}', expecting newline or semicolon\n",
         NftErrorKind::Refused},
    };
    for (const ErrorRow& row : rows) EXPECT_EQ(ClassifyNftError(row.text), row.kind) << row.text;
}

}  // namespace
