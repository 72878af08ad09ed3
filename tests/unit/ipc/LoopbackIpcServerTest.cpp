// SPDX-License-Identifier: Apache-2.0
// The loopback transport with real sockets: peers that break the framing or its bounds are
// dropped with one log line while another peer is served; one session per identity.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/wire/IpcClient.h"
#include "ipc/wire/IpcPacket.h"
#include "platform/linux/LoopbackIpcServer.h"
#include "support/SocketPeers.h"
#include "support/TestServers.h"
#include "support/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;

// Records the transport's events as text: "up 10 1", "down 10 1", "msg 1025".
class RecordingCallback : public IIPCCallback {
public:
    void OnPeerStateChanged(IPC_IDENTITY identity, unsigned short session,
                            IPC_CONN_STATE state) override {
        Add(std::string(state == IPC_CONN_CONNECTED ? "up " : "down ") + std::to_string(identity) +
            " " + std::to_string(session));
    }
    void OnMsgRecv(const IPC_MESSAGE& message, IPC_IDENTITY, unsigned short) override {
        MSG_QUEUE_MSG read(COMM_MSG_NONE, 0, 1, 0);
        (void)ParsePacket(message.data, message.length, read);
        Add("msg " + std::to_string(read.msg_id));
    }
    void OnAckMsgRecv(unsigned int) override {}
    std::vector<std::string> Events() {
        std::lock_guard<std::mutex> hold(m_lock);
        return m_events;
    }

private:
    void Add(const std::string& event) {
        std::lock_guard<std::mutex> hold(m_lock);
        m_events.push_back(event);
    }
    std::mutex m_lock;
    std::vector<std::string> m_events;
};

struct ServerRelease {
    void operator()(CLoopbackIpcServer* server) const { server->Release(); }
};

class LoopbackIpcServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        LoopbackIpcLimits limits;
        limits.identityWait = limits.frameWait = 150ms;
        limits.sendWait = 300ms;
        limits.maxWaiting = 2;
        m_server.reset(new CLoopbackIpcServer(&m_callback, 0, limits));
        ASSERT_EQ(m_server->Setup({IPC_IDENTITY_SERVICE, IPC_IDENTITY_SWG_CLIENT}, 5), 0);
    }

    void Connect(CIpcClient& client, uint32_t identity) {
        std::string error;
        ASSERT_TRUE(client.Connect(m_server->Port(), identity, 2s, error)) << error;
    }
    bool HasEvent(const std::string& event) {
        for (const std::string& seen : m_callback.Events()) {
            if (seen == event) return true;
        }
        return false;
    }
    long SendTo(unsigned short session, eCOMM_MESSAGE_ID id) {
        const std::vector<unsigned char> packet = BuildPacket(MSG_QUEUE_MSG(id, 0, 1, 0));
        IPC_MESSAGE message;
        message.length = static_cast<uint32_t>(packet.size());
        message.data = packet.data();
        return m_server->Send(message, session);
    }
    static bool Receives(CIpcClient& client, eCOMM_MESSAGE_ID id) {
        MSG_QUEUE_MSG message(COMM_MSG_NONE, 0, 1, 0);
        return client.Receive(message, 2s) == CIpcClient::Received::Message && message.msg_id == id;
    }

    swg_test::RecordingTrace m_trace;
    RecordingCallback m_callback;
    std::unique_ptr<CLoopbackIpcServer, ServerRelease> m_server;
};

struct BadPeer {
    const char* name;
    std::string bytes;
    bool closeAfter;
    const char* reason;  // the end of the one log line
};

std::string Frame(uint32_t length, const std::string& body) {
    return std::string(reinterpret_cast<const char*>(&length), 4) + body;
}

class BadPeerTest : public LoopbackIpcServerTest, public ::testing::WithParamInterface<BadPeer> {};

// Each malformed or stalled peer is dropped with exactly one line, and the agent's other peer
// is neither dropped nor starved meanwhile.
TEST_P(BadPeerTest, IsDroppedWithOneLineWhileTheGoodPeerIsServed) {
    CIpcClient good;
    Connect(good, IPC_IDENTITY_SERVICE);
    ASSERT_TRUE(swg_test::WaitUntil([&] { return HasEvent("up 9 1"); }));

    CIpcClient bad;
    std::string error;
    ASSERT_TRUE(bad.Connect(m_server->Port(), IPC_IDENTITY_SWG_CLIENT, 2s, error)) << error;
    ASSERT_TRUE(bad.SendBytes(GetParam().bytes, 2s));
    if (GetParam().closeAfter) ::shutdown(bad.Fd(), SHUT_WR);
    MSG_QUEUE_MSG ignored(COMM_MSG_NONE, 0, 1, 0);
    EXPECT_EQ(bad.Receive(ignored, swg_test::kHangGuard), CIpcClient::Received::Closed);

    const auto lines = m_trace.With("SecureIPC : dropped peer");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].text.find(GetParam().reason), std::string::npos) << lines[0].text;
    EXPECT_EQ(SendTo(1, COMM_MSG_SERVICE_STATS), 0);
    EXPECT_TRUE(Receives(good, COMM_MSG_SERVICE_STATS));
    EXPECT_FALSE(HasEvent("down 9 1"));
}

const std::string kPacket = [] {
    const auto packet = BuildPacket(MSG_QUEUE_MSG(COMM_MSG_COLLECT_DATA_START, 0, 1, 0));
    return std::string(packet.begin(), packet.end());
}();

INSTANTIATE_TEST_SUITE_P(
    Peers, BadPeerTest,
    ::testing::Values(
        BadPeer{"WrongMagic", Frame(24, "GET / HTTP/1.1\r\nHost: x\r\n"), false,
                "without the packet magic"},
        BadPeer{"Oversized", Frame(kMaxIpcFrameBytes + 1, kPacket), false,
                "over the limit of 1048576"},
        BadPeer{"Truncated", Frame(24, kPacket.substr(0, 10)), true, "closed inside a frame"},
        BadPeer{"Stalled", Frame(24, kPacket.substr(0, 10)), false,
                "frame not complete within 150 ms"},
        BadPeer{"Flood",
                [] {
                    std::string frames;
                    for (int i = 0; i < 65; ++i) frames += Frame(24, kPacket);
                    return frames;
                }(),
                false, "more than 64 frames within a second"},
        // The client's identity went out first; these bytes follow as a garbage frame length.
        BadPeer{"Garbage", "\xff\xff\xff\x7f garbage", false, "over the limit"}),
    [](const ::testing::TestParamInfo<BadPeer>& row) { return std::string(row.param.name); });

// Before naming itself a peer gets a bounded time and one of a bounded number of places; an
// identity that is not served is refused. None of them reaches the communicator.
TEST_F(LoopbackIpcServerTest, BoundsPeersThatHaveNotNamedThemselves) {
    const sockaddr_storage agent = swg_test::Endpoint("127.0.0.1", m_server->Port());
    swg_test::UniqueFd silent1 = swg_test::ConnectTo(agent);
    swg_test::UniqueFd silent2 = swg_test::ConnectTo(agent);
    swg_test::UniqueFd third = swg_test::ConnectTo(agent);
    EXPECT_EQ(swg_test::ReadToEnd(third.Get(), swg_test::kHangGuard), "");
    EXPECT_EQ(m_trace.With("connections already wait for their identity").size(), 1u);
    EXPECT_EQ(swg_test::ReadToEnd(silent1.Get(), swg_test::kHangGuard), "");
    EXPECT_EQ(swg_test::ReadToEnd(silent2.Get(), swg_test::kHangGuard), "");
    EXPECT_EQ(m_trace.With("no identity within 150 ms").size(), 2u);

    swg_test::UniqueFd stranger = swg_test::ConnectTo(agent);
    ASSERT_TRUE(swg_test::WriteAll(stranger.Get(), EncodeIpcIdentity(77), 2s));
    EXPECT_EQ(swg_test::ReadToEnd(stranger.Get(), swg_test::kHangGuard), "");
    EXPECT_EQ(m_trace.With("identity 77 is not served").size(), 1u);
    EXPECT_TRUE(m_callback.Events().empty());
}

// A second connection of the plug-in replaces the first, which is reported gone before the
// second is reported connected, so the session left recorded is the live one. A plug-in that
// stops reading makes a send fail within the bound instead of holding the sender for ever.
TEST_F(LoopbackIpcServerTest, NewPlugInReplacesTheOldAndAStuckOneIsLetGo) {
    CIpcClient first;
    CIpcClient second;
    Connect(first, IPC_IDENTITY_SWG_CLIENT);
    ASSERT_TRUE(swg_test::WaitUntil([&] { return HasEvent("up 10 1"); }));
    Connect(second, IPC_IDENTITY_SWG_CLIENT);
    ASSERT_TRUE(swg_test::WaitUntil([&] { return HasEvent("up 10 2"); }));
    EXPECT_EQ(m_callback.Events(), (std::vector<std::string>{"up 10 1", "down 10 1", "up 10 2"}));
    MSG_QUEUE_MSG ignored(COMM_MSG_NONE, 0, 1, 0);
    EXPECT_EQ(first.Receive(ignored, swg_test::kHangGuard), CIpcClient::Received::Closed);
    EXPECT_NE(SendTo(1, COMM_MSG_SERVICE_STATS), 0);

    const std::vector<unsigned char> large(512 * 1024, 'x');
    IPC_MESSAGE message;
    message.length = static_cast<uint32_t>(large.size());
    message.data = large.data();
    long result = 0;
    for (int i = 0; i < 256 && result == 0; ++i) result = m_server->Send(message, 2);
    EXPECT_NE(result, 0);
    EXPECT_TRUE(swg_test::WaitUntil([&] { return HasEvent("down 10 2"); }));
}

}  // namespace
