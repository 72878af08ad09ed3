// SPDX-License-Identifier: Apache-2.0
// libFuzzer target: the plug-in channel's framing and packet reader on arbitrary bytes, as a
// peer on 127.0.0.1:5004 could send them. The first input byte chooses how the stream is cut
// into reads.
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"
#include "ipc/wire/IpcFrame.h"
#include "ipc/wire/IpcPacket.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    SwgSetSyslogWriter(&swg_fuzz::DropSyslogLine);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::size_t chunk = 1 + data[0] % 64;
    ++data;
    --size;
    CIpcFrameReader reader(true);
    while (size > 0) {
        const unsigned char* piece = data;
        std::size_t left = size < chunk ? size : chunk;
        data += left;
        size -= left;
        while (left > 0) {
            switch (reader.Consume(piece, left)) {
                case CIpcFrameReader::TooLong:
                case CIpcFrameReader::NoMagic:
                    return 0;  // the agent drops the peer here
                case CIpcFrameReader::FrameDone: {
                    const auto& frame = reader.FrameBytes();
                    // What the reader hands out is bounded and carries the magic.
                    if (frame.size() > kMaxIpcFrameBytes || frame.size() < 4) __builtin_trap();
                    MSG_QUEUE_MSG message(COMM_MSG_NONE, 0, 1, 0);
                    if (ParsePacket(frame.data(), frame.size(), message) == PacketStatus::Ok &&
                        message.msg_data != nullptr &&
                        message.msg_size + kPacketHeaderBytes > frame.size()) {
                        __builtin_trap();
                    }
                    break;
                }
                case CIpcFrameReader::NeedMore:
                case CIpcFrameReader::IdentityDone:
                    break;
            }
        }
    }
    return 0;
}
