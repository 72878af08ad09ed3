// SPDX-License-Identifier: Apache-2.0
// Fuzz target: the .mo catalogue reader, given any bytes as the catalogue of one language.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/Gettext.h"

namespace {

// One folder for the run; each input overwrites the same catalogue file.
const std::string& Folder() {
    static const std::string folder = [] {
        char pattern[] = "/tmp/swg-mofuzz-XXXXXX";
        std::string made = ::mkdtemp(pattern) != nullptr ? pattern : "/tmp";
        ::mkdir((made + "/xx").c_str(), 0700);
        ::mkdir((made + "/xx/LC_MESSAGES").c_str(), 0700);
        return made;
    }();
    static const bool cleanupRegistered = [] {
        std::atexit([] {
            ::unlink((folder + "/xx/LC_MESSAGES/Fuzz.mo").c_str());
            ::rmdir((folder + "/xx/LC_MESSAGES").c_str());
            ::rmdir((folder + "/xx").c_str());
            ::rmdir(folder.c_str());
        });
        return true;
    }();
    (void)cleanupRegistered;
    return folder;
}

volatile std::size_t g_sink = 0;

// Reads the whole result so that the sanitizers see any read outside the mapping.
std::size_t Touch(const char* text) { return text != nullptr ? std::strlen(text) : 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string path = Folder() + "/xx/LC_MESSAGES/Fuzz.mo";
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return 0;
    std::fwrite(data, 1, size, file);
    std::fclose(file);

    tsc_resetbindings();
    (void)tsc::bindtextdomain("Fuzz", Folder().c_str());
    std::size_t total = 0;
    total += Touch(tsc_dgettext("Fuzz", "", "xx-yy"));
    total += Touch(tsc_dgettext("Fuzz", "Connection Failure", "xx"));
    total += Touch(tsc_dgettext("Fuzz", "zzzz", "xx"));
    total += Touch(tsc_dngettext("Fuzz", "one file", "%d files", 2, "xx"));
    total += tsc_getcharset("Fuzz").size();
    g_sink = total;
    return 0;
}
