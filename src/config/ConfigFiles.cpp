// SPDX-License-Identifier: Apache-2.0
// Paths of the configuration files and a bounded, non-blocking reader for them.
#include "config/ConfigFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "foundation/GlobalUtils.h"
#include "foundation/TrustedFile.h"
#include "foundation/UniqueFd.h"

const char g_szUpdateConfigFileName[] = "SWGConfig.json";
const char g_szSWGConfigSubPath[] = "/trevo/trevoclient/tarnwall/SWG";

bool GetSWGConfigFolder(std::string& folder) {
    std::string root;
    if (!GetAllUsersAppDataPath(root)) return false;
    folder = root + g_szSWGConfigSubPath;
    return true;
}

ConfigReadResult ReadConfigText(const std::string& path, std::string& text, std::string& refusal) {
    text.clear();
    refusal.clear();
    std::string root;
    if (!GetAllUsersAppDataPath(root)) return ConfigReadResult::NotOpened;
    TrustedOpen opened = OpenTrustedFile(path, root);
    if (opened.result == TrustedOpenResult::Untrusted) {
        refusal = TrustRefusalLine(path, opened);
        return ConfigReadResult::Untrusted;
    }
    if (opened.result != TrustedOpenResult::Opened) return ConfigReadResult::NotOpened;
    const CUniqueFd file(std::move(opened.fd));
    struct stat info {};
    if (fstat(file.Get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return ConfigReadResult::NotOpened;
    }
    // The size is only a hint: the writer may still be changing the file.
    if (info.st_size > 0 && static_cast<std::size_t>(info.st_size) <= kMaxConfigFileBytes) {
        text.reserve(static_cast<std::size_t>(info.st_size));
    }
    char block[8192];
    for (;;) {
        const ssize_t got = read(file.Get(), block, sizeof(block));
        if (got == 0) return ConfigReadResult::Read;
        if (got < 0) {
            if (errno == EINTR) continue;
            text.clear();
            return ConfigReadResult::ReadFailed;
        }
        if (text.size() + static_cast<std::size_t>(got) > kMaxConfigFileBytes) {
            text.clear();
            return ConfigReadResult::TooLarge;
        }
        text.append(block, static_cast<std::size_t>(got));
    }
}
