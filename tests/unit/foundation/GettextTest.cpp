// SPDX-License-Identifier: Apache-2.0
// The tsc_ gettext functions over .mo catalogues that the tests write themselves.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "foundation/Gettext.h"
#include "support/MoFile.h"
#include "support/SyslogCapture.h"

namespace {

using swg_test::BuildMoFile;
using swg_test::MoEntry;
using swg_test::MoOptions;

constexpr char kDomain[] = "Linkmantle";
constexpr char kHeader[] = "Content-Type: text/plain; charset=UTF-8\nLanguage: de\n";

std::vector<MoEntry> GermanEntries() {
    return {{"", kHeader},
            {"Connection Failure", "Verbindungsfehler"},
            {"Unknown", "Unbekannt"},
            {std::string("one file\0%d files", 17), std::string("eine Datei\0%d Dateien", 21)}};
}

class GettextTest : public ::testing::Test {
protected:
    void SetUp() override {
        tsc_resetbindings();
        ASSERT_NE(tsc::bindtextdomain(kDomain, m_folder.Path().c_str()), nullptr);
        ASSERT_NE(tsc::textdomain(kDomain), nullptr);
    }
    void TearDown() override { tsc_resetbindings(); }

    void Write(const std::string& language, const std::string& bytes) {
        ASSERT_TRUE(swg_test::WriteCatalogue(m_folder.Path(), language, kDomain, bytes));
    }
    static std::string In(const char* language, const char* key) {
        return tsc_gettextl(key, language);
    }
    static std::string Plural(unsigned long n) {
        return tsc_ngettext("one file", "%d files", n, "de");
    }

    swg_test::TempFolder m_folder;
};

class GettextByteOrderTest : public GettextTest, public ::testing::WithParamInterface<bool> {
protected:
    MoOptions Options() const {
        MoOptions options;
        options.bigEndian = GetParam();
        return options;
    }
};

// A catalogue written on a machine of the other byte order misread, plural forms mixed up,
// or a lost or misplaced entry in a large sorted table, turning hits into misses or the reverse.
TEST_P(GettextByteOrderTest, FindsEveryEntryOfALargeTableAndNothingElse) {
    std::vector<MoEntry> entries = GermanEntries();
    char key[32];
    char value[32];
    for (int i = 0; i < 2000; ++i) {
        std::snprintf(key, sizeof key, "key %04d", i * 2);
        std::snprintf(value, sizeof value, "Wert %04d", i * 2);
        entries.push_back({key, value});
    }
    Write("de", BuildMoFile(entries, Options()));
    EXPECT_EQ(In("de", "Connection Failure"), "Verbindungsfehler");
    EXPECT_EQ(Plural(1), "eine Datei");
    EXPECT_EQ(Plural(3), "%d Dateien");
    EXPECT_EQ(tsc_getcharset(kDomain), "UTF-8");
    for (int i = 0; i < 4000; ++i) {
        std::snprintf(key, sizeof key, "key %04d", i);
        std::snprintf(value, sizeof value, "Wert %04d", i);
        ASSERT_EQ(In("de", key), i % 2 == 0 ? std::string(value) : std::string(key));
    }
    EXPECT_EQ(In("de", "aaa"), "aaa");  // before the first original
    EXPECT_EQ(In("de", "zzz"), "zzz");  // after the last
    EXPECT_EQ(In("de", "key 0002 "), "key 0002 ");
}

INSTANTIATE_TEST_SUITE_P(ByteOrders, GettextByteOrderTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& param) {
                             return std::string(param.param ? "BigEndian" : "LittleEndian");
                         });

// A file of another kind, of a later revision, or with tables or strings outside the file
// read anyway (garbage texts or a crash) instead of passed over.
TEST_F(GettextTest, RejectsFilesThatAreNotSoundCatalogues) {
    MoOptions badMagic;
    badMagic.magic = 0x12345678;
    MoOptions revision1;
    revision1.revision = 1;
    std::string hugeCount = BuildMoFile(GermanEntries());
    swg_test::PatchMoWord(hugeCount, 8, 0x10000000, false);
    std::string farString = BuildMoFile(GermanEntries());
    // Offset word of the second translation descriptor: header, 4 originals, one descriptor.
    swg_test::PatchMoWord(farString, 28 + 4 * 8 + 8 + 4, 0x7FFFFFF0, false);
    std::string unterminated = BuildMoFile(GermanEntries());
    unterminated.pop_back();  // the last string loses its zero

    const struct {
        const char* language;
        std::string bytes;
    } cases[] = {{"de", BuildMoFile(GermanEntries(), badMagic)},
                 {"fr", BuildMoFile(GermanEntries(), revision1)},
                 {"it", "not a catalogue at all"},
                 {"es", std::string("\xde\x12\x04", 3)},
                 {"nl", hugeCount},
                 {"pt", farString},
                 {"sv", unterminated}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.language);
        Write(c.language, c.bytes);
        EXPECT_EQ(In(c.language, "Unknown"), "Unknown");
    }
    EXPECT_EQ(tsc_getcharset(kDomain), "");
}

// A catalogue that another user could have written read anyway, or its refusal logged on
// every lookup (a failure page per connection).
TEST_F(GettextTest, UntrustedCatalogueIsMissingAndLoggedOnce) {
    Write("de", BuildMoFile(GermanEntries()));
    const std::string file = m_folder.Path() + "/de/LC_MESSAGES/Linkmantle.mo";
    ASSERT_EQ(::chmod(file.c_str(), 0666), 0);
    swg_test::SyslogCapture capture;
    EXPECT_EQ(In("de", "Unknown"), "Unknown");
    EXPECT_EQ(In("de", "Unknown"), "Unknown");
    const std::string line = "SWG: Refused to read '" + file + "': '" + file + "' is writable";
    EXPECT_EQ(capture.LinesWith(line).size(), 1u);
    ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    EXPECT_EQ(In("de", "Unknown"), "Unbekannt");
}

// A region without its own catalogue not falling back to the bare language, a regional
// catalogue losing to it, or the catalogue of the last call leaking into another language.
TEST_F(GettextTest, RegionFallsBackToLanguageAndEachLanguageGetsItsOwn) {
    Write("de", BuildMoFile(GermanEntries()));
    Write("de-ch", BuildMoFile({{"Unknown", "Unbekannt (CH)"}}));
    Write("fr", BuildMoFile({{"Unknown", "Inconnu"}}));
    EXPECT_EQ(In("de-de", "Unknown"), "Unbekannt");
    EXPECT_EQ(In("de-ch", "Unknown"), "Unbekannt (CH)");
    EXPECT_EQ(In("fr", "Unknown"), "Inconnu");
    EXPECT_EQ(In("fr-fr", "Unknown"), "Inconnu");
    EXPECT_EQ(In("es", "Unknown"), "Unknown");
    EXPECT_EQ(In("de", "Unknown"), "Unbekannt");
}

// A language list not tried in order, or "C" and "POSIX" looked up as catalogues.
TEST_F(GettextTest, LanguageListIsTriedInOrderAndCOrPosixStopsIt) {
    Write("de", BuildMoFile(GermanEntries()));
    Write("C", BuildMoFile({{"Unknown", "from C"}}));
    Write("POSIX", BuildMoFile({{"Unknown", "from POSIX"}}));
    EXPECT_EQ(In("fr:de", "Unknown"), "Unbekannt");
    EXPECT_EQ(In("C", "Unknown"), "Unknown");
    EXPECT_EQ(In("POSIX", "Unknown"), "Unknown");
    EXPECT_EQ(In("C:de", "Unknown"), "Unknown");
    EXPECT_EQ(std::string(tsc_gettext("Unknown")), "Unknown");  // no language, no lookup
}

}  // namespace
