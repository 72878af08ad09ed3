// SPDX-License-Identifier: Apache-2.0
// Packets of the plug-in channel: building and reading.
#include "ipc/wire/IpcPacket.h"

#include <cstdint>
#include <cstring>

namespace {
template <typename T>
void Put(std::vector<unsigned char>& out, std::size_t at, T value) {
    std::memcpy(out.data() + at, &value, sizeof(value));
}
template <typename T>
T Get(const unsigned char* data, std::size_t at) {
    T value;
    std::memcpy(&value, data + at, sizeof(value));
    return value;
}
}  // namespace

std::vector<unsigned char> BuildPacket(const MSG_QUEUE_MSG& message) {
    const bool payload = message.msg_data != nullptr && message.msg_size != 0;
    std::vector<unsigned char> packet(kPacketHeaderBytes + (payload ? message.msg_size : 0));
    Put(packet, 0, message.packetMagic);
    Put(packet, 4, message.headerWordA);
    Put(packet, 6, message.headerWordB);
    std::memcpy(packet.data() + 8, message.startTag, sizeof(message.startTag));
    Put(packet, 16, message.msg_size);
    Put(packet, 20, static_cast<uint32_t>(message.msg_id));
    if (payload)
        std::memcpy(packet.data() + kPacketHeaderBytes, message.msg_data, message.msg_size);
    return packet;
}

PacketStatus ParsePacket(const unsigned char* data, std::size_t size, MSG_QUEUE_MSG& out) {
    if (size == 0) return PacketStatus::Empty;
    if (size <= kMsgQueueMsgHeaderBytes) return PacketStatus::NoHeader;
    out.packetMagic = Get<uint32_t>(data, 0);
    out.headerWordA = Get<uint16_t>(data, 4);
    out.headerWordB = Get<uint16_t>(data, 6);
    std::memcpy(out.startTag, data + 8, sizeof(out.startTag));
    out.msg_size = Get<uint32_t>(data, 16);
    delete[] out.msg_data;
    out.msg_data = nullptr;
    if (size < kPacketHeaderBytes) return PacketStatus::NoMessageId;
    out.msg_id = static_cast<eCOMM_MESSAGE_ID>(Get<uint32_t>(data, 20));
    const uint64_t needed = uint64_t{out.msg_size} + kPacketHeaderBytes;
    if (out.msg_size != 0 && needed <= size && out.ReserveBuffer(out.msg_size) == 0) {
        std::memcpy(out.msg_data, data + kPacketHeaderBytes, out.msg_size);
    }
    return PacketStatus::Ok;
}
