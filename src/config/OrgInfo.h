// SPDX-License-Identifier: Apache-2.0
// The value record of all organisation configuration (CSWGAgent::ORGINFO).
#pragma once

#include <deque>
#include <string>

// Copied and replaced whole: readers take a private copy through GetOrgInfo and never
// hold a reference into the record in force.
struct OrgInfoRecord {
    std::string strOrgId;
    std::string strPstrUserId;
    std::string strDeviceId;
    std::string strOverlayUser;
    std::string strHostname;
    std::string strpKeyPem;
    std::string strpKeyId;
    std::string strExceptionList;                         // ";" separated
    std::string strInclusionList;                         // ";" separated
    std::string strWebTrafficMonitorPortList = "80,443";  // "," separated
    std::string strSWGAnycast;
    std::deque<std::string> qstrSWGAnycastListV4;  // front: the address in use
    std::deque<std::string> qstrSWGAnycastListV6;  // front: the address in use
    std::string strSWGDomain;
    std::string strSWGEchoService;
    std::string strTrustedServer;
    std::string strTrustedServerFingerprint;
    int nTrustedServerPort = 0;
    bool bDefaultLogLevel = true;
    bool bIPv6Enabled = false;
    bool bFailOpen = true;
    bool bDnsBackoff = false;
    bool bSwgHonorTND = false;
    bool bBackoffOnLMTrustedNetwork = false;
    bool bBackoffOnLMVpn = false;
    bool bBackoffOnCustomerTrustedNetwork = false;
    bool bCustomerNetworkProbeRecurses = false;
    bool bAutotuning = false;
    bool bFedDeployment = false;
    std::string strDnsBackoffReason;
    std::string strVpnIpv4State;
    std::string strVpnIpv4Type;
    std::string strVpnIpv6State;
    std::string strVpnIpv6Type;
    std::string strVpnTnd;
    std::string strVpnNes;
    std::string strCustomerNetworkProbeDomain;
};
