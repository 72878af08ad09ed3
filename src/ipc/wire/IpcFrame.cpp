// SPDX-License-Identifier: Apache-2.0
// Framing of the plug-in channel.
#include "ipc/wire/IpcFrame.h"

#include <algorithm>
#include <cstring>

#include "ipc/wire/MsgQueue.h"

bool CIpcFrameReader::FillHead(const unsigned char*& data, std::size_t& size) {
    const std::size_t take = std::min(size, sizeof(m_head) - m_headHave);
    std::memcpy(m_head + m_headHave, data, take);
    m_headHave += take;
    data += take;
    size -= take;
    return m_headHave == sizeof(m_head);
}

CIpcFrameReader::Status CIpcFrameReader::Consume(const unsigned char*& data, std::size_t& size) {
    if (m_needIdentity) {
        if (!FillHead(data, size)) return NeedMore;
        std::memcpy(&m_identity, m_head, sizeof(m_identity));
        m_headHave = 0;
        m_needIdentity = false;
        return IdentityDone;
    }
    if (!m_inBody) {
        if (!FillHead(data, size)) return NeedMore;
        std::memcpy(&m_length, m_head, sizeof(m_length));
        m_headHave = 0;
        if (m_length > kMaxIpcFrameBytes) return TooLong;
        if (m_length < sizeof(kPacketMagic)) return NoMagic;
        m_inBody = true;
        m_frame.clear();
    }
    // The buffer grows with what arrives, not with what the length promises.
    const std::size_t take = std::min<std::size_t>(size, m_length - m_frame.size());
    const std::size_t before = m_frame.size();
    m_frame.insert(m_frame.end(), data, data + take);
    data += take;
    size -= take;
    if (before < sizeof(kPacketMagic) && m_frame.size() >= sizeof(kPacketMagic)) {
        uint32_t magic = 0;
        std::memcpy(&magic, m_frame.data(), sizeof(magic));
        if (magic != kPacketMagic) return NoMagic;
    }
    if (m_frame.size() < m_length) return NeedMore;
    m_inBody = false;
    return FrameDone;
}

std::string EncodeIpcIdentity(uint32_t identity) {
    return std::string(reinterpret_cast<const char*>(&identity), sizeof(identity));
}

std::string EncodeIpcFrame(const std::vector<unsigned char>& packet) {
    const uint32_t length = static_cast<uint32_t>(packet.size());
    std::string frame(reinterpret_cast<const char*>(&length), sizeof(length));
    frame.append(packet.begin(), packet.end());
    return frame;
}
