// SPDX-License-Identifier: Apache-2.0
// MsgCatalog: the language of the service's environment and lookups in its catalogue.
#include "foundation/MsgCatalog.h"

#include <boost/thread/lock_guard.hpp>
#include <clocale>
#include <cstdlib>

#include "foundation/Gettext.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Trace.h"

boost::recursive_mutex MsgCatalog::m_Lock;
const std::string MsgCatalog::sm_localeDir = "l10n";
const std::string MsgCatalog::sm_defaultCatalog = "Linkmantle";
std::string MsgCatalog::sm_currentCatalog;
std::string MsgCatalog::sm_currentLocale;
bool MsgCatalog::sm_bInitialized = false;

namespace {

constexpr char kDefaultLangCode[] = "en-us";

bool IsAsciiLetters(const std::string& text) {
    if (text.empty()) return false;
    for (const char c : text) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))) return false;
    }
    return true;
}

std::string LowerAscii(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

// The locale variables in the order in which they override one another (locale(7)).
std::string LocaleOfEnvironment() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(name);
        if (value != nullptr && value[0] != '\0') return value;
    }
    return std::string();
}

// "de_DE.UTF-8@euro" -> "de-de", "de" -> "de"; "" when the name gives no language.
std::string LangCodeOfLocale(std::string name) {
    const std::size_t cut = name.find_first_of(".@");
    if (cut != std::string::npos) name.erase(cut);
    if (name == "C" || name == "POSIX") return std::string();
    const std::size_t underscore = name.find('_');
    const std::string language = name.substr(0, underscore);
    if (!IsAsciiLetters(language)) return std::string();
    if (underscore == std::string::npos) return LowerAscii(language);
    const std::string region = name.substr(underscore + 1);
    if (!IsAsciiLetters(region)) return LowerAscii(language);
    return LowerAscii(language + "-" + region);
}

}  // namespace

void MsgCatalog::getMessage(char const* key, std::string& text) {
    boost::lock_guard<boost::recursive_mutex> hold(m_Lock);
    text.clear();
    if (key == nullptr) {
        DNTRACE(ERR, "Bad parameter. NULL pointer.");
        return;
    }
    if (!sm_bInitialized) {
        initMsgCatalog(sm_defaultCatalog);
        sm_bInitialized = true;
    }
    const char* found =
        tsc_gettextl(key, sm_currentLocale.empty() ? nullptr : sm_currentLocale.c_str());
    text = found != nullptr ? found : key;
}

void MsgCatalog::initMsgCatalog(std::string const& catalog) {
    boost::lock_guard<boost::recursive_mutex> hold(m_Lock);
    if (!setCatalog(catalog))
        DNTRACE(ERR, "Error setting the translation catalog %s.", catalog.c_str());
    getLangCode(sm_currentLocale);
    DNTRACE(TRACE, "Current locale: %s", sm_currentLocale.c_str());
}

bool MsgCatalog::setCatalog(std::string const& catalog) {
    boost::lock_guard<boost::recursive_mutex> hold(m_Lock);
    if (catalog == sm_currentCatalog) return true;
    sm_currentCatalog = catalog;
    // Once per catalogue, under the catalogue's lock, as the catalogue's set-up requires.
    std::setlocale(LC_ALL, "");  // NOLINT(concurrency-mt-unsafe)
    // Numbers the agent writes to logs and JSON files keep the decimal point whatever the
    // user's locale.
    std::setlocale(LC_NUMERIC, "C");  // NOLINT(concurrency-mt-unsafe)

    std::string path;
    getLocalizationPath(path);
    (void)tsc::bindtextdomain(catalog.c_str(), path.c_str());
    (void)tsc::textdomain(catalog.c_str());

    std::string charset;
    getCharset(charset);
    if (charset.empty()) {
        (void)tsc_gettext("DummyMessageToForceMessageCatalogSetup");
        getCharset(charset);
    }
    if (charset.empty()) return true;
    if (StringNocaseCompare(charset, "utf-8") == 0) {
        DNTRACE(TRACE, "The character set is utf-8.");
        return true;
    }
    DNTRACE(ERR, "The specified character set <%s> is unsupported.", charset.c_str());
    return false;
}

void MsgCatalog::getLangCode(std::string& code) {
    boost::lock_guard<boost::recursive_mutex> hold(m_Lock);
    // The service's environment stands for the interactive user's language: there is no
    // console user to switch to on a Linux host.
    code = LangCodeOfLocale(LocaleOfEnvironment());
    if (code.empty()) code = kDefaultLangCode;
}

void MsgCatalog::getLocalizationPath(std::string& path) {
    boost::lock_guard<boost::recursive_mutex> hold(m_Lock);
    path.clear();
    std::string dataPath;
    if (!GetAllUsersAppDataPath(dataPath)) {
        DNTRACE(ERR, "Unable to get the all users directory.");
        return;
    }
    path = dataPath + "/trevo/trevoclient/" + sm_localeDir;
}

void MsgCatalog::Uninitialize() {
    boost::lock_guard<boost::recursive_mutex> hold(m_Lock);
    sm_currentCatalog.clear();
    sm_currentLocale.clear();
    sm_bInitialized = false;
    tsc_resetbindings();
}

void MsgCatalog::getCharset(std::string& charset) {
    boost::lock_guard<boost::recursive_mutex> hold(m_Lock);
    charset = tsc_getcharset(sm_currentCatalog.c_str());
}
