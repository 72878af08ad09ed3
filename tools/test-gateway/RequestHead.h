// SPDX-License-Identifier: Apache-2.0
// One request header block as the test gateway sees it: request line, headers, target.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace testgw {

// Parsed from the bytes up to and including the empty line. Not thread-safe; one per request.
class CRequestHead {
public:
    // Parses `block` (request line and header lines, each ended by CRLF, then CRLF).
    // Returns false with a reason in `error` for a bad request line, a header line without a
    // colon, a CONNECT target without a port, or a request that names no host.
    bool Parse(const std::string& block, std::string& error);

    bool IsConnect() const { return m_method == "CONNECT"; }
    const std::string& Method() const { return m_method; }
    // Where to connect: the CONNECT authority, else the Host line (or absolute URI).
    const std::string& Host() const { return m_host; }
    unsigned short Port() const { return m_port; }
    // What the log shows: "host:port" for CONNECT, "host/path" for others, where host is as
    // the request wrote it and the path stops before any query.
    const std::string& LogTarget() const { return m_logTarget; }

    // The value of the last line named `name` (any letter case), trimmed; false when absent.
    // The last one wins because the agent appends its lines behind the client's.
    bool LastValue(const std::string& name, std::string& value) const;
    // The block as received, without the lines whose names are in `drop` (any letter case).
    std::string Without(const std::vector<std::string>& drop) const;

private:
    bool ParseRequestLine(const std::string& line, std::string& error);
    bool FindTarget(std::string& error);

    std::string m_method;
    std::string m_uri;
    std::string m_host;
    unsigned short m_port = 0;
    std::string m_logTarget;
    std::string m_requestLine;
    std::vector<std::pair<std::string, std::string>> m_headers;  // name, trimmed value
    std::vector<std::string> m_rawLines;                         // header lines with CRLF
};

}  // namespace testgw
