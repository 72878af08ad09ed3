// SPDX-License-Identifier: Apache-2.0
// Wiring of the nftables redirector to the agent's own name lookup service.
#include "core/AgentRedirector.h"

#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <list>

#include "foundation/GlobalConst.h"
#include "resolve/DnsLookup.h"

namespace {

NftAddress ToNftAddress(const boost::asio::ip::address& address) {
    NftAddress converted;
    if (address.is_v4()) {
        converted.family = AF_INET;
        const auto bytes = address.to_v4().to_bytes();
        std::copy(bytes.begin(), bytes.end(), converted.bytes.begin());
    } else {
        converted.family = AF_INET6;
        const auto bytes = address.to_v6().to_bytes();
        std::copy(bytes.begin(), bytes.end(), converted.bytes.begin());
    }
    return converted;
}

int LookupThroughAgent(const std::string& name, unsigned int timeoutMs,
                       std::vector<NftAddress>& addresses) {
    long error = 0;
    CDnsLookupThread* resolver = CDnsLookupThread::Instance(&error);
    if (resolver == nullptr) return static_cast<int>(error != 0 ? error : SWG_E_FAIL);
    return LookupRedirectorHost(*resolver, name, timeoutMs, addresses);
}

}  // namespace

int LookupRedirectorHost(CDnsLookupThread& resolver, const std::string& name,
                         unsigned int timeoutMs, std::vector<NftAddress>& addresses) {
    std::list<boost::asio::ip::address> found;
    const int result = resolver.LookupIp(name, timeoutMs, AF_UNSPEC, found);
    if (result != 0) return result;
    for (const boost::asio::ip::address& address : found) {
        addresses.push_back(ToNftAddress(address));
    }
    return 0;
}

int CreateAgentRedirector(ISocketRedirectorApi** out) {
    return CreateNftRedirector(out, &LookupThroughAgent);
}
