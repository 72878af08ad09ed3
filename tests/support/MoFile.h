// SPDX-License-Identifier: Apache-2.0
// Test helper: GNU .mo catalogues written byte by byte.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/TempFolder.h"

namespace swg_test {

struct MoEntry {
    std::string original;     // may hold "\0" between the forms of a plural id
    std::string translation;  // likewise between plural forms
};

struct MoOptions {
    bool bigEndian = false;       // byte order of every 32-bit word, the magic included
    uint32_t magic = 0x950412DE;  // as the writer means it, before byte order
    uint32_t revision = 0;
};

// A complete .mo file: header, both descriptor tables (sorted by original), no hash table,
// then the strings, each with its terminating zero.
std::string BuildMoFile(std::vector<MoEntry> entries, const MoOptions& options = {});

// Overwrites the 32-bit word at byte `offset` of `file`, in the byte order given.
void PatchMoWord(std::string& file, std::size_t offset, uint32_t value, bool bigEndian);

// Writes `bytes` to `<localeDir>/<language>/LC_MESSAGES/<domain>.mo`, creating the folders.
// False when a folder or the file cannot be written.
bool WriteCatalogue(const std::string& localeDir, const std::string& language,
                    const std::string& domain, const std::string& bytes);

}  // namespace swg_test
