// SPDX-License-Identifier: Apache-2.0
// The tsc_ gettext functions over .mo catalogues that the tests write themselves.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <string>
#include <vector>

#include "foundation/Gettext.h"
#include "support/MoFile.h"

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
        ASSERT_FALSE(m_folder.Path().empty());
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

// A catalogue written on a machine of the other byte order must read the same.
TEST_P(GettextByteOrderTest, TranslatesSingularAndPluralEntries) {
    Write("de", BuildMoFile(GermanEntries(), Options()));

    EXPECT_EQ(In("de", "Connection Failure"), "Verbindungsfehler");
    EXPECT_EQ(std::string(tsc_ngettext("one file", "%d files", 1, "de")), "eine Datei");
    EXPECT_EQ(std::string(tsc_ngettext("one file", "%d files", 3, "de")), "%d Dateien");
    EXPECT_EQ(std::string(tsc_ngettext("one day", "%d days", 3, "de")), "%d days");
    EXPECT_EQ(std::string(tsc_dcgettext(kDomain, "Unknown", LC_MESSAGES, "de")), "Unbekannt");
    EXPECT_EQ(tsc_getcharset(kDomain), "UTF-8");
}

// A lost or misplaced entry in a large sorted table would turn hits into misses or the
// reverse; every original, and the gaps around them, are searched.
TEST_P(GettextByteOrderTest, BinarySearchFindsEveryEntryOfALargeTableAndNothingElse) {
    std::vector<MoEntry> entries{{"", kHeader}};
    char key[32];
    char value[32];
    for (int i = 0; i < 2000; ++i) {
        std::snprintf(key, sizeof key, "key %04d", i * 2);
        std::snprintf(value, sizeof value, "Wert %04d", i * 2);
        entries.push_back({key, value});
    }
    Write("de", BuildMoFile(entries, Options()));

    int hits = 0;
    for (int i = 0; i < 4000; ++i) {
        std::snprintf(key, sizeof key, "key %04d", i);
        std::snprintf(value, sizeof value, "Wert %04d", i);
        const std::string got = In("de", key);
        EXPECT_EQ(got, i % 2 == 0 ? std::string(value) : std::string(key)) << key;
        hits += got != key ? 1 : 0;
    }
    EXPECT_EQ(hits, 2000);
    EXPECT_EQ(In("de", "aaa"), "aaa");  // before the first original
    EXPECT_EQ(In("de", "zzz"), "zzz");  // after the last
    EXPECT_EQ(In("de", "key 0002 "), "key 0002 ");
}

INSTANTIATE_TEST_SUITE_P(ByteOrders, GettextByteOrderTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& param) {
                             return param.param ? std::string("BigEndian")
                                                : std::string("LittleEndian");
                         });

// A file of another kind, or of a later revision, must be passed over, not misread.
TEST_F(GettextTest, RejectsBadMagicAndNonZeroRevision) {
    MoOptions badMagic;
    badMagic.magic = 0x12345678;
    Write("de", BuildMoFile(GermanEntries(), badMagic));
    EXPECT_EQ(In("de", "Unknown"), "Unknown");
    EXPECT_EQ(tsc_getcharset(kDomain), "");

    MoOptions revision1;
    revision1.revision = 1;
    Write("fr", BuildMoFile(GermanEntries(), revision1));
    EXPECT_EQ(In("fr", "Unknown"), "Unknown");

    Write("it", "not a catalogue at all");
    EXPECT_EQ(In("it", "Unknown"), "Unknown");
    Write("es", std::string("\xde\x12\x04", 3));  // shorter than a magic
    EXPECT_EQ(In("es", "Unknown"), "Unknown");
}

// Tables or strings pointing outside the file must not be read (a crash, or garbage texts).
TEST_F(GettextTest, RejectsTablesAndStringsOutsideTheFile) {
    std::string hugeCount = BuildMoFile(GermanEntries());
    swg_test::PatchMoWord(hugeCount, 8, 0x10000000, false);
    Write("de", hugeCount);
    EXPECT_EQ(In("de", "Unknown"), "Unknown");

    std::string farString = BuildMoFile(GermanEntries());
    // Offset word of the second translation descriptor: header, 4 originals, one descriptor.
    swg_test::PatchMoWord(farString, 28 + 4 * 8 + 8 + 4, 0x7FFFFFF0, false);
    Write("fr", farString);
    EXPECT_EQ(In("fr", "Unknown"), "Unknown");

    std::string unterminated = BuildMoFile(GermanEntries());
    unterminated.pop_back();  // the last string loses its zero
    Write("it", unterminated);
    EXPECT_EQ(In("it", "Unknown"), "Unknown");
}

// A user whose language has a region must still get the catalogue of the bare language,
// while a catalogue for the region itself wins when there is one.
TEST_F(GettextTest, RegionFallsBackToLanguageAndRegionalCatalogueWins) {
    Write("de", BuildMoFile(GermanEntries()));
    EXPECT_EQ(In("de-de", "Unknown"), "Unbekannt");
    EXPECT_EQ(In("de-at", "Unknown"), "Unbekannt");

    Write("de-ch", BuildMoFile({{"Unknown", "Unbekannt (CH)"}}));
    EXPECT_EQ(In("de-ch", "Unknown"), "Unbekannt (CH)");
    EXPECT_EQ(In("fr-fr", "Unknown"), "Unknown");
}

// The language list is tried in order, and "C" or "POSIX" mean the untranslated texts even
// when a catalogue happens to lie under that name.
TEST_F(GettextTest, LanguageListIsTriedInOrderAndCOrPosixStopsIt) {
    Write("de", BuildMoFile(GermanEntries()));
    Write("C", BuildMoFile({{"Unknown", "from C"}}));
    Write("POSIX", BuildMoFile({{"Unknown", "from POSIX"}}));

    EXPECT_EQ(In("fr:de", "Unknown"), "Unbekannt");
    EXPECT_EQ(In("C", "Unknown"), "Unknown");
    EXPECT_EQ(In("POSIX", "Unknown"), "Unknown");
    EXPECT_EQ(In("C:de", "Unknown"), "Unknown");
}

// The catalogue kept from the last call must not leak into a call in another language.
TEST_F(GettextTest, SwitchingLanguageSwitchesCatalogue) {
    Write("de", BuildMoFile(GermanEntries()));
    Write("fr", BuildMoFile({{"Unknown", "Inconnu"}}));

    EXPECT_EQ(In("de", "Unknown"), "Unbekannt");
    EXPECT_EQ(In("fr", "Unknown"), "Inconnu");
    EXPECT_EQ(In("es", "Unknown"), "Unknown");
    EXPECT_EQ(In("de", "Unknown"), "Unbekannt");
}

// Calls without a language, with LC_ALL, or with a null key must not consult a catalogue.
TEST_F(GettextTest, NoLookupWithoutLanguageOrWithInvalidCategory) {
    Write("de", BuildMoFile(GermanEntries()));

    EXPECT_EQ(std::string(tsc_gettext("Unknown")), "Unknown");
    EXPECT_EQ(std::string(tsc_dgettext(kDomain, "Unknown")), "Unknown");
    EXPECT_EQ(std::string(tsc_dcgettext(kDomain, "Unknown", LC_ALL, "de")), "Unknown");
    EXPECT_EQ(std::string(tsc_dcgettext(kDomain, "Unknown", 99, "de")), "Unknown");
    EXPECT_EQ(tsc_gettextl(nullptr, "de"), nullptr);
    EXPECT_EQ(std::string(tsc_dngettext(kDomain, "one file", "%d files", 2, nullptr)), "%d files");
}

// Domains: a rebinding to another folder must drop the catalogue mapped from the old one,
// and a domain nobody bound finds no catalogue.
TEST_F(GettextTest, DomainBindingsAndRebinding) {
    Write("de", BuildMoFile(GermanEntries()));
    EXPECT_EQ(In("de", "Unknown"), "Unbekannt");

    swg_test::TempFolder other;
    ASSERT_TRUE(swg_test::WriteCatalogue(other.Path(), "de", kDomain,
                                         BuildMoFile({{"Unknown", "Unbekannt (neu)"}})));
    EXPECT_EQ(std::string(tsc::bindtextdomain(kDomain, other.Path().c_str())), other.Path());
    EXPECT_EQ(In("de", "Unknown"), "Unbekannt (neu)");
    EXPECT_EQ(std::string(tsc::bindtextdomain(kDomain, nullptr)), other.Path());

    EXPECT_EQ(std::string(tsc_dgettext("Unbound", "Unknown", "de")), "Unknown");
    EXPECT_EQ(std::string(tsc::bindtextdomain("Unbound", nullptr)), "");
    EXPECT_EQ(tsc::bindtextdomain(nullptr, "/x"), nullptr);
    EXPECT_EQ(tsc::bindtextdomain("", "/x"), nullptr);

    EXPECT_EQ(std::string(tsc::textdomain(nullptr)), kDomain);
    EXPECT_EQ(std::string(tsc::textdomain("")), "messages");
    EXPECT_EQ(In("de", "Unknown"), "Unknown");  // "messages" has no catalogue
    EXPECT_EQ(tsc::textdomain(std::string(2000, 'd').c_str()), nullptr);
    EXPECT_EQ(std::string(tsc::textdomain(nullptr)), "messages");

    EXPECT_EQ(tsc::bind_textdomain_codeset(kDomain, nullptr), nullptr);
    EXPECT_EQ(std::string(tsc::bind_textdomain_codeset(kDomain, "UTF-8")), "UTF-8");
    EXPECT_EQ(std::string(tsc::bind_textdomain_codeset(kDomain, nullptr)), "UTF-8");
}

}  // namespace
