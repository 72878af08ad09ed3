// SPDX-License-Identifier: Apache-2.0
// The redirector's two factory functions, backed by nftables.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include <cerrno>

#include "platform/SocketRedirectorApi.h"
#include "platform/linux/NftRedirector.h"

int CreateLmsockSwgApi(ISocketRedirectorApi** out) { return CreateNftRedirector(out, {}); }

int ReleaseLmsockSwgApi(ISocketRedirectorApi** inout) {
    if (inout == nullptr || *inout == nullptr) return EINVAL;
    delete *inout;
    *inout = nullptr;
    return 0;
}
