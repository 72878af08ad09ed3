// SPDX-License-Identifier: Apache-2.0
// The plug-in channel's packets, framing and message queue, against byte vectors.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ipc/wire/IpcFrame.h"
#include "ipc/wire/IpcPacket.h"
#include "ipc/wire/MsgQueue.h"
#include "support/ThreadTestSupport.h"

namespace {

using Bytes = std::vector<unsigned char>;

MSG_QUEUE_MSG Message(eCOMM_MESSAGE_ID id, const std::string& payload = std::string()) {
    MSG_QUEUE_MSG message(id, 0, 1, 0);
    if (!payload.empty()) {
        EXPECT_EQ(message.SetData(payload.c_str(), static_cast<unsigned>(payload.size() + 1)), 0);
    }
    return message;
}

// COMM_MSG_SWG_STATE carrying {"version":1,"swg_protection_state":"protected"} and its zero,
// as a little-endian host writes it.
const Bytes kStatePacket = [] {
    Bytes packet = {
        0xEF, 0xBE, 0xAD, 0xDE,                      // packetMagic
        0x01, 0x00,                                  // headerWordA 1
        0x00, 0x00,                                  // headerWordB 0
        'S',  'T',  'A',  'R',  'T', 'M', 'S', 'G',  // startTag, no zero
        0x31, 0x00, 0x00, 0x00,                      // msg_size 49
        0x01, 0x04, 0x00, 0x00,                      // msg_id 0x401
    };
    const std::string text = "{\"version\":1,\"swg_protection_state\":\"protected\"}";
    packet.insert(packet.end(), text.begin(), text.end());
    packet.push_back(0);
    return packet;
}();

// A packet built wrong (a field moved, the zero lost) breaks every plug-in.
TEST(IpcPacketTest, BuildsTheHeaderAndPayloadByteForByte) {
    EXPECT_EQ(BuildPacket(Message(COMM_MSG_SWG_STATE,
                                  "{\"version\":1,\"swg_protection_state\":\"protected\"}")),
              kStatePacket);
    // No buffer: 24 bytes, with msg_size as the message states it.
    MSG_QUEUE_MSG bare(COMM_MSG_SRVC_STARTED, 7, 1, 0);
    const Bytes packet = BuildPacket(bare);
    ASSERT_EQ(packet.size(), kPacketHeaderBytes);
    EXPECT_EQ(packet[16], 7);
    EXPECT_EQ(packet[20], 0x06);
}

// The receiver's reading of short, oversized and foreign packets: a wrong bound drops good
// commands or reads past what arrived.
TEST(IpcPacketTest, ParsesEachLengthAsTheReceiverDoes) {
    Bytes wrongMagic = kStatePacket;
    wrongMagic[0] = 0x00;
    Bytes overstated(kStatePacket.begin(), kStatePacket.begin() + 30);  // msg_size 49, 6 came
    const struct {
        Bytes bytes;
        PacketStatus status;
        uint32_t size;
        bool payload;
    } rows[] = {
        {Bytes(), PacketStatus::Empty, 0, false},
        {Bytes(kStatePacket.begin(), kStatePacket.begin() + 20), PacketStatus::NoHeader, 0, false},
        {Bytes(kStatePacket.begin(), kStatePacket.begin() + 21), PacketStatus::NoMessageId, 49,
         false},
        {Bytes(kStatePacket.begin(), kStatePacket.begin() + 23), PacketStatus::NoMessageId, 49,
         false},
        {BuildPacket(Message(COMM_MSG_COLLECT_DATA_START)), PacketStatus::Ok, 0, false},
        {overstated, PacketStatus::Ok, 49, false},
        {wrongMagic, PacketStatus::Ok, 49, true},
        {kStatePacket, PacketStatus::Ok, 49, true},
    };
    for (const auto& row : rows) {
        MSG_QUEUE_MSG out(COMM_MSG_NONE, 0, 1, 0);
        EXPECT_EQ(ParsePacket(row.bytes.data(), row.bytes.size(), out), row.status)
            << row.bytes.size();
        EXPECT_EQ(out.msg_size, row.size) << row.bytes.size();
        ASSERT_EQ(out.msg_data != nullptr, row.payload) << row.bytes.size();
        if (row.payload) {
            EXPECT_EQ(out.msg_id, COMM_MSG_SWG_STATE);
            EXPECT_STREQ(reinterpret_cast<const char*>(out.msg_data),
                         "{\"version\":1,\"swg_protection_state\":\"protected\"}");
        }
    }
}

// A stream cut anywhere must give the same identity and frames; a reader that loses or
// doubles bytes at a chunk boundary desynchronises the channel.
TEST(IpcFrameTest, ReadsIdentityAndFramesSplitAtEveryByte) {
    const Bytes second = BuildPacket(Message(COMM_MSG_COLLECT_DATA_STOP));
    const std::string stream = EncodeIpcIdentity(IPC_IDENTITY_SWG_CLIENT) +
                               EncodeIpcFrame(kStatePacket) + EncodeIpcFrame(second);
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        CIpcFrameReader reader(true);
        std::vector<std::string> seen;
        for (const std::string& chunk : {stream.substr(0, cut), stream.substr(cut)}) {
            const unsigned char* data = reinterpret_cast<const unsigned char*>(chunk.data());
            std::size_t size = chunk.size();
            while (size > 0) {
                const CIpcFrameReader::Status status = reader.Consume(data, size);
                if (status == CIpcFrameReader::IdentityDone)
                    seen.push_back(std::to_string(reader.Identity()));
                if (status == CIpcFrameReader::FrameDone)
                    seen.push_back(std::to_string(reader.FrameBytes().size()));
                ASSERT_TRUE(status != CIpcFrameReader::TooLong &&
                            status != CIpcFrameReader::NoMagic);
            }
        }
        EXPECT_EQ(seen, (std::vector<std::string>{"10", "73", "24"})) << "cut at " << cut;
        EXPECT_FALSE(reader.Partial());
    }
}

// Malformed frames are found as early as the bytes allow, before the agent holds more.
TEST(IpcFrameTest, RejectsOversizedShortAndForeignFrames) {
    const uint32_t tooLong = kMaxIpcFrameBytes + 1;
    const uint32_t three = 3;
    const uint32_t thirty = 30;
    const struct {
        std::string bytes;
        CIpcFrameReader::Status status;
    } rows[] = {
        {std::string(reinterpret_cast<const char*>(&tooLong), 4), CIpcFrameReader::TooLong},
        {std::string(reinterpret_cast<const char*>(&three), 4) + "abc", CIpcFrameReader::NoMagic},
        // 30 bytes announced, 4 wrong ones sent: refused without waiting for the other 26.
        {std::string(reinterpret_cast<const char*>(&thirty), 4) + "GET ", CIpcFrameReader::NoMagic},
        {std::string(reinterpret_cast<const char*>(&thirty), 4) + "\xEF\xBE\xAD\xDE",
         CIpcFrameReader::NeedMore},
    };
    for (const auto& row : rows) {
        CIpcFrameReader reader(false);
        const unsigned char* data = reinterpret_cast<const unsigned char*>(row.bytes.data());
        std::size_t size = row.bytes.size();
        CIpcFrameReader::Status status = CIpcFrameReader::NeedMore;
        while (size > 0 && status == CIpcFrameReader::NeedMore) status = reader.Consume(data, size);
        EXPECT_EQ(status, row.status) << row.bytes.size();
    }
}

// Order, the bounded wait, and the quit message that ends a reader blocked in its loop.
TEST(MsgQueueTest, KeepsOrderWaitsBoundedAndEndsAReaderOnQuit) {
    CMsgQueue queue("test");
    EXPECT_FALSE(queue.MQPostMessage(nullptr));
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(queue.MQGetMessage(true, 200), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(190));

    // A header that reports a size without a buffer is copied as it stands.
    const MSG_QUEUE_MSG sized(COMM_MSG_SWG_STATE, 5, 1, 0);
    EXPECT_TRUE(queue.MQPostMessage(&sized));
    const MSG_QUEUE_MSG withText = Message(COMM_MSG_SWG_REPORT, "{}");
    EXPECT_TRUE(queue.MQPostMessage(&withText));
    std::vector<std::string> read;
    std::thread reader([&] {
        for (;;) {
            MSG_QUEUE_MSG* message = queue.MQGetMessage(true, 200);
            if (message == nullptr) continue;
            const bool quit = message->msg_id == COMM_MSG_QUIT;
            read.push_back(CommMessageText(message->msg_id) + ":" +
                           std::to_string(message->msg_size) +
                           (message->msg_data != nullptr ? ":data" : ""));
            delete message;
            if (quit) return;
        }
    });
    const MSG_QUEUE_MSG quit(COMM_MSG_QUIT, 0, 1, 0);
    EXPECT_TRUE(queue.MQPostMessage(&quit));
    reader.join();
    EXPECT_EQ(read, (std::vector<std::string>{"COMM_MSG_SWG_STATE:5", "COMM_MSG_SWG_REPORT:3:data",
                                              "COMM_MSG_QUIT:0"}));
}

}  // namespace
