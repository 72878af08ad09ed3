// SPDX-License-Identifier: Apache-2.0
// CDnSocket: the plain TCP socket of the connection path, over one descriptor it owns.
#pragma once

#include "proxy/VSocket.h"

// Owns its descriptor and closes it on destruction. Sends never raise SIGPIPE: a peer that
// has gone is reported as a failed send (EPIPE), whatever the process's signal setup.
class CDnSocket : public CDnVSocket {
public:
    // Takes ownership of an existing descriptor (an accepted socket, say); -1 for none.
    explicit CDnSocket(int socket);
    // Opens a new socket(2) of `family`, `type`, `protocol`. On failure GetSocket() is -1
    // and errno tells why.
    CDnSocket(int family, int type, int protocol);
    ~CDnSocket() override;

    [[nodiscard]] int Send(const char* buffer, int length, int flags) override;
    [[nodiscard]] int SendComplete(const char* buffer, int length, int flags, bool stop) override;
    [[nodiscard]] int Recv(char* buffer, int length, int flags) override;
    int Shutdown(int how) override;
    [[nodiscard]] int Connect(const sockaddr* address, int length, long timeout) override;
    int CloseSocket() override;
};
