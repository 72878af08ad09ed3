// SPDX-License-Identifier: Apache-2.0
// The C library's resolver behind IAddressResolver.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/AddressResolver.h"

namespace {
class CSystemAddressResolver : public IAddressResolver {
public:
    int GetAddrInfo(const char* node, const addrinfo& hints, addrinfo** result) override {
        return ::getaddrinfo(node, nullptr, &hints, result);
    }
    void FreeAddrInfo(addrinfo* list) override {
        if (list != nullptr) ::freeaddrinfo(list);
    }
    int GetNameInfo(const sockaddr* address, socklen_t length, char* host, std::size_t hostLength,
                    int flags) override {
        return ::getnameinfo(address, length, host, static_cast<socklen_t>(hostLength), nullptr, 0,
                             flags);
    }
};
}  // namespace

IAddressResolver& SystemAddressResolver() {
    // Never destroyed: an abandoned lookup may still be inside the resolver at exit.
    static IAddressResolver* const resolver = new CSystemAddressResolver();
    return *resolver;
}
