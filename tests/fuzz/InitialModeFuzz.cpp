// SPDX-License-Identifier: Apache-2.0
// libFuzzer target: a client's first bytes on a port other than 443, through the job's client
// side: SelectInitialMode's sniff and request-line split, then for HTTP the header block and
// the Host of the gateway request, on an IPv4 job and on an IPv6 job that gets the bytes in
// two reads. The input is every byte the client sends.
#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "FuzzSupport.h"
#include "proxy/ConnectionThread.h"
#include "upstream/ProxyInfo.h"
#include "upstream/PublicProxyManager.h"

namespace {

// TLS record of a ClientHello, as the sniff tells one: handshake type, major version 3 or
// more, handshake message 1.
bool LooksLikeClientHello(const std::string& bytes) {
    return bytes.size() >= 6 && bytes[0] == 0x16 && static_cast<unsigned char>(bytes[1]) >= 3 &&
           bytes[5] == 0x01;
}

// The client side of one job on `sent`, with the original destination 198.18.0.7:8080 or
// [2001:db8::7]:8080. The first `split` bytes come in a read of their own.
void RunJob(const std::string& sent, bool ipv6, std::size_t split) {
    swg_fuzz::Peer client;
    CDnConnectionThread thread;
    thread.m_pKdfSocket = client.agentSide;
    if (thread.m_pKdfSocket == nullptr || !client.Feed(sent.substr(split))) return;
    thread.m_pKdfSocket->SetReceivePrefix(sent.data(), static_cast<int>(split));
    // The client's bytes are all queued already: no wait for more of them.
    thread.m_firstBytesWaitMs = 0;
    thread.m_bIPv6 = ipv6;
    const in_addr destination{htonl(0xC6120007)};
    std::memcpy(&thread.m_origDstV4, &destination, sizeof(destination));
    (void)inet_pton(AF_INET6, "2001:db8::7", thread.m_origDstV6);
    thread.m_origDstPort = htons(8080);
    ResetProxyInfo();

    long code = thread.SelectInitialMode();
    std::string taken;  // what the job has taken off the stream for good
    if (code == 0 && thread.CMode == 2) {
        code = thread.ReadHttpHeaders();
        for (const std::string& line : thread.m_headers.m_lines) taken += line;
        taken = swg_fuzz::AsReceived(taken + "\r\n");
    }
    // The gateway is asked for a host without a port: the connection's own address, or the
    // Host value cut before its first ":".
    if (code == 0 && thread.CMode != 0) {
        thread.SetupHost();
        const std::string& host = thread.m_host;
        if (host.empty() || (host.find(':') != std::string::npos && host != "2001:db8::7"))
            __builtin_trap();
    }

    // Sniffing takes nothing: every byte the client sent is still there for the gateway or
    // the relay, in order, behind the header block when one was read whole.
    if (code == 0 && taken + swg_fuzz::Unread(*thread.m_pKdfSocket) != sent) __builtin_trap();
    // Nothing goes to the gateway that was not recognised: a ClientHello or a request line.
    const std::string firstLine = sent.substr(0, sent.find('\n'));
    if (thread.TMode != 0 && thread.CMode == 0) __builtin_trap();
    if (thread.CMode == 1 && !LooksLikeClientHello(sent)) __builtin_trap();
    if (thread.CMode == 2 && firstLine.find("HTTP/") == std::string::npos) __builtin_trap();
    ResetProxyInfo();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    swg_fuzz::QuietLogging();
    // Held for the whole run: a proxy client's job looks the manager up, and creating it
    // anew for every input would cost a key generation each time.
    static PublicProxyManager* const s_proxyManager =
        PublicProxyManager::AcquireSingletonInstance();
    (void)s_proxyManager;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size > swg_fuzz::kMaxInput) return -1;
    const std::string sent(reinterpret_cast<const char*>(data), size);
    RunJob(sent, false, 0);
    RunJob(sent, true, size / 2);
    return 0;
}
