// SPDX-License-Identifier: Apache-2.0
// Captive portal detection: a plain-HTTP fetch of a known text; any other answer means that
// something on the network intercepted it. The result is the agent's captive portal flag.
#include <sys/socket.h>

#include "core/SWGAgent.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Trace.h"
#include "netaware/WebClient.h"

const char g_szCaptivePortalFallbackURL[] = "http://www.msftconnecttest.com/connecttest.txt";

namespace {

const char kFallbackText[] = "Microsoft Connect Test";
const char kEchoText[] = "Success";
const char kVpnSawPortal[] = "captive_portal_detected";

}  // namespace

bool CSWGAgent::IsCaptivePortalMode() {
    boost::recursive_mutex::scoped_lock hold(m_captivePortalLock);
    return m_bCaptivePortalMode;
}

void CSWGAgent::SetCaptivePortalMode(bool on) {
    boost::recursive_mutex::scoped_lock hold(m_captivePortalLock);
    m_bCaptivePortalMode = on;
}

void CSWGAgent::SetCaptivePortalDomain(const std::string& domain) {
    boost::recursive_mutex::scoped_lock hold(m_captivePortalLock);
    m_strCaptivePortalDomain = domain;
}

void CSWGAgent::SetCaptivePortalDownloader(CaptivePortalDownloader download) {
    boost::recursive_mutex::scoped_lock hold(m_captivePortalLock);
    m_captivePortalDownloader = std::move(download);
}

void CSWGAgent::DetectCaptivePortalPresence(long timeoutSeconds) {
    const ORGINFO info = GetOrgInfo();
    if (info.strSWGEchoService.empty()) {
        DNTRACE(BRIDGE, "CP is not configured.");
        return;
    }
    // The VPN client has looked at the network already; its word is taken without a probe.
    if (StringNocaseCompare(info.strVpnNes, kVpnSawPortal) == 0) {
        DNTRACE(BRIDGE, "Captive portal has been detected based on VPN's network env state");
        SetCaptivePortalMode(true);
        return;
    }
    int found = DetectCaptivePortalPresenceBasedOnURL(info.strSWGEchoService, timeoutSeconds);
    // The echo service could not be asked: the fallback decides, and its failure is a portal.
    if (found == 2)
        found = DetectCaptivePortalPresenceBasedOnURL(g_szCaptivePortalFallbackURL, timeoutSeconds);
    SetCaptivePortalMode(found != 0);
}

int CSWGAgent::DetectCaptivePortalPresenceBasedOnURL(const std::string& url, long timeoutSeconds) {
    const uint16_t family = getBestInterface(AF_INET).empty() ? AF_INET6 : AF_INET;
    CaptivePortalDownloader download;
    {
        boost::recursive_mutex::scoped_lock hold(m_captivePortalLock);
        download = m_captivePortalDownloader;
    }
    const bool fallback = url == g_szCaptivePortalFallbackURL;
    std::string headers;
    std::string body;
    // The lock is not held here: the probe blocks for up to its timeouts.
    const long fetched =
        download ? download(url, headers, body, timeoutSeconds, family)
                 : CWebClient::DownloadHTTPURL(url, headers, body, timeoutSeconds, family);
    if (fetched != 0) {
        if (fallback) {
            DNTRACE(TRACE, "Unable to download %s. Possibly behind a Captive Portal.", url.c_str());
            return 1;
        }
        // The text names the handshake whichever step failed.
        DNTRACE(TRACE,
                "CP detection failed with %s [Reason: TCP handshake failed], retrying with "
                "MSFT url",
                url.c_str());
        return 2;
    }
    const std::string expected = fallback ? kFallbackText : kEchoText;
    const int status =
        GetStatusCodeFromHTTPHeader(headers.c_str(), static_cast<int>(headers.size()));
    if (status == 200 && body == expected) {
        DNTRACE(TRACE, "Able to reach %s, with text response %s, no Captive Portal.", url.c_str(),
                body.c_str());
        return 0;
    }
    // A 200 with another body is a portal that rewrote the page instead of redirecting.
    std::string domain;
    ExtractCaptivePortalDomainFromHTTPHeaders(headers, domain);
    SetCaptivePortalDomain(domain);
    DNTRACE(TRACE, "Captive Portal Detected via %s with redirect code %d ",
            domain.empty() ? "client-side redirection" : domain.c_str(), status);
    return 1;
}

void CSWGAgent::ExtractCaptivePortalDomainFromHTTPHeaders(const std::string& headers,
                                                          std::string& domain) const {
    domain = ExtractDomainFromUrl(CWebClient::GetHeaderValue(headers, "location:"));
}
