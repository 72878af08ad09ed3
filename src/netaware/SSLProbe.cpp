// SPDX-License-Identifier: Apache-2.0
// The TLS connection of the trusted server probe, on Boost.Asio and OpenSSL.
#include "netaware/SSLProbe.h"

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <boost/asio/connect.hpp>

#include "foundation/Trace.h"
#include "platform/SocketMark.h"

namespace {
constexpr long kHandshakeSeconds = 20;
constexpr long kShutdownMs = 200;
}  // namespace

using boost::asio::ip::tcp;

CSSLConnection::CSSLConnection(boost::asio::io_context& io)
    : m_context(boost::asio::ssl::context::sslv23_client),
      m_stream(io, m_context),
      m_resolver(io),
      m_timer(io) {
    m_context.set_options(SSL_OP_ALL);
    // The fingerprint is the whole proof; the verify callback stays as it is.
    m_stream.set_verify_mode(boost::asio::ssl::verify_none);
}

void CSSLConnection::Connect(const std::string& host, uint16_t port, unsigned int timeoutSeconds) {
    m_endpoints = m_resolver.resolve(host, std::to_string(port), tcp::resolver::address_configured);
    m_nextEndpoint = m_endpoints.begin();
    m_state = STATE_CONNECTING;
    if (SSL_set_tlsext_host_name(m_stream.native_handle(), host.c_str()) != 1) {
        DNTRACE(TRACE, "CSSLClient: Unable to set the hostname %s in SNI field.", host.c_str());
    }
    ConnectNext();
    if (timeoutSeconds != 0) ArmTimer(boost::posix_time::seconds(timeoutSeconds));
}

// One address at a time, so that each socket carries the agent's mark before it connects.
void CSSLConnection::ConnectNext() {
    boost::system::error_code ignored;
    tcp::socket& socket = m_stream.next_layer();
    socket.close(ignored);
    if (m_nextEndpoint == m_endpoints.end()) {
        handleConnect(boost::asio::error::host_not_found);
        return;
    }
    const tcp::endpoint endpoint = m_nextEndpoint->endpoint();
    ++m_nextEndpoint;
    socket.open(endpoint.protocol(), ignored);
    if (socket.is_open()) (void)ApplyAgentSocketMark(socket.native_handle());
    socket.async_connect(endpoint, [this](const boost::system::error_code& error) {
        if (error && error != boost::asio::error::operation_aborted &&
            m_state == STATE_CONNECTING && m_nextEndpoint != m_endpoints.end()) {
            ConnectNext();
            return;
        }
        handleConnect(error);
    });
}

void CSSLConnection::handleConnect(const boost::system::error_code& error) {
    CancelTimer();
    if (!error) {
        m_state = STATE_CONNECTED;
        ArmTimer(boost::posix_time::seconds(kHandshakeSeconds));
        m_stream.async_handshake(
            boost::asio::ssl::stream_base::client,
            [this](const boost::system::error_code& e) { handleHandshake(e); });
        return;
    }
    if (m_state == STATE_CONNECTING) {
        DNTRACE(ERR, "CSSLClient: Connect failed: %s", error.message().c_str());
    }
    CloseSocket();
}

void CSSLConnection::handleHandshake(const boost::system::error_code& error) {
    CancelTimer();
    if (error) DNTRACE(ERR, "CSSLClient: handleHandshake error: '%s'", error.message().c_str());
    OnHandshakeComplete(error);
}

void CSSLConnection::Disconnect() {
    ArmTimer(boost::posix_time::milliseconds(kShutdownMs));
    m_stream.async_shutdown([this](const boost::system::error_code& e) { handleShutdown(e); });
}

void CSSLConnection::handleShutdown(const boost::system::error_code& /*error*/) {
    // The fingerprint is in hand already; how the shutdown went does not matter.
    CancelTimer();
    m_state = STATE_SHUT_DOWN;
    CloseSocket();
}

void CSSLConnection::ArmTimer(const boost::posix_time::time_duration& limit) {
    const unsigned int generation = ++m_timerGeneration;
    m_timer.expires_from_now(limit);
    m_timer.async_wait([this, generation](const boost::system::error_code& e) {
        handleTimerExpired(e, generation);
    });
}

void CSSLConnection::handleTimerExpired(const boost::system::error_code& error,
                                        unsigned int generation) {
    if (error == boost::asio::error::operation_aborted || generation != m_timerGeneration) return;
    if (!error) {
        DNTRACE(LISTEN, "CSSLClient : Timer expired in state %d.", static_cast<int>(m_state));
    } else {
        DNTRACE(ERR, "CSSLClient : Error waiting on timer: %s", error.message().c_str());
    }
    CloseSocket();
}

void CSSLConnection::CancelTimer() {
    ++m_timerGeneration;
    boost::system::error_code ignored;
    m_timer.cancel(ignored);
}

void CSSLConnection::CloseSocket() {
    tcp::socket& socket = m_stream.next_layer();
    boost::system::error_code error;
    if (m_state == STATE_CONNECTED) {
        socket.shutdown(tcp::socket::shutdown_both, error);
        if (error) DNTRACE(WARN, "CSSLClient: shutdown failed: %s", error.message().c_str());
    }
    socket.close(error);
    if (error) DNTRACE(WARN, "CSSLClient: close failed: %s", error.message().c_str());
    m_state = STATE_CLOSED;
}

void CSSLConnection::CancelAllAsyncOperations() {
    m_resolver.cancel();
    CancelTimer();
    CloseSocket();
}

bool CSSLConnection::extractServerCertThumbprint(std::string& thumbprint) {
    SSL* ssl = m_stream.native_handle();
    if (ssl == nullptr) {
        DNTRACE(ERR, "CSSLClient: NULL ssl pointer");
        return false;
    }
    X509* peer = SSL_get1_peer_certificate(ssl);
    if (peer == nullptr) {
        DNTRACE(ERR, "CCertificate::GetFingerprint failed to get cert");
        return false;
    }
    const int initialized = m_serverCertificate.Initialize(peer);
    X509_free(peer);
    if (initialized != 0) {
        DNTRACE(ERR, "SSLExt : Failed to initialize server certificate obj. Code: %d", initialized);
        return false;
    }
    const long result = m_serverCertificate.GetFingerprint(thumbprint);
    if (result != 0) {
        DNTRACE(ERR, "CCertificate::GetFingerprint : %ld", result);
        return false;
    }
    return true;
}

void CSSLProbe::OnHandshakeComplete(const boost::system::error_code& error) {
    if (error) {
        // Nothing is left to do: the loop ends and the fingerprint stays empty.
        DNTRACE(ERR, "CSSLProbe: OnHandshakeComplete error: '%s'", error.message().c_str());
        return;
    }
    if (!extractServerCertThumbprint(m_thumbprint)) {
        DNTRACE(ERR, "CSSLProbe: Error setting server cert thumbprint");
    }
    Disconnect();
}
