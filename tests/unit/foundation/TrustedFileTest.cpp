// SPDX-License-Identifier: Apache-2.0
// The trust check of files the agent reads as root: each way a user could have steered one.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <fstream>

#include "foundation/TrustedFile.h"
#include "support/MoFile.h"

namespace {

struct TrustCase {
    const char* name;
    const char* target;  // below the root, "" for the root itself
    enum { None, Mode, Owner, Link } change;
    mode_t mode;
    const char* refusal;  // after "'<target>' is ", "" when the file opens
};

class TrustedFileTest : public ::testing::TestWithParam<TrustCase> {};

// <root>/a/b/f, folders 0755, file 0644, then the case's change to its target.
TEST_P(TrustedFileTest, RefusesWhatAnotherUserCouldHaveWritten) {
    const TrustCase& c = GetParam();
    swg_test::TempFolder root;
    const auto at = [&](const std::string& t) {
        return t.empty() ? root.Path() : root.Path() + "/" + t;
    };
    const std::string file = at("a/b/f");
    boost::filesystem::create_directories(at("a/b"));
    std::ofstream(file) << "text";
    for (const char* path : {"", "a", "a/b"}) ASSERT_EQ(::chmod(at(path).c_str(), 0755), 0);
    ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    const std::string target = at(c.target);
    if (c.change == TrustCase::Mode) {
        ASSERT_EQ(::chmod(target.c_str(), c.mode), 0);
    }
    if (c.change == TrustCase::Owner) {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root to chown";
        ASSERT_EQ(::chown(target.c_str(), 4242, gid_t(-1)), 0);
    }
    if (c.change == TrustCase::Link) {
        // A sound copy beside the target, and the target replaced by a link to it.
        boost::filesystem::rename(target, target + ".real");
        ASSERT_EQ(::symlink((target + ".real").c_str(), target.c_str()), 0);
    }

    TrustedOpen opened = OpenTrustedFile(file, root.Path());
    const std::string expected = *c.refusal != '\0' ? "'" + target + "' is " + c.refusal : "";
    EXPECT_EQ(opened.refusal, expected);
    EXPECT_EQ(opened.result,
              expected.empty() ? TrustedOpenResult::Opened : TrustedOpenResult::Untrusted);
    char text[8] = {};
    EXPECT_EQ(::read(opened.fd.Get(), text, sizeof text), expected.empty() ? 4 : -1);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TrustedFileTest,
    ::testing::Values(
        TrustCase{"Sound", "", TrustCase::None, 0, ""},
        TrustCase{"FileWorldWritable", "a/b/f", TrustCase::Mode, 0646, "writable by others"},
        TrustCase{"FileGroupWritable", "a/b/f", TrustCase::Mode, 0664, "writable by others"},
        TrustCase{"OwnFolderGroupWritable", "a/b", TrustCase::Mode, 0775, "writable by others"},
        TrustCase{"MiddleFolderSticky", "a", TrustCase::Mode, 01777, "writable by others"},
        TrustCase{"RootWorldWritable", "", TrustCase::Mode, 0757, "writable by others"},
        TrustCase{"FileOwnedByAUser", "a/b/f", TrustCase::Owner, 0, "owned by uid 4242"},
        TrustCase{"FolderOwnedByAUser", "a", TrustCase::Owner, 0, "owned by uid 4242"},
        TrustCase{"FileIsALink", "a/b/f", TrustCase::Link, 0, "a symbolic link"},
        TrustCase{"FolderReplacedByALink", "a/b", TrustCase::Link, 0, "a symbolic link"}),
    [](const ::testing::TestParamInfo<TrustCase>& row) { return row.param.name; });

}  // namespace
