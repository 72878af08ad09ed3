// SPDX-License-Identifier: Apache-2.0
// Opens a file that steers the agent only when no unprivileged user could have written it.
#pragma once

#include <string>

#include "foundation/UniqueFd.h"

// Outcome of OpenTrustedFile.
enum class TrustedOpenResult {
    Opened,     // `fd` is the file, read-only, and the file and its folders passed
    NotOpened,  // missing, no permission, a folder missing: `error` holds the errno
    Untrusted,  // refused: `refusal` says which path and why
};

struct TrustedOpen {
    TrustedOpenResult result = TrustedOpenResult::NotOpened;
    CUniqueFd fd;
    int error = 0;
    // "'<path>' is writable by others", "'<path>' is owned by uid N" or
    // "'<path>' is a symbolic link"; empty unless Untrusted.
    std::string refusal;
};

// Opens `path` for reading (O_NOFOLLOW, O_NONBLOCK so a FIFO cannot hang the caller) when
// the file and every folder from `root` down to the file's own are owned by root or by the
// agent's own effective uid, are not writable by group or others, and are no symbolic link.
// The walk goes down from `root` one descriptor at a time (openat with O_NOFOLLOW, then
// fstat of that descriptor), so what is checked is what is read: a folder swapped for a
// link between the check and the read is never followed. When `path` does not lie below
// `root`, the file's own folder stands in for `root`. The file's type is the caller's
// affair. Never throws; any thread.
TrustedOpen OpenTrustedFile(const std::string& path, const std::string& root);

// The one log line of a refused file, for the system log:
// "SWG: Refused to read '<path>': <refusal>".
std::string TrustRefusalLine(const std::string& path, const TrustedOpen& opened);
