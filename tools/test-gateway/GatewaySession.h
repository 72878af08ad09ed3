// SPDX-License-Identifier: Apache-2.0
// One client connection of the test gateway, from its request to the end of its tunnel.
#pragma once

#include <string>
#include <vector>

#include "GatewayLog.h"
#include "GatewayOptions.h"
#include "RequestHead.h"

namespace testgw {

// Runs on one worker thread and owns the client descriptor from construction on; every wait
// ends when `stopFd` turns readable.
class CGatewaySession {
public:
    CGatewaySession(const GatewayOptions& options, const std::string& privateKeyPem,
                    CGatewayLog& log, int clientFd, int stopFd);
    ~CGatewaySession();
    CGatewaySession(const CGatewaySession&) = delete;
    CGatewaySession& operator=(const CGatewaySession&) = delete;

    // Serves the connection to its end and closes it. Never throws.
    void Run();

private:
    bool ReadRequest();
    Faults PickFaults() const;
    std::string LicenceLine() const;
    // Applies the faults that answer without an upstream; true when the request is done.
    bool AnswerByFault(const Faults& faults);
    void SendStatus(int status, bool via, const std::string& detail);
    void Tunnel(const Faults& faults);
    void Forward();
    int ConnectUpstream();
    std::string ViaLine() const;
    void Result(const std::string& text);
    void CloseClient(bool graceful);

    const GatewayOptions& m_options;
    const std::string& m_privateKeyPem;
    CGatewayLog& m_log;
    int m_client;
    int m_stopFd;
    CRequestHead m_head;
    std::string m_extra;  // bytes the client sent behind its header block
};

}  // namespace testgw
