// SPDX-License-Identifier: Apache-2.0
// The agent's own gettext: translations looked up in GNU .mo catalogues, not the system's gettext.
#pragma once

#include <string>

// Catalogues lie at "<directory>/<language>/LC_MESSAGES/<domain>.mo", the directory being the
// one bound to the domain with tsc::bindtextdomain. A language may be a list separated by ":",
// tried in turn; "C" and "POSIX" stop the search with no catalogue. A language with a region
// ("de-de") falls back to the part before the "-" ("de") when it has no catalogue of its own.
// Only the catalogue last used is kept mapped, per domain. A catalogue that fails the trust
// check of OpenTrustedFile (from the data root down) counts as missing; its refusal is
// written to the system log once per path.
//
// Threading: the state behind these functions is shared by the whole process and guarded by
// one lock, but a returned pointer may point into a mapped catalogue that the next lookup in
// another language unmaps. Call them only through MsgCatalog, which copies the result under
// its own lock.
//
// Every lookup returns a pointer to the translation, or the key itself (`msgid`, or `msgid2`
// for a plural count other than 1) when there is none; null only for a null `msgid`.

// Returns `msgid` unchanged: no language is given, so no catalogue is consulted.
const char* tsc_gettext(const char* msgid);
// Translation of `msgid` in `language` (null: none, the key comes back) for the current domain.
const char* tsc_gettextl(const char* msgid, const char* language);
// Domain (null: current) and category variants; without a language they return the key.
const char* tsc_dgettext(const char* domain, const char* msgid, const char* language = nullptr);
const char* tsc_dcgettext(const char* domain, const char* msgid, int category,
                          const char* language = nullptr);
// Plural variants: `n` of 1 selects the first form, any other count the second.
const char* tsc_ngettext(const char* msgid1, const char* msgid2, unsigned long n,
                         const char* language = nullptr);
const char* tsc_dngettext(const char* domain, const char* msgid1, const char* msgid2,
                          unsigned long n, const char* language = nullptr);
// The one that does the work. `category` must be a locale category other than LC_ALL (only
// LC_MESSAGES catalogues exist, but the path does not depend on it); another value, or a null
// `language`, returns the key. A domain with no binding is bound to "" (no catalogue).
const char* tsc_dcngettext(const char* domain, const char* msgid1, const char* msgid2,
                           unsigned long n, int category, const char* language);

// The charset named in the header entry ("charset=") of the catalogue mapped for `domain`
// (null: the current domain), as written there; "" when no catalogue is mapped or the
// header names none.
std::string tsc_getcharset(const char* domain);

// Drops every binding and mapping and makes "messages" the current domain again, as at
// start. For a process that changes its data path or language while it runs (tests).
void tsc_resetbindings();

// The domain functions keep gettext's names; the namespace keeps them apart from libintl's
// functions of the same names, which glibc declares with C linkage.
namespace tsc {

// Makes `name` (bounded at 1,024 bytes) the current domain and returns it; "" restores the
// default "messages"; null only returns the current domain.
const char* textdomain(const char* name);
// Finds or adds the binding of `domain` and stores `directory` (bounded at 1,024 bytes) in it,
// releasing its catalogue when the directory changes. Returns the stored directory; null
// `directory` only returns it. Null for a null or empty `domain`.
const char* bindtextdomain(const char* domain, const char* directory);
// Stores `codeset` for `domain` and returns it; null `codeset` only returns the one stored
// (null when none is). Texts are never converted: catalogues are expected in UTF-8. Null
// for a null or empty `domain`.
const char* bind_textdomain_codeset(const char* domain, const char* codeset);

}  // namespace tsc
