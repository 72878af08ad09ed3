// SPDX-License-Identifier: Apache-2.0
// Routes, interfaces and notices over NETLINK_ROUTE; interface addresses by getifaddrs; the
// DNS domain from /etc/resolv.conf.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>
#include <vector>

#include "foundation/UniqueFd.h"
#include "platform/NetworkState.h"

namespace {

constexpr char kResolverFile[] = "/etc/resolv.conf";
constexpr size_t kReplyBuffer = 32768;

struct RouteRequest {
    nlmsghdr header;
    rtmsg route;
    char attributes[64];
};

void AddAttribute(RouteRequest& request, unsigned short type, const void* data, size_t length) {
    rtattr* attribute = reinterpret_cast<rtattr*>(reinterpret_cast<char*>(&request) +
                                                  NLMSG_ALIGN(request.header.nlmsg_len));
    attribute->rta_type = type;
    attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(length));
    std::memcpy(RTA_DATA(attribute), data, length);
    request.header.nlmsg_len =
        NLMSG_ALIGN(request.header.nlmsg_len) + RTA_ALIGN(attribute->rta_len);
}

int OpenRequestSocket() {
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    return fd < 0 ? -errno : fd;
}

int Send(int fd, RouteRequest& request) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    const ssize_t sent = ::sendto(fd, &request, request.header.nlmsg_len, 0,
                                  reinterpret_cast<sockaddr*>(&kernel), sizeof(kernel));
    return sent < 0 ? errno : 0;
}

// What one route message says, as far as the lookups need it.
struct RouteFacts {
    bool mainTable = false;
    bool defaultRoute = false;
    int oif = 0;
    uint32_t metric = 0;
    std::string router;
};

RouteFacts ReadRoute(const nlmsghdr* header) {
    const rtmsg* route = static_cast<const rtmsg*>(NLMSG_DATA(header));
    RouteFacts facts;
    unsigned int table = route->rtm_table;
    facts.defaultRoute = route->rtm_dst_len == 0 && route->rtm_type == RTN_UNICAST;
    int length = static_cast<int>(RTM_PAYLOAD(header));
    for (const rtattr* attribute = RTM_RTA(route); RTA_OK(attribute, length);
         attribute = RTA_NEXT(attribute, length)) {
        const void* data = RTA_DATA(attribute);
        switch (attribute->rta_type) {
            case RTA_TABLE:
                table = *static_cast<const uint32_t*>(data);
                break;
            case RTA_OIF:
                facts.oif = *static_cast<const int*>(data);
                break;
            case RTA_PRIORITY:
                facts.metric = *static_cast<const uint32_t*>(data);
                break;
            case RTA_GATEWAY: {
                char text[INET6_ADDRSTRLEN] = {};
                if (inet_ntop(route->rtm_family, data, text, sizeof(text)) != nullptr)
                    facts.router = text;
                break;
            }
            case RTA_MULTIPATH: {
                // A route over several next hops: the first stands for it.
                const rtnexthop* hop = static_cast<const rtnexthop*>(data);
                if (RTA_PAYLOAD(attribute) >= sizeof(rtnexthop) && facts.oif == 0)
                    facts.oif = hop->rtnh_ifindex;
                break;
            }
            default:
                break;
        }
    }
    facts.mainTable = table == RT_TABLE_MAIN;
    return facts;
}

// NLMSG_OK and NLMSG_NEXT mix signed and unsigned lengths; these walk a buffer the same way.
const nlmsghdr* FirstMessage(const char* buffer, size_t length) {
    const auto* header = reinterpret_cast<const nlmsghdr*>(buffer);
    return length >= sizeof(nlmsghdr) && header->nlmsg_len >= sizeof(nlmsghdr) &&
                   header->nlmsg_len <= length
               ? header
               : nullptr;
}

const nlmsghdr* NextMessage(const nlmsghdr* header, size_t& length) {
    const size_t step = NLMSG_ALIGN(header->nlmsg_len);
    if (step >= length) return nullptr;
    length -= step;
    return FirstMessage(reinterpret_cast<const char*>(header) + step, length);
}

std::string IndexName(int index) {
    char name[IF_NAMESIZE] = {};
    if (index <= 0 || if_indextoname(static_cast<unsigned int>(index), name) == nullptr) return "";
    return name;
}

// Calls `each` for every message of the reply to the request sent on `fd`, until its end.
// Returns 0 or the errno that ended it (a netlink error message included).
template <typename Each>
int ReadReply(int fd, Each each) {
    std::vector<char> buffer(kReplyBuffer);
    for (;;) {
        const ssize_t got = ::recv(fd, buffer.data(), buffer.size(), 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        size_t length = static_cast<size_t>(got);
        for (const nlmsghdr* header = FirstMessage(buffer.data(), length); header != nullptr;
             header = NextMessage(header, length)) {
            if (header->nlmsg_type == NLMSG_DONE) return 0;
            if (header->nlmsg_type == NLMSG_ERROR) {
                const nlmsgerr* error = static_cast<const nlmsgerr*>(NLMSG_DATA(header));
                return error->error == 0 ? 0 : -error->error;
            }
            if (header->nlmsg_type == RTM_NEWROUTE) each(header);
            if ((header->nlmsg_flags & NLM_F_MULTI) == 0) return 0;
        }
    }
}

class CNetlinkNetworkState : public INetworkState {
public:
    bool DefaultRoute(int family, std::string& interfaceName, std::string& router) override {
        interfaceName.clear();
        router.clear();
        CUniqueFd fd(OpenRequestSocket());
        if (fd.Get() < 0) return false;
        RouteRequest request{};
        request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
        request.header.nlmsg_type = RTM_GETROUTE;
        request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        request.route.rtm_family = static_cast<unsigned char>(family);
        if (Send(fd.Get(), request) != 0) return false;
        uint32_t best = std::numeric_limits<uint32_t>::max();
        bool found = false;
        const int result = ReadReply(fd.Get(), [&](const nlmsghdr* header) {
            const RouteFacts facts = ReadRoute(header);
            if (!facts.mainTable || !facts.defaultRoute) return;
            if (found && facts.metric >= best) return;
            found = true;
            best = facts.metric;
            interfaceName = IndexName(facts.oif);
            router = facts.router;
        });
        // A default route straight onto a link (a tunnel) has the link as its next hop.
        if (result == 0 && found && router.empty()) router = family == AF_INET6 ? "::" : "0.0.0.0";
        if (result == 0) return true;
        interfaceName.clear();
        router.clear();
        return false;
    }

    int RouteInterface(const sockaddr* destination, std::string& interfaceName) override {
        interfaceName.clear();
        if (destination == nullptr) return EINVAL;
        RouteRequest request{};
        request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
        request.header.nlmsg_type = RTM_GETROUTE;
        request.header.nlmsg_flags = NLM_F_REQUEST;
        if (destination->sa_family == AF_INET) {
            const auto* in = reinterpret_cast<const sockaddr_in*>(destination);
            AddAttribute(request, RTA_DST, &in->sin_addr, sizeof(in->sin_addr));
            request.route.rtm_dst_len = 32;
        } else if (destination->sa_family == AF_INET6) {
            const auto* in6 = reinterpret_cast<const sockaddr_in6*>(destination);
            AddAttribute(request, RTA_DST, &in6->sin6_addr, sizeof(in6->sin6_addr));
            request.route.rtm_dst_len = 128;
        } else {
            return EINVAL;
        }
        request.route.rtm_family = static_cast<unsigned char>(destination->sa_family);
        CUniqueFd fd(OpenRequestSocket());
        if (fd.Get() < 0) return -fd.Get();
        const int sent = Send(fd.Get(), request);
        if (sent != 0) return sent;
        int oif = 0;
        const int result =
            ReadReply(fd.Get(), [&](const nlmsghdr* header) { oif = ReadRoute(header).oif; });
        if (result != 0) return result;
        interfaceName = IndexName(oif);
        return interfaceName.empty() ? ENXIO : 0;
    }

    int InterfaceAddresses(std::vector<InterfaceAddress>& addresses) override {
        addresses.clear();
        ifaddrs* list = nullptr;
        if (getifaddrs(&list) != 0) return errno;
        for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
            if (entry->ifa_addr == nullptr || entry->ifa_name == nullptr) continue;
            InterfaceAddress address;
            address.name = entry->ifa_name;
            address.family = entry->ifa_addr->sa_family;
            if (address.family == AF_INET) {
                const auto* in = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
                std::memcpy(address.bytes, &in->sin_addr, 4);
            } else if (address.family == AF_INET6) {
                const auto* in6 = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
                std::memcpy(address.bytes, &in6->sin6_addr, 16);
            } else {
                continue;
            }
            addresses.push_back(address);
        }
        freeifaddrs(list);
        return 0;
    }

    bool DnsDomain(const std::string& /*interfaceName*/, std::string& domain) override {
        domain.clear();
        std::ifstream in(kResolverFile);
        if (!in.is_open()) return errno == ENOENT;
        std::stringstream text;
        text << in.rdbuf();
        if (in.bad()) return false;
        domain = ResolverDomain(text.str());
        return true;
    }
};

}  // namespace

INetworkState& SystemNetworkState() {
    static CNetlinkNetworkState state;
    return state;
}

bool IsRouteChangeNotice(uint16_t type) {
    return type == RTM_NEWADDR || type == RTM_DELADDR || type == RTM_NEWROUTE ||
           type == RTM_DELROUTE;
}

int OpenRouteNoticeSocket() {
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) return -errno;
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups =
        RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) {
        const int error = errno;
        ::close(fd);
        return -error;
    }
    return fd;
}

int ReadRouteNotices(int fd, int timeoutMs) {
    if (fd < 0) return -EBADF;
    pollfd wait{fd, POLLIN, 0};
    const int ready = ::poll(&wait, 1, timeoutMs);
    if (ready < 0) return errno == EINTR ? 0 : -errno;
    if (ready == 0) return 0;
    if ((wait.revents & POLLNVAL) != 0) return -EBADF;
    std::vector<char> buffer(kReplyBuffer);
    const ssize_t got = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) return 0;
    if (got < 0) {
        // Notices were lost to a full queue: something changed, which is all that counts.
        if (errno == ENOBUFS) return 1;
        return -errno;
    }
    if (got == 0) return -EBADF;
    int count = 0;
    size_t length = static_cast<size_t>(got);
    for (const nlmsghdr* header = FirstMessage(buffer.data(), length); header != nullptr;
         header = NextMessage(header, length)) {
        if (IsRouteChangeNotice(header->nlmsg_type)) ++count;
    }
    return count;
}

std::string ResolverDomain(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    std::string search;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string key;
        std::string value;
        if (!(words >> key >> value)) continue;
        if (key == "domain") return value;
        if (key == "search" && search.empty()) search = value;
    }
    return search;
}
