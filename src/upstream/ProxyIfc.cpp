// SPDX-License-Identifier: Apache-2.0
// A proxy's identity with its credentials protected by CDataCrypt.
#include "upstream/ProxyIfc.h"

#include <cstring>
#include <utility>

#include "foundation/AppLog.h"
#include "foundation/crypto/DataCrypt.h"
#include "foundation/crypto/OpensslUtility.h"

namespace {
constexpr long kNoCrypto = 0xFE000001L;
constexpr long kBadArgument = 0xFE000002L;
constexpr long kUnexpectedSize = 0xFE000009L;

long LogFailure(const char* caller, int line, const char* invoked, long code) {
    CAppLog::LogReturnCode(caller, __FILE__, line, Logging::kImportanceError, invoked, code,
                           nullptr, "%s failed", invoked);
    return code;
}
#define PROXYIFC_FAIL(invoked, code) LogFailure(__func__, __LINE__, invoked, code)
}  // namespace

// ---- UnprotectedCredential -----------------------------------------------------------------

ProxyIfc::UnprotectedCredential::UnprotectedCredential(const char* text, std::size_t length) {
    if (text == nullptr || length == 0) return;
    m_text.reset(new char[length + 1]);
    std::memcpy(m_text.get(), text, length);
    m_text[length] = '\0';
    m_size = length + 1;
    m_length = length;
}

ProxyIfc::UnprotectedCredential::UnprotectedCredential(const UnprotectedCredential& other)
    : UnprotectedCredential(other.c_str(), std::strlen(other.c_str())) {}

ProxyIfc::UnprotectedCredential::UnprotectedCredential(UnprotectedCredential&& other) noexcept
    : m_text(std::move(other.m_text)),
      m_size(std::exchange(other.m_size, 0)),
      m_length(std::exchange(other.m_length, 0)) {}

ProxyIfc::UnprotectedCredential& ProxyIfc::UnprotectedCredential::operator=(
    UnprotectedCredential other) noexcept {
    // The old text goes with `other`, which wipes it.
    std::swap(m_text, other.m_text);
    std::swap(m_size, other.m_size);
    std::swap(m_length, other.m_length);
    return *this;
}

ProxyIfc::UnprotectedCredential::~UnprotectedCredential() { Wipe(); }

void ProxyIfc::UnprotectedCredential::Wipe() {
    SecureWipe(m_text.get(), m_size);
    m_length = 0;
}

ProxyIfc::UnprotectedCredential ProxyIfc::UnprotectedCredential::Join(
    const UnprotectedCredential& first, char separator, const UnprotectedCredential& second) {
    UnprotectedCredential joined;
    joined.m_length = first.m_length + 1 + second.m_length;
    joined.m_size = joined.m_length + 1;
    joined.m_text.reset(new char[joined.m_size]);
    std::memcpy(joined.m_text.get(), first.c_str(), first.m_length);
    joined.m_text[first.m_length] = separator;
    std::memcpy(joined.m_text.get() + first.m_length + 1, second.c_str(), second.m_length);
    joined.m_text[joined.m_length] = '\0';
    return joined;
}

// ---- ProxyIfc ------------------------------------------------------------------------------

ProxyIfc::ProxyIfc(ProxyType type, bool flag)
    : m_proxyType(type), m_bFlag(flag), m_prompt("Please enter the requested proxy credentials.") {
    createCrypto();
}

ProxyIfc::ProxyIfc(const ProxyIfc& other) : m_proxyType(other.m_proxyType), m_bFlag(other.m_bFlag) {
    *this = other;  // makes the CDataCrypt
}

ProxyIfc& ProxyIfc::operator=(const ProxyIfc& other) {
    if (this == &other) return *this;
    createCrypto();
    m_prompt = other.m_prompt;
    m_encryptedUser = other.m_encryptedUser;
    m_encryptedPswd = other.m_encryptedPswd;
    m_encryptedAuthority = other.m_encryptedAuthority;
    m_proxyHost = other.m_proxyHost;
    m_proxyPort = other.m_proxyPort;
    m_proxyType = other.m_proxyType;
    m_bFlag = other.m_bFlag;
    return *this;
}

ProxyIfc::~ProxyIfc() {
    if (m_pCrypto != nullptr) m_pCrypto->DestroyDataCrypt();
}

void ProxyIfc::createCrypto() {
    if (m_pCrypto != nullptr) m_pCrypto->DestroyDataCrypt();
    m_pCrypto = nullptr;
    const long result = CDataCrypt::CreateDataCrypt(m_pCrypto);
    if (result != 0) (void)PROXYIFC_FAIL("CDataCrypt", result);
}

// ---- credentials ---------------------------------------------------------------------------

long ProxyIfc::setProxyUser(const std::string& text) {
    return setCredential(text, m_encryptedUser);
}
long ProxyIfc::setProxyPswd(const std::string& text) {
    return setCredential(text, m_encryptedPswd);
}
long ProxyIfc::setProxyAuthority(const std::string& text) {
    return setCredential(text, m_encryptedAuthority);
}

ProxyIfc::UnprotectedCredential ProxyIfc::getProxyUser() const {
    return getCredential(m_encryptedUser);
}
ProxyIfc::UnprotectedCredential ProxyIfc::getProxyPswd() const {
    return getCredential(m_encryptedPswd);
}
ProxyIfc::UnprotectedCredential ProxyIfc::getProxyAuthority() const {
    return getCredential(m_encryptedAuthority);
}

ProxyIfc::UnprotectedCredential ProxyIfc::getProxyQualifiedUser() const {
    UnprotectedCredential user = getProxyUser();
    if (m_proxyType != ProxyTypeQualified) return user;
    const UnprotectedCredential authority = getProxyAuthority();
    if (authority.empty()) return user;
    return UnprotectedCredential::Join(authority, '\\', user);
}

long ProxyIfc::setCredential(const std::string& text, std::vector<unsigned char>& vector) {
    if (m_pCrypto == nullptr) return 0;
    return setEncrypted(text, vector);
}

long ProxyIfc::setEncrypted(const std::string& text, std::vector<unsigned char>& vector) {
    vector.clear();
    if (m_pCrypto == nullptr) return kNoCrypto;
    const auto* plain = reinterpret_cast<const unsigned char*>(text.c_str());
    const auto length = static_cast<unsigned int>(text.size() + 1);
    unsigned int size = 0;
    long result = m_pCrypto->EncryptData(plain, length, nullptr, size);
    if (result != DC_E_BUFFER_TOO_SMALL) {
        return PROXYIFC_FAIL("CDataCrypt::EncryptData", kUnexpectedSize);
    }
    vector.resize(size);
    result = m_pCrypto->EncryptData(plain, length, vector.data(), size);
    if (result != 0) {
        vector.clear();
        return PROXYIFC_FAIL("CDataCrypt::EncryptData", result);
    }
    return 0;
}

long ProxyIfc::getDecrypted(const std::vector<unsigned char>& vector,
                            UnprotectedCredential& credential) const {
    if (m_pCrypto == nullptr) return kNoCrypto;
    char* plain = nullptr;
    unsigned int length = 0;
    long result = m_pCrypto->DecryptStringAlloc(
        vector.data(), static_cast<unsigned int>(vector.size()), plain, length);
    if (result != 0) return PROXYIFC_FAIL("CDataCrypt::DecryptStringAlloc", result);
    // The text ends at its own zero, or at the end of what was protected.
    credential = UnprotectedCredential(plain, ::strnlen(plain, length));
    result = m_pCrypto->CryptMemFree(plain, true);
    if (result != 0) return PROXYIFC_FAIL("CDataCrypt::CryptMemFree", result);
    return 0;
}

ProxyIfc::UnprotectedCredential ProxyIfc::getCredential(
    const std::vector<unsigned char>& vector) const {
    UnprotectedCredential credential;
    if (!vector.empty() && getDecrypted(vector, credential) != 0) credential.Wipe();
    return credential;
}

const unsigned char* ProxyIfc::getEncryptedProxyUser() { return getEncrypted(m_encryptedUser); }
const unsigned char* ProxyIfc::getEncryptedProxyPswd() { return getEncrypted(m_encryptedPswd); }
const unsigned char* ProxyIfc::getEncryptedProxyAuthority() {
    return getEncrypted(m_encryptedAuthority);
}

const unsigned char* ProxyIfc::getEncrypted(std::vector<unsigned char>& vector) {
    if (m_pCrypto == nullptr) return nullptr;
    if (vector.empty() && setEncrypted(std::string(), vector) != 0) return nullptr;
    return vector.data();
}

long ProxyIfc::getUnencryptedProxyString(unsigned int length, const unsigned char* data,
                                         std::string& out) {
    out.clear();
    if (length == 0 || data == nullptr) return kBadArgument;
    long result = 0;
    CDataCrypt crypto(result);
    if (result != 0) return result;
    char* plain = nullptr;
    unsigned int plainLength = 0;
    result = crypto.DecryptStringAlloc(data, length, plain, plainLength);
    if (result != 0) return result;
    out.assign(plain, ::strnlen(plain, plainLength));
    return crypto.CryptMemFree(plain, true);
}

std::string ProxyIfc::getProxyHostData() const {
    if (m_proxyPort.empty()) return m_proxyHost;
    return m_proxyHost + ":" + m_proxyPort;
}
