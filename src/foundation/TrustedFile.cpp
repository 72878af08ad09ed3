// SPDX-License-Identifier: Apache-2.0
// The trust check of the files the agent reads as root: owner, mode and links, from the data
// root down to the file.
#include "foundation/TrustedFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace {

// The folder names from `root` to the file, and the file's name last. False when `path`
// holds a ".." (the walk never climbs) or names no file.
bool SplitBelow(const std::string& path, const std::string& root, std::string& top,
                std::vector<std::string>& names) {
    std::string rest;
    std::string base = root;
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    if (!base.empty() && path.size() > base.size() + 1 && path.compare(0, base.size(), base) == 0 &&
        (path[base.size()] == '/' || base == "/")) {
        top = base;
        rest = path.substr(base.size());
    } else {
        const std::size_t slash = path.rfind('/');
        top = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
        rest = slash == std::string::npos ? path : path.substr(slash + 1);
    }
    names.clear();
    std::size_t start = 0;
    while (start <= rest.size()) {
        std::size_t end = rest.find('/', start);
        if (end == std::string::npos) end = rest.size();
        const std::string name = rest.substr(start, end - start);
        start = end + 1;
        if (name.empty() || name == ".") continue;
        if (name == "..") return false;
        names.push_back(name);
    }
    return !names.empty();
}

// Refusal text for what `fd` is, or "" when root or this process's effective uid owns it
// and only the owner may write it.
std::string Judge(int fd, const std::string& shown) {
    struct stat info {};
    if (::fstat(fd, &info) != 0) return "'" + shown + "' cannot be examined";
    if (info.st_uid != 0 && info.st_uid != ::geteuid()) {
        return "'" + shown + "' is owned by uid " + std::to_string(info.st_uid);
    }
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "'" + shown + "' is writable by others";
    return "";
}

// Opens `name` below `folder` without following a link. ELOOP is what O_NOFOLLOW gives for
// a link; ENOTDIR with O_DIRECTORY may be a link to something that is not a folder.
bool OpenStep(int folder, const std::string& name, int flags, const std::string& shown,
              TrustedOpen& out) {
    out.fd.Reset(::openat(folder, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
    if (out.fd.Get() >= 0) return true;
    out.error = errno;
    struct stat info {};
    if (out.error == ELOOP || (::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                               S_ISLNK(info.st_mode))) {
        out.result = TrustedOpenResult::Untrusted;
        out.refusal = "'" + shown + "' is a symbolic link";
    }
    return false;
}

}  // namespace

TrustedOpen OpenTrustedFile(const std::string& path, const std::string& root) {
    TrustedOpen out;
    std::string top;
    std::vector<std::string> names;
    if (!SplitBelow(path, root, top, names)) {
        out.error = EINVAL;
        return out;
    }
    CUniqueFd folder;
    std::string shown = top;
    // Folders as O_PATH: a descriptor to walk and examine, which needs no read permission.
    if (!OpenStep(AT_FDCWD, top, O_PATH | O_DIRECTORY, shown, out)) return out;
    for (std::size_t i = 0;; ++i) {
        out.refusal = Judge(out.fd.Get(), shown);
        if (!out.refusal.empty()) {
            out.fd.Reset();
            out.result = TrustedOpenResult::Untrusted;
            return out;
        }
        if (i == names.size()) break;
        folder = std::move(out.fd);
        shown += (shown == "/" ? "" : "/") + names[i];
        const bool last = i + 1 == names.size();
        const int flags = last ? O_RDONLY | O_NONBLOCK | O_NOCTTY : O_PATH | O_DIRECTORY;
        if (!OpenStep(folder.Get(), names[i], flags, shown, out)) return out;
    }
    out.result = TrustedOpenResult::Opened;
    out.error = 0;
    return out;
}

std::string TrustRefusalLine(const std::string& path, const TrustedOpen& opened) {
    return "SWG: Refused to read '" + path + "': " + opened.refusal;
}
