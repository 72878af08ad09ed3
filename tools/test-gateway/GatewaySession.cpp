// SPDX-License-Identifier: Apache-2.0
// One client connection of the test gateway, from its request to the end of its tunnel.
#include "GatewaySession.h"

#include <unistd.h>

#include <fstream>
#include <sstream>

#include "GatewaySockets.h"
#include "upstream/LicenceHeader.h"

namespace testgw {
namespace {

const char* ReasonPhrase(int status) {
    switch (status) {
        case 400:
            return "Bad Request";
        case 403:
            return "Forbidden";
        case 407:
            return "Proxy Authentication Required";
        case 500:
            return "Internal Server Error";
        case 502:
            return "Bad Gateway";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        default:
            return "Error";
    }
}

// Reads the whole control file; false when it does not exist (no rules then).
bool ReadControlFile(const std::string& path, std::string& text) {
    std::ifstream in(path);
    if (!in) return false;
    std::stringstream content;
    content << in.rdbuf();
    text = content.str();
    return true;
}

}  // namespace

CGatewaySession::CGatewaySession(const GatewayOptions& options, const std::string& privateKeyPem,
                                 CGatewayLog& log, int clientFd, int stopFd)
    : m_options(options),
      m_privateKeyPem(privateKeyPem),
      m_log(log),
      m_client(clientFd),
      m_stopFd(stopFd) {}

CGatewaySession::~CGatewaySession() {
    if (m_client >= 0) close(m_client);
}

void CGatewaySession::Run() {
    try {
        if (!ReadRequest()) return;
        const Faults faults = PickFaults();
        const std::string request = m_head.IsConnect()
                                        ? "CONNECT " + m_head.LogTarget()
                                        : "HTTP " + m_head.Method() + " " + m_head.LogTarget();
        m_log.Write({request, LicenceLine()});
        if (faults.slowMs > 0 && WaitFor(-1, 0, faults.slowMs, m_stopFd) == WaitResult::Stopped) {
            Result("result stopped");
            return;
        }
        if (AnswerByFault(faults)) return;
        if (m_head.IsConnect()) {
            Tunnel(faults);
        } else {
            Forward();
        }
    } catch (const std::exception& caught) {
        Result(std::string("result failed: ") + caught.what());
    }
}

bool CGatewaySession::ReadRequest() {
    std::string block;
    std::string error;
    if (!ReadHeaderBlock(m_client, m_options.timeoutMs, m_stopFd, block, m_extra, error)) {
        m_log.Write("request bad: " + error);
        return false;
    }
    if (!m_head.Parse(block, error)) {
        m_log.Write("request bad: " + error);
        SendStatus(400, true, error);
        return false;
    }
    return true;
}

Faults CGatewaySession::PickFaults() const {
    std::string text;
    if (m_options.controlFile.empty() || !ReadControlFile(m_options.controlFile, text)) {
        return m_options.faults;
    }
    std::vector<std::string> problems;
    const std::vector<FaultRule> rules = ParseFaultRules(text, problems);
    for (const std::string& problem : problems) m_log.Write("control bad: " + problem);
    return ChooseFaults(rules, m_head.LogTarget(), m_options.faults);
}

std::string CGatewaySession::LicenceLine() const {
    std::string keyId;
    std::string payload;
    const bool hasId = m_head.LastValue(kLicenceKeyIdHeader, keyId);
    const bool hasPayload = m_head.LastValue(kLicencePayloadHeader, payload);
    if (!hasId && !hasPayload) return "licence missing";
    if (!hasPayload) return std::string("licence bad: ") + kLicenceKeyIdHeader + " alone";
    if (!hasId) return std::string("licence bad: ") + kLicencePayloadHeader + " without key id";
    if (m_privateKeyPem.empty()) return "licence bad: gateway has no private key (--key)";
    LicenceIdentity identity;
    std::string error;
    if (!DecodeLicenceHeader(keyId, payload, m_privateKeyPem, identity, error)) {
        return "licence bad: " + error;
    }
    std::string line = "licence ok org=" + CGatewayLog::Field(identity.strOrgId) +
                       " device=" + CGatewayLog::Field(identity.strDeviceId) +
                       " user=" + CGatewayLog::Field(identity.strUserId) +
                       " overlay=" + CGatewayLog::Field(identity.strOverlayUser) +
                       " key-id=" + CGatewayLog::Field(identity.strKeyId);
    if (!identity.strInterfaceAddress.empty()) {
        line += " ip=" + CGatewayLog::Field(identity.strInterfaceAddress);
    }
    return line;
}

bool CGatewaySession::AnswerByFault(const Faults& faults) {
    if (faults.closeAfterConnect) {
        Result("result closed");
        CloseClient(false);
        return true;
    }
    if (faults.refuse) {
        Result("result reset");
        ResetAndClose(m_client);
        m_client = -1;
        return true;
    }
    if (faults.garbage) {
        Result("result garbage");
        static const char kGarbage[] = "SSH-2.0-not-http\r\n\x00\xff\x16garbage\r\n\r\n";
        SendAll(m_client, std::string(kGarbage, sizeof(kGarbage) - 1), m_options.timeoutMs,
                m_stopFd);
        CloseClient(true);
        return true;
    }
    if (faults.status != 0) {
        Result("result status " + std::to_string(faults.status));
        SendStatus(faults.status, !faults.noVia, "fault status=" + std::to_string(faults.status));
        return true;
    }
    return false;
}

void CGatewaySession::SendStatus(int status, bool via, const std::string& detail) {
    const std::string title = std::to_string(status) + " " + ReasonPhrase(status);
    const std::string body = "<html><head><title>" + title + "</title></head><body><h1>" + title +
                             "</h1><p>swg-test-gateway: " + detail + "</p></body></html>";
    std::string reply = "HTTP/1.1 " + title + "\r\n";
    if (via) reply += ViaLine();
    if (status == 407) reply += "Proxy-Authenticate: Basic realm=\"swg-test-gateway\"\r\n";
    reply +=
        "Content-Type: text/html; charset=utf-8\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\nConnection: close\r\n\r\n" + body;
    SendAll(m_client, reply, m_options.timeoutMs, m_stopFd);
    CloseClient(true);
}

void CGatewaySession::Tunnel(const Faults& faults) {
    const int upstream = ConnectUpstream();
    if (upstream < 0) return;
    const std::string reply = "HTTP/1.1 200 Connection established\r\n" +
                              (faults.noVia ? std::string() : ViaLine()) + "\r\n";
    Result(faults.noVia ? "result tunnel no-via" : "result tunnel");
    if (SendAll(m_client, reply, m_options.timeoutMs, m_stopFd) &&
        SendAll(upstream, m_extra, m_options.timeoutMs, m_stopFd)) {
        Relay(m_client, upstream, m_stopFd);
    }
    close(upstream);
}

void CGatewaySession::Forward() {
    const int upstream = ConnectUpstream();
    if (upstream < 0) return;
    Result("result forward");
    const std::string block = m_head.Without({kLicenceKeyIdHeader, kLicencePayloadHeader});
    if (SendAll(upstream, block + m_extra, m_options.timeoutMs, m_stopFd)) {
        Relay(m_client, upstream, m_stopFd);
    }
    close(upstream);
}

// Answers 502 itself when the destination cannot be reached.
int CGatewaySession::ConnectUpstream() {
    std::string error;
    const int fd = ConnectTo(m_head.Host(), m_head.Port(), m_options.anyDestination,
                             m_options.timeoutMs, m_stopFd, error);
    if (fd < 0) {
        Result("result upstream-failed: " + error);
        SendStatus(502, true, "cannot reach " + m_head.LogTarget() + ": " + error);
    }
    return fd;
}

std::string CGatewaySession::ViaLine() const {
    return "Via: 1.1 s_proxy_" + m_options.name + "\r\n";
}

void CGatewaySession::Result(const std::string& text) { m_log.Write(text); }

void CGatewaySession::CloseClient(bool graceful) {
    if (m_client < 0) return;
    if (graceful) {
        CloseGracefully(m_client, m_stopFd);
    } else {
        close(m_client);
    }
    m_client = -1;
}

}  // namespace testgw
