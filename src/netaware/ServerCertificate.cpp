// SPDX-License-Identifier: Apache-2.0
// Certificate copies through DER with OpenSSL.
#include "netaware/ServerCertificate.h"

#include <openssl/x509.h>

#include <new>

#include "core/HashManagerImp.h"
#include "foundation/Trace.h"

namespace {
constexpr int kBadArgument = 1000;
constexpr int kConversionFailed = 1001;
constexpr int kNoDer = 1002;
}  // namespace

CServerCertificate::~CServerCertificate() {
    if (m_bInitialized) Deinitialize();
}

int CServerCertificate::Initialize(x509_st* certificate) {
    if (certificate == nullptr) return kBadArgument;
    Deinitialize();
    int result = X509ToDER(certificate);
    if (result == 0) result = DERToX509();
    m_bInitialized = result == 0;
    return result;
}

void CServerCertificate::Deinitialize() {
    X509_free(m_pX509);
    m_pX509 = nullptr;
    m_pDer.reset();
    m_derLength = 0;
    m_bInitialized = false;
}

int CServerCertificate::X509ToDER(x509_st* certificate) {
    const int length = i2d_X509(certificate, nullptr);
    if (length <= 0) return kConversionFailed;
    m_pDer.reset(new (std::nothrow) unsigned char[static_cast<std::size_t>(length)]);
    if (!m_pDer) return kConversionFailed;
    unsigned char* out = m_pDer.get();
    if (i2d_X509(certificate, &out) != length) return kConversionFailed;
    m_derLength = static_cast<std::size_t>(length);
    return 0;
}

int CServerCertificate::DERToX509() {
    const unsigned char* in = m_pDer.get();
    m_pX509 = d2i_X509(nullptr, &in, static_cast<long>(m_derLength));
    return m_pX509 != nullptr ? 0 : kConversionFailed;
}

int CServerCertificate::GetFingerprint(std::string& fingerprint) const {
    fingerprint.clear();
    if (!m_pDer || m_derLength == 0) return kNoDer;
    fingerprint = CHashManagerImp::GetHashSHA256(m_pDer.get(), m_derLength);
    if (fingerprint.empty()) {
        DNTRACE(ERR, "CHashManagerImp::DoSHA256_BufferHash returned an empty hash");
        return kConversionFailed;
    }
    return 0;
}
