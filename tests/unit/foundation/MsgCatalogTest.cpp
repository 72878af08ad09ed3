// SPDX-License-Identifier: Apache-2.0
// MsgCatalog: language from the environment, catalogue under the data path, the shipped German
// texts.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <string>
#include <vector>

#include "ThreadTestSupport.h"
#include "foundation/MsgCatalog.h"
#include "support/MoFile.h"

namespace {

using swg_test::BuildMoFile;

const char* const kEnvironment[] = {"LC_ALL", "LC_MESSAGES", "LANG", "SWG_DATA_ROOT"};

// Keeps the locale variables and the data path as the test found them.
class ScopedEnvironment {
public:
    ScopedEnvironment() {
        for (const char* name : kEnvironment) {
            const char* value = ::getenv(name);
            if (value != nullptr) m_saved[name] = value;
        }
        Clear();
    }
    ~ScopedEnvironment() {
        Clear();
        for (const auto& entry : m_saved) ::setenv(entry.first.c_str(), entry.second.c_str(), 1);
    }
    static void Clear() {
        for (const char* name : kEnvironment) ::unsetenv(name);
    }
    static void Set(const char* name, const std::string& value) {
        ::setenv(name, value.c_str(), 1);
    }

private:
    std::map<std::string, std::string> m_saved;
};

class MsgCatalogTest : public ::testing::Test {
protected:
    void SetUp() override {
        MsgCatalog::Uninitialize();
        ScopedEnvironment::Set("SWG_DATA_ROOT", m_data.Path());
    }
    void TearDown() override { MsgCatalog::Uninitialize(); }

    std::string LocaleDir() const { return m_data.Path() + "/trevo/trevoclient/l10n"; }

    void WriteGerman(const std::string& language) {
        ASSERT_TRUE(
            swg_test::WriteCatalogue(LocaleDir(), language, "Linkmantle",
                                     BuildMoFile({{"", "Content-Type: text/plain; charset=UTF-8\n"},
                                                  {"Connection Failure", "Verbindungsfehler"}})));
    }

    static std::string Message(const char* key) {
        std::string text = "stale";
        MsgCatalog::getMessage(key, text);
        return text;
    }

    ScopedEnvironment m_environment;
    swg_test::TempFolder m_data;
};

struct LocaleCase {
    const char* lcAll;
    const char* lcMessages;
    const char* lang;
    const char* code;
};

class MsgCatalogLangCodeTest : public ::testing::TestWithParam<LocaleCase> {
protected:
    ScopedEnvironment m_environment;
};

// The page's lang attribute and the catalogue folder come from this code; the precedence of
// the variables and the C locale must map as a Linux user expects.
TEST_P(MsgCatalogLangCodeTest, LanguageCodeFromEnvironment) {
    const LocaleCase& c = GetParam();
    if (c.lcAll != nullptr) ScopedEnvironment::Set("LC_ALL", c.lcAll);
    if (c.lcMessages != nullptr) ScopedEnvironment::Set("LC_MESSAGES", c.lcMessages);
    if (c.lang != nullptr) ScopedEnvironment::Set("LANG", c.lang);
    std::string code = "stale";
    MsgCatalog::getLangCode(code);
    EXPECT_EQ(code, c.code);
}

INSTANTIATE_TEST_SUITE_P(
    Environments, MsgCatalogLangCodeTest,
    ::testing::Values(LocaleCase{nullptr, nullptr, nullptr, "en-us"},
                      LocaleCase{nullptr, nullptr, "de_DE.UTF-8", "de-de"},
                      LocaleCase{nullptr, "fr_CA.UTF-8", "de_DE.UTF-8", "fr-ca"},
                      LocaleCase{"it_IT@euro", "fr_CA.UTF-8", "de_DE.UTF-8", "it-it"},
                      LocaleCase{"", "", "pt_BR", "pt-br"},  // empty counts as unset
                      LocaleCase{nullptr, nullptr, "C", "en-us"},
                      LocaleCase{nullptr, nullptr, "POSIX", "en-us"},
                      LocaleCase{nullptr, nullptr, "C.UTF-8", "en-us"},
                      LocaleCase{"C", nullptr, "de_DE.UTF-8", "en-us"},
                      LocaleCase{nullptr, nullptr, "de", "de"},
                      LocaleCase{nullptr, nullptr, "1234", "en-us"}));

// Catalogues must follow SWG_DATA_ROOT, and lie under /opt without it.
TEST_F(MsgCatalogTest, LocalizationPathFollowsDataRoot) {
    std::string path;
    MsgCatalog::getLocalizationPath(path);
    EXPECT_EQ(path, LocaleDir());
    ::unsetenv("SWG_DATA_ROOT");
    MsgCatalog::getLocalizationPath(path);
    EXPECT_EQ(path, "/opt/trevo/trevoclient/l10n");
}

// A missing catalogue is no error: the key is the English text.
TEST_F(MsgCatalogTest, NoCatalogueGivesTheKey) {
    ScopedEnvironment::Set("LANG", "de_DE.UTF-8");
    EXPECT_EQ(Message("Connection Failure"), "Connection Failure");
}

// A null key must not crash and must leave no stale text behind.
TEST_F(MsgCatalogTest, NullKeyGivesEmptyTextAndLogs) {
    swg_test::RecordingTrace trace;
    EXPECT_EQ(Message(nullptr), "");
    EXPECT_EQ(trace.Count(ERR, "Bad parameter. NULL pointer."), 1);
}

// de-de with only a de catalogue gives German; the language is logged once, at start.
TEST_F(MsgCatalogTest, RegionalLanguageUsesLanguageCatalogue) {
    swg_test::RecordingTrace trace;
    WriteGerman("de");
    ScopedEnvironment::Set("LANG", "de_DE.UTF-8");
    EXPECT_EQ(Message("Connection Failure"), "Verbindungsfehler");
    EXPECT_EQ(Message("Not in the catalogue"), "Not in the catalogue");
    EXPECT_EQ(trace.Count(TRACE, "Current locale: de-de"), 1);
}

// The C locale is English even when a German catalogue lies there.
TEST_F(MsgCatalogTest, PosixLocaleStaysEnglish) {
    WriteGerman("de");
    ScopedEnvironment::Set("LC_ALL", "POSIX");
    ScopedEnvironment::Set("LANG", "de_DE.UTF-8");
    EXPECT_EQ(Message("Connection Failure"), "Connection Failure");
}

// The language is read once; a later change of the environment is not seen until restart.
TEST_F(MsgCatalogTest, LanguageIsReadOnFirstUseOnly) {
    WriteGerman("de");
    ScopedEnvironment::Set("LANG", "de_DE.UTF-8");
    EXPECT_EQ(Message("Connection Failure"), "Verbindungsfehler");
    ScopedEnvironment::Set("LANG", "en_GB.UTF-8");
    EXPECT_EQ(Message("Connection Failure"), "Verbindungsfehler");
    MsgCatalog::Uninitialize();
    EXPECT_EQ(Message("Connection Failure"), "Connection Failure");
}

// A catalogue in another charset must be refused by name, and UTF-8 accepted.
TEST_F(MsgCatalogTest, SetCatalogChecksTheCharsetOfTheMappedCatalogue) {
    swg_test::RecordingTrace trace;
    ScopedEnvironment::Set("LANG", "de_DE");
    ASSERT_TRUE(swg_test::WriteCatalogue(
        LocaleDir(), "de", "Linkmantle",
        BuildMoFile(
            {{"", "Content-Type: text/plain; charset=ISO-8859-1\n"}, {"Unknown", "Unbekannt"}})));
    ASSERT_TRUE(swg_test::WriteCatalogue(
        LocaleDir(), "de", "Other",
        BuildMoFile({{"", "Content-Type: text/plain; charset=UTF-8\n"}, {"Unknown", "x"}})));
    EXPECT_EQ(Message("Unknown"), "Unbekannt");  // maps the catalogue of "Linkmantle"

    EXPECT_TRUE(MsgCatalog::setCatalog("Other"));  // nothing mapped for it yet
    EXPECT_EQ(Message("Unknown"), "x");
    EXPECT_TRUE(MsgCatalog::setCatalog("Other"));
    EXPECT_EQ(trace.Count(TRACE, "The character set is utf-8."), 0);  // same catalogue: no check
    EXPECT_FALSE(MsgCatalog::setCatalog("Linkmantle"));
    EXPECT_EQ(trace.Count(ERR, "The specified character set <ISO-8859-1> is unsupported."), 1);
    EXPECT_TRUE(MsgCatalog::setCatalog("Other"));
    EXPECT_EQ(trace.Count(TRACE, "The character set is utf-8."), 1);
}

// The catalogue built from l10n/de.po must translate every text of the refusal page.
TEST_F(MsgCatalogTest, ShippedGermanCatalogueTranslatesTheFailureTexts) {
    ScopedEnvironment::Set("SWG_DATA_ROOT", SWG_BUILD_DATA_ROOT);
    ScopedEnvironment::Set("LANG", "de_AT.UTF-8");
    const std::vector<std::string> keys = {
        "Unable to verify the license key.",
        "Could not establish a connection.",
        "Could not establish a secure connection.",
        "Unable to verify the identity of the peer.",
        "Invalid response received from the proxy server.",
        "Unable to connect to the proxy server.",
        "Please provide the proxy credentials in Linkmantle Web Security.",
        "Unknown",
        "Connection Failure",
        "Fail open policy set.",
        "Fail close policy set.",
    };
    for (const std::string& key : keys) {
        const std::string text = Message(key.c_str());
        EXPECT_FALSE(text.empty()) << key;
        EXPECT_NE(text, key) << "no German text for: " << key;
    }
    EXPECT_EQ(Message("Connection Failure"), "Verbindungsfehler");
    EXPECT_EQ(Message("Could not establish a connection."),
              "Es konnte keine Verbindung hergestellt werden.");
    // Texts that the page keeps in English are not in the catalogue.
    EXPECT_EQ(Message("Reason"), "Reason");
}

}  // namespace
