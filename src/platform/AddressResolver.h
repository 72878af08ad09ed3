// SPDX-License-Identifier: Apache-2.0
// The seam around the C library's blocking name resolver calls.
#pragma once

#include <netdb.h>
#include <sys/socket.h>

#include <cstddef>

// getaddrinfo(3), freeaddrinfo(3) and getnameinfo(3) behind an interface, so that the lookup
// workers can be tested with results and delays of the test's choosing. Codes and layouts are
// exactly those of the C functions. Every method may block for as long as the resolver takes
// and may be called from any number of threads at once.
class IAddressResolver {
public:
    virtual ~IAddressResolver() = default;

    // Resolves `node` (never null; may be empty) with `hints` and no service. On 0, `*result`
    // holds a list that the caller hands back to FreeAddrInfo of the same resolver. Otherwise
    // returns an EAI_* code; with EAI_SYSTEM the cause is left in errno.
    virtual int GetAddrInfo(const char* node, const addrinfo& hints, addrinfo** result) = 0;
    // Frees a list returned by GetAddrInfo; null is ignored.
    virtual void FreeAddrInfo(addrinfo* list) = 0;
    // Writes the name of `address` (`length` bytes) into `host` (`hostLength` bytes, zero
    // terminated) with no service. Returns 0 or an EAI_* code as GetAddrInfo does.
    virtual int GetNameInfo(const sockaddr* address, socklen_t length, char* host,
                            std::size_t hostLength, int flags) = 0;
};

// The process's resolver: the C library itself. Lives until the process ends, so workers
// still inside a call at exit never see it destroyed.
IAddressResolver& SystemAddressResolver();
