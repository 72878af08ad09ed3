// SPDX-License-Identifier: Apache-2.0
// CDnConnectionThread: what a connection does when the gateway cannot be reached (bypass, refusal
// page, close).
#include <string>

#include "core/SWGAgent.h"
#include "foundation/MsgCatalog.h"
#include "foundation/Trace.h"
#include "proxy/ConnectionThread.h"
#include "proxy/DnSocket.h"
#include "proxy/HttpHeaders.h"

namespace {

// The English texts are also the catalogue's keys.
const char* FailureKey(CDnConnectionThread::CONN_FAILURE_REASON reason) {
    switch (reason) {
        case CDnConnectionThread::FAILURE_LICENSE:
            return "Unable to verify the license key.";
        case CDnConnectionThread::FAILURE_CONNECT:
            return "Could not establish a connection.";
        case CDnConnectionThread::FAILURE_SECURE_CONNECT:
            return "Could not establish a secure connection.";
        case CDnConnectionThread::FAILURE_PEER_IDENTITY:
            return "Unable to verify the identity of the peer.";
        case CDnConnectionThread::FAILURE_PROXY_RESPONSE:
            return "Invalid response received from the proxy server.";
        case CDnConnectionThread::FAILURE_PROXY_CONNECT:
            return "Unable to connect to the proxy server.";
        case CDnConnectionThread::FAILURE_PROXY_CREDENTIALS:
        case CDnConnectionThread::FAILURE_PROXY_CREDENTIALS_REQUIRED:
            return "Please provide the proxy credentials in Linkmantle Web Security.";
    }
    return "Unknown";
}

std::string Translated(const char* key) {
    std::string text;
    MsgCatalog::getMessage(key, text);
    return text;
}

// What the policy table says for a failure once the portal test has run.
enum class FailureAction { BypassRetry, RefusalPage, GiveUp, GoOn };

FailureAction DecideFailure(bool failOpen, CDnConnectionThread::CONN_FAILURE_REASON reason,
                            bool portal) {
    if (!failOpen) return portal ? FailureAction::BypassRetry : FailureAction::RefusalPage;
    switch (reason) {
        case CDnConnectionThread::FAILURE_PROXY_RESPONSE:
        case CDnConnectionThread::FAILURE_PROXY_CONNECT:
            return FailureAction::GiveUp;
        case CDnConnectionThread::FAILURE_LICENSE:
            return FailureAction::GoOn;
        case CDnConnectionThread::FAILURE_CONNECT:
        case CDnConnectionThread::FAILURE_SECURE_CONNECT:
        case CDnConnectionThread::FAILURE_PEER_IDENTITY:
            return FailureAction::BypassRetry;
        default:
            // Reasons without a row of their own (6 and 7 never get here).
            return portal ? FailureAction::BypassRetry : FailureAction::RefusalPage;
    }
}

}  // namespace

bool CDnConnectionThread::OnConnectionFailure(CONN_FAILURE_REASON reason) {
    // Without credentials no path exists, whatever the policy.
    if (reason == FAILURE_PROXY_CREDENTIALS || reason == FAILURE_PROXY_CREDENTIALS_REQUIRED) {
        (void)SendFailCloseMessageToBrowser(m_pKdfSocket, reason, false);
        return false;
    }
    // A direct connection that failed has no fallback.
    if (TMode == 0) return false;

    (void)g_pSWGAgent->SendSWGState("cloud_service_unavailable", SWG_STATE_UPDATE_NORMAL);
    m_bFailureReported = true;

    const bool failOpen = g_pSWGAgent->GetOrgInfo().bFailOpen;
    DNTRACE(TRACE, "OnConnectionFailure: %s", GetConnectionFailureMsg(reason).c_str());
    handleCaptivePortal("TCP handshake to SWG Proxy URL was not successful", true);
    const bool portal = g_pSWGAgent->IsCaptivePortalMode();

    switch (DecideFailure(failOpen, reason, portal)) {
        case FailureAction::BypassRetry:
            return RetryInBypass();
        case FailureAction::RefusalPage:
            (void)SendFailCloseMessageToBrowser(m_pKdfSocket, reason, false);
            return false;
        case FailureAction::GoOn:
            return true;
        case FailureAction::GiveUp:
            break;
    }
    return false;
}

bool CDnConnectionThread::RetryInBypass() {
    TMode = 0;
    DNTRACE(TRACE, "Connection : Retrying in bypass mode. CMode : %d TMode : %d", CMode, TMode);
    const long code = GetExternalConnection();
    if (exit_requested) return false;
    if (code == 0) return true;
    DNTRACE(ERR, "Connection : Retry failed. Code : %d", static_cast<int>(code));
    return false;
}

void CDnConnectionThread::handleCaptivePortal(const std::string& message, bool keepSocket) {
    if (!g_pSWGAgent->IsCaptivePortalMode()) g_pSWGAgent->DetectCaptivePortalPresence(2);
    const bool portal = g_pSWGAgent->IsCaptivePortalMode();
    const bool failOpen = g_pSWGAgent->GetOrgInfo().bFailOpen;
    if (!portal && !failOpen) return;

    TMode = 0;
    const char* why = portal ? "Since CP detected " : "Since fail open policy set";
    DNTRACE(WARN, "%s. %s, try connection in bypass mode [FailOpen : %d, CMode : %d TMode : %d].",
            why, message.c_str(), failOpen ? 1 : 0, CMode, TMode);
    if (!keepSocket) DeleteExternalSocket();  // the socket object closes its descriptor
}

bool CDnConnectionThread::GatewayStepFailed(const char* stage, bool mayBypass, bool failOpen) {
    handleCaptivePortal(
        std::string("TCP handshake to SWG Proxy URL was successful [Failure: ") + stage + "]",
        false);
    return mayBypass && (g_pSWGAgent->IsCaptivePortalMode() || failOpen);
}

std::string CDnConnectionThread::GetConnectionFailureMsg(CONN_FAILURE_REASON reason) {
    const bool failOpen = g_pSWGAgent->GetOrgInfo().bFailOpen;
    return Translated(FailureKey(reason)) + " " +
           Translated(failOpen ? "Fail open policy set." : "Fail close policy set.");
}

bool CDnConnectionThread::SendFailCloseMessageToBrowser(CDnVSocket* socket,
                                                        CONN_FAILURE_REASON reason,
                                                        bool /*reserved*/) {
    std::string language;
    MsgCatalog::getLangCode(language);
    const std::string body =
        std::string("<html lang=\"") + language +
        "\"><head><meta http-equiv=\"Content-Type\" content=\"text/html; "
        "charset=UTF-8\"/></head><body>" +
        "<h3>" + "Trevo Linkmantle" + "</h3><hr /><h1>" + Translated("Connection Failure") +
        "</h1>" + "<p><p>" + "The requested connection cannot be established." + "</p></p><p><b>" +
        "Reason" + ": </b>" + GetConnectionFailureMsg(reason) + "</p></body></html>";

    CDnHttpHeaders page(static_cast<int>(body.size()));
    // Status line and length are one entry; Write adds the blank line that ends the block.
    page.m_lines.push_back(
        "HTTP/1.1 499 Fail close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n");
    page.m_lines.push_back("Connection: Keep-Alive\r\n");
    page.m_lines.push_back("Content-Type: text/html\r\n");
    page.m_bComplete = true;

    const long written = page.Write(socket, exit_requested);
    if (written != 0) {
        DNTRACE(ERR, "Connection : Failed to write HTTP headers: %ld", written);
        return false;
    }
    // The page is a courtesy before the close: a client that has gone changes nothing.
    (void)socket->Send(body.data(), static_cast<int>(body.size()), 0);
    return true;
}
