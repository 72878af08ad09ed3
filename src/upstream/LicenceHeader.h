// SPDX-License-Identifier: Apache-2.0
// The licence header: who is asking, sealed with the organisation's RSA key for the gateway.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config/OrgInfo.h"

// The two reserved header names. The header reader refuses a client's header block that
// carries either of them (see docs/licence-header.md for the format of their values).
constexpr char kLicenceKeyIdHeader[] = "X-SWG-Licence-Id";
constexpr char kLicencePayloadHeader[] = "X-SWG-Licence";

// The format written into the first field of the payload header.
constexpr int kLicenceFormatVersion = 1;

// Limits that keep a header line within what gateways accept. The plaintext limit makes an
// absurdly long identity a failure instead of a silently cut one.
constexpr std::size_t kLicenceMaxPlaintext = 16 * 1024;
constexpr std::size_t kLicenceMaxPayloadValue = 32 * 1024;

// What a gateway learns from the two header values.
struct LicenceIdentity {
    std::string strKeyId;
    std::string strOrgId;
    std::string strDeviceId;
    std::string strUserId;
    std::string strOverlayUser;
    std::string strInterfaceAddress;  // empty when the agent did not send one
    int64_t timestamp = 0;            // seconds since the Unix epoch, as the agent's clock saw it
    std::string strNonce;             // base64 of 16 random bytes, unique per header
};

// Builds the two licence header lines for a gateway request from the organisation record:
// `strOrgId`, `strDeviceId`, `strPstrUserId`, `strOverlayUser`, sealed for `strpKeyPem` and
// labelled with `strpKeyId`. `interfaceAddress` is the address of the host's interface that
// reaches the destination (may be empty: it is then left out).
// On success returns true and replaces `lines` with "Name: value" texts without line ends,
// key id first. On failure (no or unreadable key, key not RSA or shorter than 2048 bits, key
// id not fit for a header, identity too long, a crypto failure) returns false, leaves `lines`
// empty and puts a one-line reason in `error`. Never throws; any thread may call.
[[nodiscard]] bool BuildLicenceHeaderLines(const OrgInfoRecord& org,
                                           const std::string& interfaceAddress,
                                           std::vector<std::string>& lines, std::string& error);
// As above without an interface address.
[[nodiscard]] bool BuildLicenceHeaderLines(const OrgInfoRecord& org,
                                           std::vector<std::string>& lines, std::string& error);

// The gateway side: opens the values of the two headers (without the names and without
// surrounding white space) with the RSA private key in `privateKeyPem` (PEM, PKCS#8 or
// PKCS#1, unencrypted). Returns true and fills `out` when the payload is intact, of a known
// version and bound to `keyIdValue`. Returns false with a one-line reason in `error` for a bad
// key, a malformed or oversized value, an unknown version, a wrong key or any change to
// either value; `out` is then reset. Does not judge the age of the timestamp or repeated
// nonces: that is the gateway's policy. Never throws; any thread may call.
[[nodiscard]] bool DecodeLicenceHeader(const std::string& keyIdValue,
                                       const std::string& payloadValue,
                                       const std::string& privateKeyPem, LicenceIdentity& out,
                                       std::string& error);
