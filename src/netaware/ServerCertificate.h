// SPDX-License-Identifier: Apache-2.0
// A private copy of a peer's certificate and its SHA-256 fingerprint.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

struct x509_st;

class CServerCertificate {
public:
    CServerCertificate() = default;
    ~CServerCertificate();
    CServerCertificate(const CServerCertificate&) = delete;
    CServerCertificate& operator=(const CServerCertificate&) = delete;

    // Copies `certificate` (which stays the caller's) through its DER form. 0; 1000 for null;
    // 1001 when a conversion fails.
    int Initialize(x509_st* certificate);
    // Frees the copy and its DER bytes.
    void Deinitialize();
    bool IsInitialized() const { return m_bInitialized; }
    // The SHA-256 of the DER bytes as 64 upper-case hexadecimal digits into `fingerprint`.
    // 0; 1002 with no DER bytes; 1001 when hashing fails.
    int GetFingerprint(std::string& fingerprint) const;

private:
    int X509ToDER(x509_st* certificate);
    int DERToX509();

    x509_st* m_pX509 = nullptr;
    std::unique_ptr<unsigned char[]> m_pDer;
    std::size_t m_derLength = 0;
    bool m_bInitialized = false;
};
