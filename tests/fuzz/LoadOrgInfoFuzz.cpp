// SPDX-License-Identifier: Apache-2.0
// libFuzzer target: the configuration loader's parser on arbitrary file contents. The input
// is the text of SWGConfig.json, then optionally a NUL byte and the text of the override.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "config/OrgInfoParser.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    swg_fuzz::QuietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t split = input.find('\0');
    const std::string config = input.substr(0, split);
    std::string overrides;
    if (split != std::string::npos) {
        // As ReadSWGCustomConfig hands it over: line by line, line ends removed.
        for (const char c : input.substr(split + 1)) {
            if (c != '\n') overrides += c;
        }
    }
    OrgInfoRecord info;
    const bool valid = ParseOrgInfo(config, overrides, info);

    // Whatever the file says, the two default ports stay, and a valid record has what the
    // validity rule demands.
    if (info.strWebTrafficMonitorPortList.compare(0, 6, "80,443") != 0) __builtin_trap();
    if (valid && (info.strOrgId.empty() || info.strDeviceId.empty() || info.strpKeyPem.empty() ||
                  info.strpKeyId.empty())) {
        __builtin_trap();
    }
    return 0;
}
