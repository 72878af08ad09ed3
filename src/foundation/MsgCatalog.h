// SPDX-License-Identifier: Apache-2.0
// MsgCatalog: translated texts for the pages the agent sends to a browser.
#pragma once

#include <boost/thread/recursive_mutex.hpp>
#include <string>

// Looks texts up in the catalogue "<data>/trevo/trevoclient/l10n/<language>/LC_MESSAGES/
// Linkmantle.mo", where <data> is GetAllUsersAppDataPath() and the language comes from the
// service's environment (LC_ALL, LC_MESSAGES, LANG). A key is also its English text: with no
// catalogue, or no entry, the key comes back unchanged.
//
// Threading: statics only, every operation under m_Lock; any thread may call. The language
// is read on the first getMessage and kept until Uninitialize.
class MsgCatalog {
public:
    // Sets `text` to the translation of `key` in the current language, or to `key` itself
    // when there is none. A null `key` logs and leaves `text` empty. The first call binds the
    // default catalogue and reads the language. Never fails otherwise.
    static void getMessage(char const* key, std::string& text);
    // Binds `catalog` (setCatalog; logs when that fails) and reads the language into
    // sm_currentLocale. Never fails.
    static void initMsgCatalog(std::string const& catalog);
    // Makes `catalog` the current text domain, bound to the localisation path, and calls
    // setlocale. False only when the mapped catalogue names a charset other than UTF-8.
    static bool setCatalog(std::string const& catalog);
    // Sets `code` to the user's language as lower-case language and region, "de-de" for
    // de_DE.UTF-8; "en-us" for "C", "POSIX", an unset environment or a value without a
    // language. Reads the environment on every call.
    static void getLangCode(std::string& code);
    // Sets `path` to GetAllUsersAppDataPath() + "/trevo/trevoclient/l10n"; leaves it empty
    // and logs when the data path cannot be had.
    static void getLocalizationPath(std::string& path);
    // Forgets the catalogue, the language and every mapping, so that the next getMessage
    // starts over with the environment and data path then in force (tests, a demo).
    static void Uninitialize();

private:
    static void getCharset(std::string& charset);

    static boost::recursive_mutex m_Lock;
    static const std::string sm_localeDir;
    static const std::string sm_defaultCatalog;
    static std::string sm_currentCatalog;
    static std::string sm_currentLocale;
    static bool sm_bInitialized;
};
