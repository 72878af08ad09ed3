// SPDX-License-Identifier: Apache-2.0
// MsgCatalog: language from the environment, catalogue under the data path, the shipped German
// texts.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "foundation/MsgCatalog.h"
#include "support/MoFile.h"
#include "support/ThreadTestSupport.h"

namespace {

using swg_test::BuildMoFile;

using Environment = swg_test::ScopedLocaleEnvironment;

struct LocaleCase {
    const char* lcAll;
    const char* lcMessages;
    const char* lang;
    const char* code;
};

class MsgCatalogLangCodeTest : public ::testing::TestWithParam<LocaleCase> {
protected:
    Environment m_environment;
};

// The variables read in the wrong order, an empty one taken as set, or "C" and "POSIX"
// (and unreadable values) not mapped to en-us.
TEST_P(MsgCatalogLangCodeTest, LanguageCodeFromEnvironment) {
    const LocaleCase& c = GetParam();
    if (c.lcAll != nullptr) ::setenv("LC_ALL", c.lcAll, 1);
    if (c.lcMessages != nullptr) ::setenv("LC_MESSAGES", c.lcMessages, 1);
    if (c.lang != nullptr) ::setenv("LANG", c.lang, 1);
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
                      LocaleCase{"", "", "pt_BR", "pt-br"},
                      LocaleCase{nullptr, nullptr, "C", "en-us"},
                      LocaleCase{nullptr, nullptr, "POSIX", "en-us"},
                      LocaleCase{nullptr, nullptr, "C.UTF-8", "en-us"},
                      LocaleCase{"C", nullptr, "de_DE.UTF-8", "en-us"},
                      LocaleCase{nullptr, nullptr, "de", "de"},
                      LocaleCase{nullptr, nullptr, "1234", "en-us"}));

class MsgCatalogTest : public ::testing::Test {
protected:
    void SetUp() override {
        MsgCatalog::Uninitialize();
        ::setenv("SWG_DATA_ROOT", m_data.Path().c_str(), 1);
    }
    void TearDown() override { MsgCatalog::Uninitialize(); }

    void WriteCatalogue(const std::string& domain, const char* charset, const char* german) {
        ASSERT_TRUE(swg_test::WriteCatalogue(
            m_data.Path() + "/trevo/trevoclient/l10n", "de", domain,
            BuildMoFile({{"", std::string("Content-Type: text/plain; charset=") + charset + "\n"},
                         {"Connection Failure", german}})));
    }
    static std::string Message(const char* key) {
        std::string text = "stale";
        MsgCatalog::getMessage(key, text);
        return text;
    }

    Environment m_environment;
    swg_test::TempFolder m_data;
};

// A catalogue in a charset other than UTF-8 accepted, or a UTF-8 one refused.
TEST_F(MsgCatalogTest, SetCatalogChecksTheCharsetOfTheMappedCatalogue) {
    swg_test::RecordingTrace trace;
    ::setenv("LANG", "de_DE", 1);
    WriteCatalogue("Linkmantle", "ISO-8859-1", "Verbindungsfehler");
    WriteCatalogue("Other", "UTF-8", "x");
    EXPECT_EQ(Message("Connection Failure"), "Verbindungsfehler");  // maps "Linkmantle"
    EXPECT_TRUE(MsgCatalog::setCatalog("Other"));
    EXPECT_EQ(Message("Connection Failure"), "x");
    EXPECT_FALSE(MsgCatalog::setCatalog("Linkmantle"));
    EXPECT_EQ(trace.Count(ERR, "The specified character set <ISO-8859-1> is unsupported."), 1);
}

// A text of the refusal page missing from the catalogue built from l10n/de.po, or the build
// not placing it where the agent looks.
TEST_F(MsgCatalogTest, ShippedGermanCatalogueTranslatesTheFailureTexts) {
    ::setenv("SWG_DATA_ROOT", SWG_BUILD_DATA_ROOT, 1);
    ::setenv("LANG", "de_AT.UTF-8", 1);
    for (const char* key :
         {"Unable to verify the license key.", "Could not establish a connection.",
          "Could not establish a secure connection.", "Unable to verify the identity of the peer.",
          "Invalid response received from the proxy server.",
          "Unable to connect to the proxy server.",
          "Please provide the proxy credentials in Linkmantle Web Security.", "Unknown",
          "Fail open policy set.", "Fail close policy set."}) {
        EXPECT_NE(Message(key), key) << "no German text";
    }
    EXPECT_EQ(Message("Connection Failure"), "Verbindungsfehler");
    EXPECT_EQ(Message("Could not establish a connection."),
              "Es konnte keine Verbindung hergestellt werden.");
    EXPECT_EQ(Message("Reason"), "Reason");  // the page keeps this one in English
}

}  // namespace
