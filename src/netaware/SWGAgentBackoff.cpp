// SPDX-License-Identifier: Apache-2.0
// Standing aside while a VPN or a trusted network already protects the host: the one
// decision, its transition through the redirector, and the trusted server probe.
#include <exception>
#include <memory>
#include <new>

#include "core/SWGAgent.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Trace.h"
#include "netaware/SSLProbe.h"

namespace {

constexpr unsigned int kProbeConnectSeconds = 4;
const char kReasonTrusted[] = "linkmantleTrustedNetwork";
const char kReasonVpn[] = "linkmantleVpn";
const char kReasonCustomer[] = "customerTrustedNetwork";

bool Same(const std::string& a, const char* b) { return StringNocaseCompare(a, b) == 0; }

// Own mode: every condition is evaluated, the probe included, and the first that holds
// gives the reason.
bool OwnModeDecision(CSWGAgent& agent, const CSWGAgent::ORGINFO& org, std::string& reason) {
    const bool trusted = org.bBackoffOnLMTrustedNetwork && Same(org.strVpnTnd, "trusted");
    const bool vpn =
        org.bBackoffOnLMVpn &&
        ((Same(org.strVpnIpv4State, "connected") && Same(org.strVpnIpv4Type, "tunnel_all")) ||
         (Same(org.strVpnIpv6State, "connected") && Same(org.strVpnIpv6Type, "tunnel_all")));
    const bool customer =
        org.bBackoffOnCustomerTrustedNetwork &&
        agent.IsCustomerTrustedNetwork(org.strTrustedServer, org.strTrustedServerFingerprint,
                                       org.nTrustedServerPort);
    if (trusted) {
        DNTRACE(TRACE, "OnBackoffStateChange: On Linkmantle Trusted Network");
        reason = kReasonTrusted;
    } else if (vpn) {
        DNTRACE(TRACE, "OnBackoffStateChange: Linkmantle VPN is connected");
        reason = kReasonVpn;
    } else if (customer) {
        DNTRACE(TRACE, "OnBackoffStateChange: On customer trusted network");
        reason = kReasonCustomer;
    }
    return trusted || vpn || customer;
}

// Honour mode: the DNS component has decided; only its three reasons count, exactly.
bool HonourModeDecision(const CSWGAgent::ORGINFO& org, std::string& reason) {
    reason = org.strDnsBackoffReason;
    return org.bDnsBackoff &&
           (reason == kReasonVpn || reason == kReasonCustomer || reason == kReasonTrusted);
}

const char* ReasonWord(const std::string& reason) {
    if (reason == kReasonTrusted || reason == kReasonCustomer)
        return "disabled_due_to_trusted_network";
    if (reason == kReasonVpn) return "disabled_due_to_vpn";
    return "disabled";
}

}  // namespace

void CSWGAgent::OnBackoffStateChange() {
    const ORGINFO org = GetOrgInfo();
    std::string reason;
    bool wasBackedOff = false;
    {
        boost::recursive_mutex::scoped_lock hold(m_orgInfoLock);
        wasBackedOff = m_bBackedOff;
    }
    const bool backOff =
        org.bSwgHonorTND ? HonourModeDecision(org, reason) : OwnModeDecision(*this, org, reason);
    if (backOff != wasBackedOff) {
        {
            boost::recursive_mutex::scoped_lock hold(m_orgInfoLock);
            m_bBackedOff = backOff;
        }
        if (backOff) {
            DNTRACE(TRACE, "OnBackoffStateChange: Clearing KDF redirect rules...");
            (void)StopKDF(reason_backoff);
        } else {
            DNTRACE(TRACE, "OnBackoffStateChange: Setting KDF redirect rules ...");
            if (RestartKDF(reason_backoff)) {
                DNTRACE(TRACE, "OnBackoffStateChange: KDF started successfully.");
                (void)SendSWGState("protected", SWG_STATE_UPDATE_NORMAL);
            }
        }
    }
    bool backedOff = false;
    {
        boost::recursive_mutex::scoped_lock hold(m_orgInfoLock);
        backedOff = m_bBackedOff;
    }
    if (!backedOff) return;
    if (SendSWGState(ReasonWord(reason), SWG_STATE_UPDATE_FORCED) != 0) {
        DNTRACE(ERR, "OnBackoffStateChange: Failed to update SWG status.");
    }
}

bool CSWGAgent::IsCustomerTrustedNetwork(const std::string& host, const std::string& fingerprint,
                                         int port) {
    if (host.empty() || fingerprint.empty() || port == 0) {
        DNTRACE(ERR, "CustomerTrustedNetwork: The server fingerprint or port is not configured.");
        return false;
    }
    if (m_trustedNetworkProbe) return m_trustedNetworkProbe(host, fingerprint, port);
    std::unique_ptr<boost::asio::io_context> io(new (std::nothrow) boost::asio::io_context());
    if (!io) {
        DNTRACE(ERR,
                "CustomerTrustedNetwork: Unable to authenticate the server, failed to allocate io "
                "service");
        return false;
    }
    try {
        std::string thumbprint;
        {
            CSSLProbe probe(*io);
            probe.Connect(host, static_cast<uint16_t>(port), kProbeConnectSeconds);
            io->restart();
            io->run();
            thumbprint = probe.m_thumbprint;
            probe.CancelAllAsyncOperations();
        }
        if (thumbprint.empty()) {
            DNTRACE(ERR,
                    "CustomerTrustedNetwork: Server thumbprint is empty, unable to authenticate "
                    "the server");
            return false;
        }
        DNTRACE(TRACE, "CustomerTrustedNetwork: Extracted fingerprint of %s is: %s", host.c_str(),
                thumbprint.c_str());
        if (StringNocaseCompare(fingerprint, thumbprint) == 0) return true;
        DNTRACE(ERR,
                "CustomerTrustedNetwork: Fingerprint mismatch, server certificate verification "
                "failed!");
        return false;
    } catch (const std::exception& e) {
        DNTRACE(ERR, "CustomerTrustedNetwork: Caught Exception: %s ", e.what());
        return false;
    }
}
