// SPDX-License-Identifier: Apache-2.0
// ProxyIfc: one upstream proxy's identity and its credentials, held protected in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class IDataCrypt;

// How a proxy's user name is given: alone, or after its authority ("CORP\alice").
enum ProxyType : std::int32_t {
    ProxyTypePlain = 0,
    ProxyTypeQualified = 1,
};

// The user name, password and authority are never kept as plain text: each lives in a byte
// vector protected by a CDataCrypt (so only the run that set it can read it), and becomes
// plain text only inside an UnprotectedCredential. Needs the process's key manager
// (CSingletonObfuscationMgr) to exist when it is built; without it every credential reads
// empty and no setter stores anything. No lock: one thread writes, or none.
class ProxyIfc {
public:
    // A credential in the clear. Its bytes are overwritten with zeros before its memory is
    // released, with a wipe the compiler cannot drop. Keep it no longer than the call that
    // needs the plain text.
    class UnprotectedCredential {
    public:
        UnprotectedCredential() = default;
        // Copies `length` bytes of `text` (which need not be zero-terminated).
        UnprotectedCredential(const char* text, std::size_t length);
        // Copies the other's text up to its first zero byte.
        UnprotectedCredential(const UnprotectedCredential& other);
        UnprotectedCredential(UnprotectedCredential&& other) noexcept;
        UnprotectedCredential& operator=(UnprotectedCredential other) noexcept;
        ~UnprotectedCredential();

        // The text, zero-terminated; "" when empty.
        const char* c_str() const { return m_text ? m_text.get() : ""; }
        std::size_t length() const { return m_length; }
        bool empty() const { return m_length == 0; }
        // Overwrites the text with zeros now; the object then reads empty.
        void Wipe();

        // `first`, `separator` and `second` in one credential.
        static UnprotectedCredential Join(const UnprotectedCredential& first, char separator,
                                          const UnprotectedCredential& second);

    private:
        std::unique_ptr<char[]> m_text;  // m_size bytes, the last always zero
        std::size_t m_size = 0;
        std::size_t m_length = 0;
    };

    // An empty identity of the given kind. Makes its own CDataCrypt; when that fails (no key
    // manager) the failure is logged and the object works without one.
    ProxyIfc(ProxyType type, bool flag);
    // A copy with a CDataCrypt of its own; the protected vectors are copied as they are.
    ProxyIfc(const ProxyIfc& other);
    ProxyIfc& operator=(const ProxyIfc& other);
    virtual ~ProxyIfc();

    // The credential in the clear; empty when it was never set, and empty (logged) when it
    // cannot be recovered, e.g. after the key manager was made anew.
    UnprotectedCredential getProxyUser() const;
    UnprotectedCredential getProxyPswd() const;
    UnprotectedCredential getProxyAuthority() const;
    // For a qualified proxy with an authority: authority, a backslash, user. Otherwise the
    // user alone.
    UnprotectedCredential getProxyQualifiedUser() const;

    // Protect `text` (with its terminating zero, so an empty text is set, not absent) into the
    // credential's vector. 0; 0 and nothing stored without a CDataCrypt; otherwise the
    // CDataCrypt's code (logged) with the vector left empty.
    long setProxyUser(const std::string& text);
    long setProxyPswd(const std::string& text);
    long setProxyAuthority(const std::string& text);

    // The protected bytes of a credential (an empty text is protected first when it was never
    // set); null without a CDataCrypt or on failure. Valid until the credential changes.
    const unsigned char* getEncryptedProxyUser();
    const unsigned char* getEncryptedProxyPswd();
    const unsigned char* getEncryptedProxyAuthority();
    // Recovers `length` protected bytes into `out` (emptied first) with a CDataCrypt of its
    // own. 0xFE000002 for a zero `length` or null `data`; otherwise the CDataCrypt's code.
    static long getUnencryptedProxyString(unsigned int length, const unsigned char* data,
                                          std::string& out);

    // "host:port", or the host alone when no port is set.
    std::string getProxyHostData() const;
    const std::string& getProxyHost() const { return m_proxyHost; }
    const std::string& getProxyPort() const { return m_proxyPort; }
    void setProxyHost(const std::string& host) { m_proxyHost = host; }
    void setProxyPort(const std::string& port) { m_proxyPort = port; }
    ProxyType getProxyType() const { return m_proxyType; }

private:
    void createCrypto();
    long setCredential(const std::string& text, std::vector<unsigned char>& vector);
    long setEncrypted(const std::string& text, std::vector<unsigned char>& vector);
    long getDecrypted(const std::vector<unsigned char>& vector,
                      UnprotectedCredential& credential) const;
    UnprotectedCredential getCredential(const std::vector<unsigned char>& vector) const;
    const unsigned char* getEncrypted(std::vector<unsigned char>& vector);

    ProxyType m_proxyType;
    bool m_bFlag;  // kept for callers that set it; nothing here reads it
    std::string m_proxyHost;
    std::string m_proxyPort;
    std::string m_prompt;
    std::vector<unsigned char> m_encryptedUser;  // empty: never set
    std::vector<unsigned char> m_encryptedPswd;
    std::vector<unsigned char> m_encryptedAuthority;
    IDataCrypt* m_pCrypto = nullptr;  // owned; destroyed with DestroyDataCrypt
};
