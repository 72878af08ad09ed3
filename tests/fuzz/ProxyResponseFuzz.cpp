// SPDX-License-Identifier: Apache-2.0
// libFuzzer target: the gateway's answer to CONNECT, as ProcessProxyResponse reads it from the
// outgoing socket and proves it by its Via line. The input is every byte the gateway sends.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "proxy/ConnectionThread.h"

namespace {

std::string Lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

// Some line of `text` is a Via line naming a gateway host.
bool HasGatewayVia(const std::string& text) {
    for (std::size_t start = 0; start <= text.size();) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string line = Lower(text.substr(start, end - start));
        start = end + 1;
        if (line.compare(0, 4, "via:") != 0) continue;
        for (const char* host : {"s_proxy_", "m_proxy_", "e_proxy_"}) {
            if (line.find(host) != std::string::npos) return true;
        }
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    swg_fuzz::QuietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size > swg_fuzz::kMaxInput) return -1;
    const std::string answer(reinterpret_cast<const char*>(data), size);
    swg_fuzz::Peer client;
    swg_fuzz::Peer gateway;
    CDnConnectionThread thread;
    thread.m_pKdfSocket = client.agentSide;
    thread.m_pExternalSocket = gateway.agentSide;
    if (thread.m_pKdfSocket == nullptr || !gateway.Feed(answer)) return -1;

    bool lost = false;
    int status = 0;
    const long code = thread.ProcessProxyResponse(lost, status, false);
    const std::string forwarded = client.Drain();
    const std::string left = swg_fuzz::Unread(*thread.m_pExternalSocket);

    // A tunnel opens only on a 200 whose header block names a gateway host, and then the
    // client has been sent nothing.
    const bool gatewayVia = HasGatewayVia(answer.substr(0, answer.find("\r\n\r\n")));
    if (code == 0 && (status != 200 || !gatewayVia || !forwarded.empty() || lost)) __builtin_trap();
    // What reaches the client is the gateway's own answer from its first byte, and only one
    // that came from the gateway and is not a 200.
    if (!forwarded.empty()) {
        const std::string sent = swg_fuzz::AsReceived(forwarded);
        if (status == 200 || !gatewayVia || answer.compare(0, sent.size(), sent) != 0)
            __builtin_trap();
    }
    // Tunnel bytes behind the answer stay, in order, for the relay.
    if (left.size() > answer.size() ||
        answer.compare(answer.size() - left.size(), left.size(), left) != 0)
        __builtin_trap();
    return 0;
}
