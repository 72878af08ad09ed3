// SPDX-License-Identifier: Apache-2.0
// The seam for what the host's routing and interfaces say: the default route of a family,
// the outgoing interface for a destination, interface addresses, an interface's DNS domain,
// and the stream of route and address notices.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

// One address of one interface, as the interface list gives it.
struct InterfaceAddress {
    std::string name;
    int family = AF_UNSPEC;  // AF_INET or AF_INET6
    uint8_t bytes[16] = {};  // network order; 4 used for AF_INET
};

// Reads of the host's network state. Every method may be called from any thread at any
// time; none keeps state between calls. Each opens and closes what it needs.
class INetworkState {
public:
    virtual ~INetworkState() = default;

    // The default route of the main table for `family` (AF_INET or AF_INET6): the name of
    // its output interface and its gateway as text; a route straight onto a link (a tunnel)
    // gives the any address ("0.0.0.0", "::") as gateway, and no default route both empty.
    // Of several default routes the one with the lowest metric counts. Returns false, with
    // both empty, when the table cannot be read. Blocks for one netlink exchange.
    virtual bool DefaultRoute(int family, std::string& interfaceName, std::string& router) = 0;
    // The name of the interface the host would send to `destination` (sockaddr_in or
    // sockaddr_in6) through. Returns 0, or the errno of the failure (ENETUNREACH when no
    // route leads there, EINVAL for another family). Blocks for one netlink exchange.
    virtual int RouteInterface(const sockaddr* destination, std::string& interfaceName) = 0;
    // Every address of every interface, in the system's order. Returns 0 or the errno of the
    // failure (then `addresses` is empty).
    virtual int InterfaceAddresses(std::vector<InterfaceAddress>& addresses) = 0;
    // The DNS domain of `interfaceName`: the resolver configuration's "domain", else its first
    // "search" entry. The resolver configuration is host-wide, so every interface gets the
    // same answer. No entry, or no file, leaves `domain` empty and is no failure. Returns
    // false only when the file exists and cannot be read.
    virtual bool DnsDomain(const std::string& interfaceName, std::string& domain) = 0;
};

// The host's own state. Lives until the process ends.
INetworkState& SystemNetworkState();

// The notice stream: a socket subscribed to the address and route changes of both families.
// Returns the descriptor, or minus the errno. Never blocks.
int OpenRouteNoticeSocket();
// Waits up to `timeoutMs` for the next datagram on `fd` and returns how many of the notices
// in it count as a network change (added or removed addresses and routes); other notices are
// skipped, and a wait that ends empty gives 0. Notices lost to a full queue count as one.
// Returns minus the errno when the wait or read fails (-EBADF for a closed descriptor).
int ReadRouteNotices(int fd, int timeoutMs);
// Whether a notice of netlink message type `type` counts as a network change.
bool IsRouteChangeNotice(uint16_t type);
// The "domain", else the first "search" entry, of resolver configuration `text`; empty
// when it has neither.
std::string ResolverDomain(const std::string& text);
