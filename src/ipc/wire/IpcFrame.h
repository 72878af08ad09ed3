// SPDX-License-Identifier: Apache-2.0
// Framing of the plug-in channel on TCP 127.0.0.1:5004, host byte order:
//
//   client to agent, once:  identity, 4-byte unsigned (10 for the UI plug-in)
//   then either way:        length, 4-byte unsigned; then that many bytes: one packet
//
// The agent takes a packet only when it starts with the packet magic, and at most
// kMaxIpcFrameBytes long; anything else ends the connection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Who is at the other end of a connection.
enum IPC_IDENTITY : uint32_t {
    IPC_IDENTITY_SERVICE = 9,      // the agent's own side
    IPC_IDENTITY_SWG_CLIENT = 10,  // the UI plug-in, "SWG_CLIENT" in the logs
};

constexpr uint16_t kSwgIpcPort = 5004;
// Packets are a few hundred bytes of JSON; this bounds what one peer can make the agent hold.
constexpr uint32_t kMaxIpcFrameBytes = 1u << 20;

// Splits a byte stream into the identity (when `identityFirst`) and frames. One reader per
// direction of one connection; not shared between threads.
class CIpcFrameReader {
public:
    enum Status {
        NeedMore,      // everything given was taken; no unit is complete
        IdentityDone,  // Identity() holds the peer's identity
        FrameDone,     // FrameBytes() holds one packet
        TooLong,       // the frame's length is over kMaxIpcFrameBytes (DeclaredLength())
        NoMagic,       // the frame is shorter than the magic or does not start with it
    };

    explicit CIpcFrameReader(bool identityFirst) : m_needIdentity(identityFirst) {}

    // Takes bytes from the front of [data, data + size) until one unit is complete or the
    // stream is found malformed, and moves `data` and `size` past what it took. After TooLong
    // or NoMagic the stream cannot be resynchronised: the caller drops the connection.
    Status Consume(const unsigned char*& data, std::size_t& size);

    uint32_t Identity() const { return m_identity; }
    // The last complete frame; valid until the next Consume.
    const std::vector<unsigned char>& FrameBytes() const { return m_frame; }
    uint32_t DeclaredLength() const { return m_length; }
    // True while bytes of an unfinished identity or frame are held.
    bool Partial() const { return m_headHave != 0 || m_inBody; }

private:
    bool FillHead(const unsigned char*& data, std::size_t& size);

    bool m_needIdentity;
    bool m_inBody = false;
    unsigned char m_head[4] = {};
    std::size_t m_headHave = 0;
    uint32_t m_identity = 0;
    uint32_t m_length = 0;
    std::vector<unsigned char> m_frame;
};

// The 4 bytes of `identity` as a client sends them first.
std::string EncodeIpcIdentity(uint32_t identity);
// One frame: the length of `packet`, then the packet.
std::string EncodeIpcFrame(const std::vector<unsigned char>& packet);
