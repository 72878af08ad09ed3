// SPDX-License-Identifier: Apache-2.0
// libFuzzer target: the header block reader on any bytes from a socket, then the lookups and
// the writer over what it read. The input is every byte the peer sends.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "FuzzSupport.h"
#include "proxy/HttpHeaders.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    swg_fuzz::QuietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size > swg_fuzz::kMaxInput) return -1;
    const std::string sent(reinterpret_cast<const char*>(data), size);
    swg_fuzz::Peer in;
    swg_fuzz::Peer out;
    const std::unique_ptr<CDnSocket> reader(in.agentSide);
    const std::unique_ptr<CDnSocket> writer(out.agentSide);
    if (!reader || !writer || !in.Feed(sent)) return -1;
    const std::atomic<bool> running{false};

    CDnHttpHeaders block(256);
    if (block.Read(reader.get(), running, 64000) != 0) return 0;
    if (!block.m_bComplete) __builtin_trap();
    int bytes = 2;
    for (const std::string& line : block.m_lines) {
        if (line.size() < 3 || line.compare(line.size() - 2, 2, "\r\n") != 0) __builtin_trap();
        bytes += static_cast<int>(line.size());
    }
    if (bytes != block.m_bytes) __builtin_trap();

    // A value found is trimmed; a line is found by its own text.
    const std::string first = block.m_lines.empty() ? std::string() : block.m_lines.front();
    for (const std::string& name :
         {std::string("Host"), std::string("content-length"), first.substr(0, first.find(':'))}) {
        const std::string value = block.HeaderValue(name);
        if (!value.empty() && (value.find_first_of(" \t\r\n") == 0 ||
                               value.find_last_of(" \t\r\n") == value.size() - 1))
            __builtin_trap();
    }
    const auto found = block.LeftFind(first, block.m_lines.begin(), true);
    if (!first.empty() && found != block.m_lines.begin()) __builtin_trap();

    // Written out, the block is the bytes it was read from; the bytes behind it stay unread.
    if (block.Write(writer.get(), running) != 0) __builtin_trap();
    if (swg_fuzz::AsReceived(out.Drain()) + swg_fuzz::Unread(*reader) != sent) __builtin_trap();
    return 0;
}
