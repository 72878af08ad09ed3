// SPDX-License-Identifier: Apache-2.0
// One TLS connection on a caller's private event loop, and the probe that takes the peer
// certificate's fingerprint from it.
#pragma once

#include <boost/asio/deadline_timer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <cstdint>
#include <string>

#include "netaware/ServerCertificate.h"

// Every handler runs on the thread that runs the loop given to the constructor; nothing else
// may touch the object meanwhile. No certificate is validated: the caller judges the peer.
class CSSLConnection {
public:
    enum ConnectionState : int32_t {
        STATE_INITIAL = 0,
        STATE_CONNECTING = 1,
        STATE_CONNECTED = 2,
        STATE_SHUT_DOWN = 3,
        STATE_CLOSED = 4,
    };

    explicit CSSLConnection(boost::asio::io_context& io);
    virtual ~CSSLConnection() = default;
    CSSLConnection(const CSSLConnection&) = delete;
    CSSLConnection& operator=(const CSSLConnection&) = delete;

    // Resolves `host` at once (no limit of its own; a failure throws), then starts the TCP
    // connect over each address in turn, all within `timeoutSeconds` (0: no limit), and on
    // success the TLS handshake within 20 s. Run the loop to carry it out.
    void Connect(const std::string& host, uint16_t port, unsigned int timeoutSeconds);
    // Starts the orderly TLS shutdown; the socket is closed after it or after 200 ms.
    void Disconnect();
    // Closes the socket at once; operations under way end with an error.
    void CloseSocket();
    void CancelTimer();
    void CancelAllAsyncOperations();
    ConnectionState State() const { return m_state; }

protected:
    // The handshake ended, with success or `error`.
    virtual void OnHandshakeComplete(const boost::system::error_code& error) = 0;
    // The peer certificate's fingerprint into `thumbprint`; false, logged, when there is none.
    bool extractServerCertThumbprint(std::string& thumbprint);

private:
    void ConnectNext();
    void handleConnect(const boost::system::error_code& error);
    void handleHandshake(const boost::system::error_code& error);
    void handleShutdown(const boost::system::error_code& error);
    void handleTimerExpired(const boost::system::error_code& error, unsigned int generation);
    void ArmTimer(const boost::posix_time::time_duration& limit);

    boost::asio::ssl::context m_context;
    boost::asio::ssl::stream<boost::asio::ip::tcp::socket> m_stream;
    boost::asio::ip::tcp::resolver m_resolver;
    boost::asio::ip::tcp::resolver::results_type m_endpoints;
    boost::asio::ip::tcp::resolver::results_type::const_iterator m_nextEndpoint;
    boost::asio::deadline_timer m_timer;
    unsigned int m_timerGeneration = 0;  // an expiry of an earlier arming is stale
    CServerCertificate m_serverCertificate;
    ConnectionState m_state = STATE_INITIAL;
};

class CSSLProbe : public CSSLConnection {
public:
    using CSSLConnection::CSSLConnection;
    // The fingerprint after a good handshake; empty otherwise.
    std::string m_thumbprint;

protected:
    void OnHandshakeComplete(const boost::system::error_code& error) override;
};
