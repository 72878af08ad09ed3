// SPDX-License-Identifier: Apache-2.0
// Steps of the connection job whose pieces are not built yet: mode selection, the gateway leg and
// the failure policy. Each keeps its place in HandleConnection and does what the absent piece
// would: nothing is sniffed, so every connection is relayed straight to its destination. Remove
// an entry here when its piece lands.
#include "proxy/ConnectionThread.h"

#include "foundation/Trace.h"

// TODO(lead): gateway connection; no gateway exchange takes place until then.
long CDnConnectionThread::DoProxyConnect(std::string /*host*/, unsigned short /*port*/,
                                         std::string /*reserved*/, bool /*addLicence*/) {
    return 0;
}
long CDnConnectionThread::ProcessProxyResponse(bool& connectionLost, int& status,
                                               bool /*noForward*/) {
    connectionLost = false;
    status = 0;
    return 0;
}
void CDnConnectionThread::handleAnycastFailure() {}
void CDnConnectionThread::StartSetConnectTime() {}
void CDnConnectionThread::EndSetConnectTime() {}

// TODO(lead): failure policy; without it a connection that could not be made is closed.
bool CDnConnectionThread::OnConnectionFailure(CONN_FAILURE_REASON /*reason*/) { return false; }
void CDnConnectionThread::handleCaptivePortal(const std::string& /*message*/, bool /*keepSocket*/) {
}
