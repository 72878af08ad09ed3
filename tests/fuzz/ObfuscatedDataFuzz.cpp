// SPDX-License-Identifier: Apache-2.0
// libFuzzer target: the reader of protected blocks on arbitrary bytes. The first input byte
// is a switch: when odd, the block's key reference is set to the live key's, so that inputs
// reach the cipher and its padding check; the rest of the input is the block.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "foundation/crypto/DataCrypt.h"

namespace {
struct LiveKey {
    CDataCrypt* crypt = nullptr;
    std::uint32_t ref = 0;
};

// The key manager with one key, made once for the run and kept to its end.
const LiveKey& Live() {
    static const LiveKey live = [] {
        LiveKey made;
        CSingletonObfuscationMgr* keys = nullptr;
        if (CSingletonObfuscationMgr::createSingletonInstance(keys, nullptr, 0, false) != 0 ||
            keys->GenerateSymmetricKey(made.ref) != 0) {
            __builtin_trap();
        }
        long result = 0;
        made.crypt = new CDataCrypt(result);
        return made;
    }();
    return live;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const LiveKey& live = Live();
    std::vector<unsigned char> block(data + 1, data + size);
    if ((data[0] & 1) != 0 && block.size() >= sizeof(live.ref)) {
        std::memcpy(block.data(), &live.ref, sizeof(live.ref));
    }
    const auto length = static_cast<unsigned int>(block.size());

    unsigned char* plain = nullptr;
    unsigned int plainLength = 0;
    const long result = live.crypt->DecryptDataAlloc(block.data(), length, plain, plainLength);
    if ((result == 0) != (plain != nullptr)) __builtin_trap();
    // A plain text never exceeds the cipher text it came from.
    if (result == 0 && plainLength > length) __builtin_trap();
    (void)live.crypt->CryptMemFree(plain, true);

    // A block that reads back serialises to the same leading bytes.
    ObfuscatedData* parsed = nullptr;
    if (CObfuscationMgr::DeserializeToObfuscatedData(block.data(), length, parsed) == 0) {
        std::vector<unsigned char> copy(length);
        unsigned int copyLength = length;
        if (CObfuscationMgr::SerializeObfuscatedData(parsed, copyLength, copy.data()) != 0 ||
            copyLength > length || std::memcmp(copy.data(), block.data(), copyLength) != 0) {
            __builtin_trap();
        }
        CObfuscationMgr::FreeObfuscatedData(parsed);
    }
    return 0;
}
