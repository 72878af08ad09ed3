// SPDX-License-Identifier: Apache-2.0
// The agent's own gettext: domain bindings, .mo mapping and lookup.
#include "foundation/Gettext.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <clocale>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "foundation/DirectSyslog.h"
#include "foundation/GlobalUtils.h"
#include "foundation/TrustedFile.h"

namespace {

constexpr std::size_t kNameSize = 1024;
// GNU .mo: magic, revision, count, offset of originals, offset of translations, hash size,
// hash offset; 32-bit words in the byte order of the machine that wrote the file.
constexpr uint32_t kMoMagic = 0x950412DE;
constexpr uint32_t kMoMagicSwapped = 0xDE120495;
constexpr std::size_t kMoHeaderSize = 28;
constexpr std::size_t kMoCountAt = 8;
constexpr std::size_t kMoOriginalsAt = 12;
constexpr std::size_t kMoTranslationsAt = 16;
constexpr std::size_t kMoDescriptorSize = 8;  // length, then offset
constexpr char kDefaultDomain[] = "messages";
constexpr char kCharsetTag[] = "charset=";
constexpr std::size_t kMaxRefusedLogged = 16;

struct MoString {
    const char* text;
    uint32_t length;  // without the terminating zero
};

// One per text domain. A mapped catalogue's strings point into `base`.
struct Binding {
    ~Binding();

    std::unique_ptr<Binding> next;
    char domain[kNameSize] = {};
    char directory[kNameSize] = {};
    char codeset[kNameSize] = {};
    bool hasCodeset = false;
    bool mapped = false;
    void* base = nullptr;
    std::size_t mappedSize = 0;
    uint32_t count = 0;
    std::vector<MoString> originals;
    std::vector<MoString> translations;
    std::string charset;
};

struct GettextState {
    std::recursive_mutex lock;
    std::unique_ptr<Binding> bindings;
    char currentDomain[kNameSize] = "messages";
    char language[kNameSize] = {};
    // Domain, category and language of the last lookup, to reuse its catalogue.
    std::string lastDomain;
    int lastCategory = -1;
    std::string lastLanguage;
    // Catalogue paths whose refusal was logged.
    std::set<std::string> refusedLogged;
};

GettextState& State() {
    static GettextState state;
    return state;
}

void unmapdb(Binding& binding) {
    binding.count = 0;
    binding.originals.clear();
    binding.translations.clear();
    binding.charset.clear();
}

void unmapit(Binding& binding) {
    if (binding.base != nullptr) ::munmap(binding.base, binding.mappedSize);
    binding.base = nullptr;
    binding.mappedSize = 0;
    binding.mapped = false;
    unmapdb(binding);
}

Binding::~Binding() { unmapit(*this); }

// Only revision 0 exists without system-dependent strings, which msgfmt never writes for us.
bool check_ver_magic(uint32_t revision) { return revision == 0; }

bool ValidCategory(int category) {
    return category >= 0 && category <= LC_IDENTIFICATION && category != LC_ALL;
}

const char* Untranslated(const char* msgid1, const char* msgid2, unsigned long n) {
    return (n == 1 || msgid2 == nullptr) ? msgid1 : msgid2;
}

// A translation holds its plural forms one after another, each ending in a zero.
const char* PluralForm(const MoString& entry, unsigned long n) {
    if (n == 1) return entry.text;
    const void* end = std::memchr(entry.text, '\0', entry.length);
    return end != nullptr ? static_cast<const char*>(end) + 1 : entry.text;
}

Binding* FindBinding(const char* domain) {
    for (Binding* b = State().bindings.get(); b != nullptr; b = b->next.get()) {
        if (std::strcmp(b->domain, domain) == 0) return b;
    }
    return nullptr;
}

class MoReader {
public:
    MoReader(const void* base, std::size_t size, bool swapped)
        : m_bytes(static_cast<const unsigned char*>(base)), m_size(size), m_swapped(swapped) {}

    uint32_t Word(std::size_t at) const {
        uint32_t word = 0;
        std::memcpy(&word, m_bytes + at, sizeof word);
        return m_swapped ? __builtin_bswap32(word) : word;
    }

    // Reads `count` descriptors from `tableAt`; false when the table or a string lies outside
    // the file or a string lacks its terminating zero.
    bool ReadTable(uint32_t tableAt, uint32_t count, std::vector<MoString>& out) const {
        const uint64_t tableEnd = uint64_t{tableAt} + uint64_t{count} * kMoDescriptorSize;
        if (tableEnd > m_size) return false;
        out.reserve(count);
        for (uint32_t i = 0; i < count; ++i) {
            const std::size_t at = tableAt + std::size_t{i} * kMoDescriptorSize;
            const uint32_t length = Word(at);
            const uint32_t offset = Word(at + 4);
            if (uint64_t{offset} + length >= m_size || m_bytes[offset + length] != '\0')
                return false;
            out.push_back({reinterpret_cast<const char*>(m_bytes + offset), length});
        }
        return true;
    }

private:
    const unsigned char* m_bytes;
    std::size_t m_size;
    bool m_swapped;
};

void ReadCharset(Binding& binding) {
    // The header is the translation of the empty original, which sorts first.
    if (binding.count == 0 || binding.originals[0].length != 0) return;
    const std::string header(binding.translations[0].text, binding.translations[0].length);
    const std::size_t at = header.find(kCharsetTag);
    if (at == std::string::npos) return;
    const std::size_t start = at + sizeof(kCharsetTag) - 1;
    const std::size_t end = header.find_first_of(" \t\r\n;", start);
    binding.charset = header.substr(start, end == std::string::npos ? end : end - start);
}

// Reads the magic and revision first, so that a file of another kind is never mapped.
bool ReadMoHeader(int fd, bool& swapped) {
    uint32_t words[2] = {0, 0};
    if (::pread(fd, words, sizeof words, 0) != static_cast<ssize_t>(sizeof words)) return false;
    if (words[0] == kMoMagic) {
        swapped = false;
    } else if (words[0] == kMoMagicSwapped) {
        swapped = true;
    } else {
        return false;
    }
    return check_ver_magic(swapped ? __builtin_bswap32(words[1]) : words[1]);
}

// A catalogue that fails the trust check is a missing one, refused with one line per path:
// a binding without a catalogue looks again on every lookup, and a failure page per
// connection must not write a line each.
bool OpenCatalogue(const std::string& path, int& fd) {
    std::string root;
    GetAllUsersAppDataPath(root);
    TrustedOpen opened = OpenTrustedFile(path, root);
    if (opened.result == TrustedOpenResult::Untrusted) {
        std::set<std::string>& logged = State().refusedLogged;
        if (logged.size() < kMaxRefusedLogged && logged.insert(path).second) {
            SwgSyslog(LOG_ERR, "%s", TrustRefusalLine(path, opened).c_str());
        }
    }
    fd = opened.fd.Release();
    return fd >= 0;
}

bool MapCatalogue(Binding& binding, const std::string& path) {
    int fd = -1;
    if (!OpenCatalogue(path, fd)) return false;
    bool swapped = false;
    struct stat info {};
    if (!ReadMoHeader(fd, swapped) || ::fstat(fd, &info) != 0 ||
        static_cast<uint64_t>(info.st_size) < kMoHeaderSize) {
        ::close(fd);
        return false;
    }
    const std::size_t size = static_cast<std::size_t>(info.st_size);
    void* base = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    ::close(fd);
    if (base == MAP_FAILED) return false;

    binding.base = base;
    binding.mappedSize = size;
    const MoReader reader(base, size, swapped);
    const uint32_t count = reader.Word(kMoCountAt);
    if (!reader.ReadTable(reader.Word(kMoOriginalsAt), count, binding.originals) ||
        !reader.ReadTable(reader.Word(kMoTranslationsAt), count, binding.translations)) {
        unmapit(binding);
        return false;
    }
    binding.count = count;
    binding.mapped = true;
    ReadCharset(binding);
    return true;
}

// Tries each entry of the ":"-separated `language` list in turn; "C" and "POSIX" stop the
// search, as they ask for the untranslated texts.
bool lookup_mofile(Binding& binding, const std::string& language) {
    unmapit(binding);
    // A domain bound to no directory has no catalogue; never read from the root folder.
    if (binding.directory[0] == '\0') return false;
    std::size_t start = 0;
    while (start <= language.size()) {
        std::size_t end = language.find(':', start);
        if (end == std::string::npos) end = language.size();
        const std::string entry = language.substr(start, end - start);
        start = end + 1;
        if (entry.empty()) continue;
        if (entry == "C" || entry == "POSIX") return false;
        char path[4 * kNameSize];
        const int length = safe_snprintfA(path, sizeof path, "%s/%s/%s/%s.mo", binding.directory,
                                          entry.c_str(), "LC_MESSAGES", binding.domain);
        if (length < 0 || static_cast<std::size_t>(length) >= sizeof path - 1) continue;
        if (MapCatalogue(binding, path)) return true;
    }
    return false;
}

int lookup(const char* key, const Binding& binding) {
    uint32_t low = 0;
    uint32_t high = binding.count;
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        const int order = std::strcmp(key, binding.originals[middle].text);
        if (order == 0) return static_cast<int>(middle);
        if (order < 0) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    return -1;
}

bool FitsName(const char* text) { return safe_strnlenA(text, kNameSize) < kNameSize; }

}  // namespace

const char* tsc_gettext(const char* msgid) {
    return tsc_dcngettext(nullptr, msgid, nullptr, 1, LC_MESSAGES, nullptr);
}

const char* tsc_gettextl(const char* msgid, const char* language) {
    return tsc_dcngettext(nullptr, msgid, nullptr, 1, LC_MESSAGES, language);
}

const char* tsc_dgettext(const char* domain, const char* msgid, const char* language) {
    return tsc_dcngettext(domain, msgid, nullptr, 1, LC_MESSAGES, language);
}

const char* tsc_dcgettext(const char* domain, const char* msgid, int category,
                          const char* language) {
    return tsc_dcngettext(domain, msgid, nullptr, 1, category, language);
}

const char* tsc_ngettext(const char* msgid1, const char* msgid2, unsigned long n,
                         const char* language) {
    return tsc_dcngettext(nullptr, msgid1, msgid2, n, LC_MESSAGES, language);
}

const char* tsc_dngettext(const char* domain, const char* msgid1, const char* msgid2,
                          unsigned long n, const char* language) {
    return tsc_dcngettext(domain, msgid1, msgid2, n, LC_MESSAGES, language);
}

const char* tsc_dcngettext(const char* domain, const char* msgid1, const char* msgid2,
                           unsigned long n, int category, const char* language) {
    if (msgid1 == nullptr) return nullptr;
    const char* key = Untranslated(msgid1, msgid2, n);
    if (!ValidCategory(category) || language == nullptr) return key;

    GettextState& state = State();
    std::lock_guard<std::recursive_mutex> hold(state.lock);
    safe_strlcpyA(state.language, language, kNameSize);
    const std::string domainName = domain != nullptr ? domain : state.currentDomain;

    Binding* binding = FindBinding(domainName.c_str());
    if (binding == nullptr) {
        if (tsc::bindtextdomain(domainName.c_str(), "") == nullptr) return key;
        binding = FindBinding(domainName.c_str());
        if (binding == nullptr) return key;
    }

    const bool sameAsLast = binding->mapped && state.lastDomain == domainName &&
                            state.lastCategory == category && state.lastLanguage == state.language;
    if (!sameAsLast) {
        const std::string wanted(state.language);
        if (!lookup_mofile(*binding, wanted)) {
            const std::size_t dash = wanted.find('-');
            if (dash != std::string::npos) (void)lookup_mofile(*binding, wanted.substr(0, dash));
        }
        state.lastDomain = domainName;
        state.lastCategory = category;
        state.lastLanguage = wanted;
    }
    if (!binding->mapped) return key;
    const int found = lookup(msgid1, *binding);
    if (found < 0) return key;
    return PluralForm(binding->translations[static_cast<std::size_t>(found)], n);
}

std::string tsc_getcharset(const char* domain) {
    GettextState& state = State();
    std::lock_guard<std::recursive_mutex> hold(state.lock);
    const Binding* binding = FindBinding(domain != nullptr ? domain : state.currentDomain);
    if (binding == nullptr || !binding->mapped) return std::string();
    return binding->charset;
}

void tsc_resetbindings() {
    GettextState& state = State();
    std::lock_guard<std::recursive_mutex> hold(state.lock);
    state.bindings.reset();
    safe_strlcpyA(state.currentDomain, kDefaultDomain, kNameSize);
    state.language[0] = '\0';
    state.lastDomain.clear();
    state.lastCategory = -1;
    state.lastLanguage.clear();
    state.refusedLogged.clear();
}

namespace tsc {

const char* textdomain(const char* name) {
    GettextState& state = State();
    std::lock_guard<std::recursive_mutex> hold(state.lock);
    if (name == nullptr) return state.currentDomain;
    if (!FitsName(name)) return nullptr;
    safe_strlcpyA(state.currentDomain, name[0] == '\0' ? kDefaultDomain : name, kNameSize);
    return state.currentDomain;
}

const char* bindtextdomain(const char* domain, const char* directory) {
    if (domain == nullptr || domain[0] == '\0' || !FitsName(domain)) return nullptr;
    GettextState& state = State();
    std::lock_guard<std::recursive_mutex> hold(state.lock);
    Binding* binding = FindBinding(domain);
    if (directory == nullptr) return binding != nullptr ? binding->directory : nullptr;
    if (!FitsName(directory)) return nullptr;
    if (binding == nullptr) {
        auto added = std::make_unique<Binding>();
        safe_strlcpyA(added->domain, domain, kNameSize);
        added->next = std::move(state.bindings);
        state.bindings = std::move(added);
        binding = state.bindings.get();
    }
    if (std::strcmp(binding->directory, directory) != 0) {
        unmapit(*binding);
        safe_strlcpyA(binding->directory, directory, kNameSize);
    }
    return binding->directory;
}

const char* bind_textdomain_codeset(const char* domain, const char* codeset) {
    if (domain == nullptr || domain[0] == '\0' || !FitsName(domain)) return nullptr;
    GettextState& state = State();
    std::lock_guard<std::recursive_mutex> hold(state.lock);
    Binding* binding = FindBinding(domain);
    if (codeset == nullptr) {
        return (binding != nullptr && binding->hasCodeset) ? binding->codeset : nullptr;
    }
    if (!FitsName(codeset)) return nullptr;
    if (binding == nullptr) {
        if (bindtextdomain(domain, "") == nullptr) return nullptr;
        binding = FindBinding(domain);
    }
    safe_strlcpyA(binding->codeset, codeset, kNameSize);
    binding->hasCodeset = true;
    return binding->codeset;
}

}  // namespace tsc
