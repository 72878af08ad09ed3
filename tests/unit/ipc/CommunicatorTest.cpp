// SPDX-License-Identifier: Apache-2.0
// The communicator's threads and queues over the real loopback transport: the greeting, the
// hand-over to a newer plug-in, and the disconnection that only the next send reveals.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "ipc/ServerSideCommunicator.h"
#include "ipc/wire/IpcClient.h"
#include "platform/linux/LoopbackIpcServer.h"
#include "support/ThreadTestSupport.h"

namespace {

using namespace std::chrono_literals;

// What the plug-in receives next, as "id payload"; "" when nothing comes within 2 s.
std::string Next(CIpcClient& client, std::chrono::milliseconds wait = 2s) {
    MSG_QUEUE_MSG message(COMM_MSG_NONE, 0, 1, 0);
    if (client.Receive(message, wait) != CIpcClient::Received::Message) return "";
    return CommMessageText(message.msg_id) +
           (message.msg_data != nullptr
                ? " " + std::string(reinterpret_cast<char*>(message.msg_data))
                : "");
}

void Post(CCommunicator& communicator, const std::string& text) {
    MSG_QUEUE_MSG message(COMM_MSG_SWG_STATE, 0, 1, 0);
    ASSERT_EQ(message.SetData(text.c_str(), static_cast<unsigned>(text.size() + 1)), 0);
    ASSERT_TRUE(communicator.PostMessage(&message));
}

// The process's agent is not started here, so the greeting is COMM_MSG_SRVC_STOPPED.
TEST(CommunicatorTest, GreetsEachFreshPlugInAndNoticesAGoneOneAtTheNextSend) {
    CServerSideCommunicator communicator(0, COMM_TYPE_SERVER, 5);
    ASSERT_EQ(communicator.Initialize(), 0u);
    ASSERT_EQ(communicator.Start(), 0u);
    auto* transport = static_cast<CLoopbackIpcServer*>(communicator.m_pSecureIPCInstance);
    ASSERT_TRUE(swg_test::WaitUntil([&] { return transport->Port() != 0; }));
    const auto connect = [&](CIpcClient& client) {
        std::string error;
        ASSERT_TRUE(client.Connect(transport->Port(), IPC_IDENTITY_SWG_CLIENT, 2s, error)) << error;
    };

    CIpcClient first;
    connect(first);
    EXPECT_EQ(Next(first), "COMM_MSG_SRVC_STOPPED");
    Post(communicator, "one");
    EXPECT_EQ(Next(first), "COMM_MSG_SWG_STATE one");

    // A newer plug-in takes the session over; the threads stay, so it is not greeted.
    CIpcClient second;
    connect(second);
    EXPECT_EQ(Next(first), "");
    ASSERT_TRUE(swg_test::WaitUntil([&] {
        unsigned short session = 0;
        return communicator.FindPeerSession(IPC_IDENTITY_SWG_CLIENT, session) && session == 2;
    }));
    Post(communicator, "two");
    EXPECT_EQ(Next(second), "COMM_MSG_SWG_STATE two");

    // Gone without a word: the communicator stays connected until a send finds no session.
    second.Close();
    ASSERT_TRUE(swg_test::WaitUntil([&] {
        unsigned short session = 0;
        return !communicator.FindPeerSession(IPC_IDENTITY_SWG_CLIENT, session);
    }));
    EXPECT_TRUE(communicator.IsConnected());
    Post(communicator, "lost");
    EXPECT_TRUE(swg_test::WaitUntil([&] { return !communicator.IsConnected(); }));

    CIpcClient third;
    connect(third);
    EXPECT_EQ(Next(third), "COMM_MSG_SRVC_STOPPED");
    Post(communicator, "three");
    EXPECT_EQ(Next(third), "COMM_MSG_SWG_STATE three");
    communicator.Stop();
    EXPECT_EQ(Next(third), "");
}

}  // namespace
