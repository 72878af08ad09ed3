// SPDX-License-Identifier: Apache-2.0
// The packet of the plug-in channel: a 24-byte header in host byte order, then the payload.
//
//   offset  width  field
//   0       4      packetMagic   0xDEADBEEF
//   4       2      headerWordA   1
//   6       2      headerWordB   0
//   8       8      startTag      "STARTMSG", no terminating zero
//   16      4      msg_size      payload bytes; JSON texts count their terminating zero
//   20      4      msg_id        eCOMM_MESSAGE_ID
//   24      ...    payload
#pragma once

#include <cstddef>
#include <vector>

#include "ipc/wire/MsgQueue.h"

// The packet of `message`: the header as the message holds it, then msg_size payload bytes
// when the message has a buffer and msg_size is not 0 (otherwise no payload, msg_size as it
// stands). Throws std::bad_alloc when out of memory.
std::vector<unsigned char> BuildPacket(const MSG_QUEUE_MSG& message);

// How far ParsePacket got.
enum class PacketStatus {
    Ok,           // header, id and (if it fits) payload are in the message
    Empty,        // no bytes
    NoHeader,     // 20 bytes or fewer (the bound is kept as the receiver has always had it)
    NoMessageId,  // 21 to 23 bytes: the header is in the message, the id is not
};

// Reads the packet at `data` into `out`. No header field is checked. The payload is copied
// only when msg_size is not 0 and msg_size + 24 <= size; otherwise `out` keeps msg_size as sent
// and no buffer. A payload buffer that cannot be allocated leaves msg_size 0 and no buffer.
PacketStatus ParsePacket(const unsigned char* data, std::size_t size, MSG_QUEUE_MSG& out);
