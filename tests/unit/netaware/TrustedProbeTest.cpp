// SPDX-License-Identifier: Apache-2.0
// The trusted server probe against a TLS server of the test's own on loopback: the
// fingerprint in either case, other spellings and servers, and nothing configured.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <string>
#include <thread>

#include "core/SWGAgent.h"

namespace {

// A self-signed P-256 certificate, made afresh: an expired or unknown issuer must not matter.
struct TestCertificate {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* certificate = X509_new();
    TestCertificate() {
        X509_set_version(certificate, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(certificate), 7);
        X509_gmtime_adj(X509_getm_notBefore(certificate), -86400 * 30);
        X509_gmtime_adj(X509_getm_notAfter(certificate), -86400);  // expired yesterday
        X509_NAME* name = X509_get_subject_name(certificate);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("trusted.corp.test"), -1,
                                   -1, 0);
        X509_set_issuer_name(certificate, name);
        X509_set_pubkey(certificate, key);
        X509_sign(certificate, key, EVP_sha256());
    }
    ~TestCertificate() {
        X509_free(certificate);
        EVP_PKEY_free(key);
    }
    std::string Fingerprint() const {
        unsigned char* der = nullptr;
        const int length = i2d_X509(certificate, &der);
        unsigned char digest[32];
        unsigned int size = 0;
        EVP_Digest(der, static_cast<size_t>(length), digest, &size, EVP_sha256(), nullptr);
        OPENSSL_free(der);
        std::string text;
        char pair[3];
        for (unsigned int i = 0; i < size; ++i) {
            std::snprintf(pair, sizeof(pair), "%02X", digest[i]);
            text += pair;
        }
        return text;
    }
};

// Serves each connection on loopback either with TLS and the certificate, or with plain text.
class TlsServer {
public:
    TlsServer(const TestCertificate& cert, bool speakTls) : m_speakTls(speakTls) {
        m_context = SSL_CTX_new(TLS_server_method());
        SSL_CTX_use_certificate(m_context, cert.certificate);
        SSL_CTX_use_PrivateKey(m_context, cert.key);
        m_listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        socklen_t length = sizeof(address);
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
        listen(m_listener, 8);
        m_thread = std::thread([this] { Serve(); });
    }
    ~TlsServer() {
        m_stop = true;
        m_thread.join();
        close(m_listener);
        SSL_CTX_free(m_context);
    }
    int Port() const { return m_port; }
    int Accepted() const { return m_accepted; }

private:
    void Serve() {
        while (!m_stop) {
            pollfd wait{m_listener, POLLIN, 0};
            if (poll(&wait, 1, 50) != 1) continue;
            const int fd = accept(m_listener, nullptr, nullptr);
            if (fd < 0) continue;
            ++m_accepted;
            if (m_speakTls) {
                SSL* ssl = SSL_new(m_context);
                SSL_set_fd(ssl, fd);
                if (SSL_accept(ssl) == 1) SSL_shutdown(ssl);
                SSL_free(ssl);
            } else {
                const char reply[] = "HTTP/1.0 400 Bad Request\r\n\r\n";
                (void)!write(fd, reply, sizeof(reply) - 1);
            }
            close(fd);
        }
    }

    SSL_CTX* m_context = nullptr;
    int m_listener = -1;
    int m_port = 0;
    bool m_speakTls;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_accepted{0};
    std::thread m_thread;
};

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string WithColons(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); i += 2) out += (i ? ":" : "") + text.substr(i, 2);
    return out;
}

TEST(TrustedProbeTest, OnlyTheRightFingerprintFromATlsServerIsTrusted) {
    const TestCertificate cert;
    const std::string right = cert.Fingerprint();
    TlsServer tls(cert, true);
    TlsServer plain(cert, false);
    const int closedPort = [] {
        TestCertificate other;
        TlsServer gone(other, true);
        return gone.Port();
    }();
    CSWGAgent agent;
    const struct {
        const char* what;
        int port;
        std::string fingerprint;
        bool trusted;
    } rows[] = {
        {"upper case", tls.Port(), right, true},
        {"lower case", tls.Port(), Lower(right), true},
        {"colons", tls.Port(), WithColons(right), false},
        {"another certificate", tls.Port(), std::string(64, 'A'), false},
        {"no TLS", plain.Port(), right, false},
        {"nobody listening", closedPort, right, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(agent.IsCustomerTrustedNetwork("127.0.0.1", row.fingerprint, row.port),
                  row.trusted)
            << row.what;
    }
    EXPECT_EQ(tls.Accepted(), 4);
    // Nothing configured: no connection at all.
    EXPECT_FALSE(agent.IsCustomerTrustedNetwork("127.0.0.1", "", tls.Port()));
    EXPECT_FALSE(agent.IsCustomerTrustedNetwork("127.0.0.1", right, 0));
    EXPECT_EQ(tls.Accepted(), 4);
}

}  // namespace
