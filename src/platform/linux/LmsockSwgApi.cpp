// SPDX-License-Identifier: Apache-2.0
// The redirector's two factory functions, backed by nftables.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include <cerrno>
#include <new>

#include "platform/SocketRedirectorApi.h"
#include "platform/linux/NftRedirector.h"

int CreateLmsockSwgApi(ISocketRedirectorApi** out) {
    if (out == nullptr) return EINVAL;
    // Without CAP_NET_ADMIN or nftables there is no redirector: the agent runs undiverted.
    const int access = CNftRedirector::ProbeAccess();
    if (access != 0) return access;
    CNftRedirector* redirector = new (std::nothrow) CNftRedirector();
    if (redirector == nullptr) return ENOMEM;
    *out = redirector;
    return 0;
}

int ReleaseLmsockSwgApi(ISocketRedirectorApi** inout) {
    if (inout == nullptr || *inout == nullptr) return EINVAL;
    delete *inout;
    *inout = nullptr;
    return 0;
}
