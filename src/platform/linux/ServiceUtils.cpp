// SPDX-License-Identifier: Apache-2.0
// Process look-ups through /proc.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/ServiceUtils.h"

#include <dirent.h>

#include <cctype>
#include <cstdlib>
#include <fstream>

namespace ServiceUtils {

int GetPIDFromProcessName(const std::string& name) {
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return -1;
    int found = -1;
    while (const dirent* entry = readdir(proc)) {
        if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
        std::ifstream comm(std::string("/proc/") + entry->d_name + "/comm");
        std::string command;
        // A process that ended between readdir and open simply has no line.
        if (!std::getline(comm, command) || command != name) continue;
        found = std::atoi(entry->d_name);
        break;
    }
    closedir(proc);
    return found;
}

}  // namespace ServiceUtils
