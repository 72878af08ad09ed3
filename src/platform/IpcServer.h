// SPDX-License-Identifier: Apache-2.0
// The transport under the communicator: a server that peers connect to, identified by an
// identity and a 16-bit session id, exchanging packets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>

#include "ipc/wire/IpcFrame.h"

// What the transport reports of a peer. Other states are not used here.
enum IPC_CONN_STATE : int {
    IPC_CONN_DISCONNECTED = 0,
    IPC_CONN_CONNECTED = 2,
};

// One packet handed to or received from the transport. `kind` is 1 from this program and is
// not read on receipt; `data` is owned by the caller for the duration of the call.
struct IPC_MESSAGE {
    uint32_t kind = 1;
    uint32_t reserved1 = 0;
    uint32_t length = 0;
    uint32_t reserved2 = 0;
    const unsigned char* data = nullptr;
};
static_assert(offsetof(IPC_MESSAGE, length) == 8 && offsetof(IPC_MESSAGE, data) == 16,
              "the transport's record layout");

// Receives the transport's events, on the transport's own thread. Implementations only
// update their state and post; they must return promptly.
class IIPCCallback {
public:
    virtual ~IIPCCallback() = default;
    // `identity` with `session` connected (IPC_CONN_CONNECTED) or went away
    // (IPC_CONN_DISCONNECTED). A session is reported connected before its first message.
    virtual void OnPeerStateChanged(IPC_IDENTITY identity, unsigned short session,
                                    IPC_CONN_STATE state) = 0;
    // One packet from `identity`/`session`; `message.data` is valid only during the call.
    virtual void OnMsgRecv(const IPC_MESSAGE& message, IPC_IDENTITY identity,
                           unsigned short session) = 0;
    // Not used by this transport.
    virtual void OnAckMsgRecv(unsigned int id) = 0;
};

// The server end. Setup once, Send from any thread, TearDown once, then Release.
class IIPCServer {
public:
    // Starts serving the identities in `peers` (others are refused). `parameter` is kept for
    // the transport's own use. 0 on success; non-zero when the endpoint cannot be had.
    virtual long Setup(const std::list<IPC_IDENTITY>& peers, unsigned int parameter) = 0;
    // Sends one packet to `session`. 0 once it was handed to the system whole; non-zero for
    // an unknown or closed session or a peer that does not take it within the transport's
    // bound. Any thread; blocks at most that bound.
    virtual long Send(const IPC_MESSAGE& message, unsigned short session) = 0;
    // Closes every connection and stops the transport's thread; no events follow.
    virtual void TearDown() = 0;
    // Destroys the object (after TearDown, which it calls if needed).
    virtual void Release() = 0;

protected:
    virtual ~IIPCServer() = default;
};

using LM_STATUSCODE = long;

class CIPCFactory {
public:
    // A new server of `self` on `port`, reporting to `callback` (which must outlive it).
    // Null, with `status` set, when it cannot be created; nothing is bound before Setup.
    static IIPCServer* CreateIPCServer(IPC_IDENTITY self, IIPCCallback* callback,
                                       LM_STATUSCODE& status, unsigned short port);
};
