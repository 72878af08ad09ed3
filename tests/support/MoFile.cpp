// SPDX-License-Identifier: Apache-2.0
// Test helper: GNU .mo catalogues written byte by byte, and a temporary folder to hold them.
#include "support/MoFile.h"

#include <stdlib.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <fstream>

namespace swg_test {

namespace {

constexpr std::size_t kHeaderSize = 28;
constexpr std::size_t kDescriptorSize = 8;

void PutWord(std::string& out, uint32_t value, bool bigEndian) {
    for (int i = 0; i < 4; ++i) {
        const int shift = bigEndian ? 24 - 8 * i : 8 * i;
        out.push_back(static_cast<char>((value >> shift) & 0xFF));
    }
}

}  // namespace

std::string BuildMoFile(std::vector<MoEntry> entries, const MoOptions& options) {
    std::sort(entries.begin(), entries.end(),
              [](const MoEntry& a, const MoEntry& b) { return a.original < b.original; });
    const auto count = static_cast<uint32_t>(entries.size());
    const auto originalsAt = static_cast<uint32_t>(kHeaderSize);
    const auto translationsAt = static_cast<uint32_t>(originalsAt + count * kDescriptorSize);
    const auto stringsAt = static_cast<uint32_t>(translationsAt + count * kDescriptorSize);

    std::string strings;
    std::string originals;
    std::string translations;
    auto addString = [&](std::string& table, const std::string& text) {
        PutWord(table, static_cast<uint32_t>(text.size()), options.bigEndian);
        PutWord(table, static_cast<uint32_t>(stringsAt + strings.size()), options.bigEndian);
        strings += text;
        strings.push_back('\0');
    };
    for (const MoEntry& entry : entries) addString(originals, entry.original);
    for (const MoEntry& entry : entries) addString(translations, entry.translation);

    std::string file;
    PutWord(file, options.magic, options.bigEndian);
    PutWord(file, options.revision, options.bigEndian);
    PutWord(file, count, options.bigEndian);
    PutWord(file, originalsAt, options.bigEndian);
    PutWord(file, translationsAt, options.bigEndian);
    PutWord(file, 0, options.bigEndian);          // hash table size
    PutWord(file, stringsAt, options.bigEndian);  // hash table offset (no table)
    return file + originals + translations + strings;
}

void PatchMoWord(std::string& file, std::size_t offset, uint32_t value, bool bigEndian) {
    std::string word;
    PutWord(word, value, bigEndian);
    file.replace(offset, 4, word);
}

bool WriteCatalogue(const std::string& localeDir, const std::string& language,
                    const std::string& domain, const std::string& bytes) {
    const boost::filesystem::path dir =
        boost::filesystem::path(localeDir) / language / "LC_MESSAGES";
    boost::system::error_code error;
    boost::filesystem::create_directories(dir, error);
    if (error) return false;
    std::ofstream out((dir / (domain + ".mo")).string(), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

}  // namespace swg_test
