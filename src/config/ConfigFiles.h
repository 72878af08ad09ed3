// SPDX-License-Identifier: Apache-2.0
// Where the configuration files lie and how their text is read.
#pragma once

#include <cstddef>
#include <string>

// "SWGConfig.json": the file that LoadOrgInfo reads and the monitor watches.
extern const char g_szUpdateConfigFileName[];
// "/trevo/trevoclient/tarnwall/SWG": appended to the all-users data path.
extern const char g_szSWGConfigSubPath[];

// Files larger than this are not read: the writer is outside the agent, and a runaway
// file must not take the agent's memory.
constexpr std::size_t kMaxConfigFileBytes = 16u * 1024u * 1024u;

// Sets `folder` to GetAllUsersAppDataPath() + g_szSWGConfigSubPath (so SWG_DATA_ROOT
// moves it). Returns false, `folder` untouched, when the data path cannot be had.
bool GetSWGConfigFolder(std::string& folder);

// Outcome of ReadConfigText.
enum class ConfigReadResult {
    Read,        // `text` holds the whole file
    NotOpened,   // missing, not a regular file (directory, FIFO, device) or no permission
    ReadFailed,  // opened, but read failed
    TooLarge,    // more than kMaxConfigFileBytes
    Untrusted,   // the file or a folder above it could have been written by another user
};

// Reads the whole regular file at `path` into `text` (replaced), after the trust check of
// OpenTrustedFile from the data root (GetAllUsersAppDataPath) down. Never blocks on a FIFO
// or device put in the file's place. `text` is empty unless the result is Read; `refusal`
// is set to the log line that names the path and the reason when the result is Untrusted.
ConfigReadResult ReadConfigText(const std::string& path, std::string& text, std::string& refusal);
