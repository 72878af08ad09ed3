// SPDX-License-Identifier: Apache-2.0
// Command line, fault modes and the per-request control file of the test gateway.
#pragma once

#include <string>
#include <vector>

namespace testgw {

// What the gateway does wrong with one request. All off is a well-behaved gateway.
struct Faults {
    bool refuse = false;             // run: do not listen; per request: reset the connection
    bool noVia = false;              // 200 (or status reply) without the Via line
    int status = 0;                  // non-zero: answer with this status and an HTML body
    bool closeAfterConnect = false;  // close right after reading the request
    int slowMs = 0;                  // wait this long before answering
    bool garbage = false;            // answer with bytes that are not HTTP

    // The fault words that describe this set, space-separated; "none" when all are off.
    std::string Describe() const;
};

// Applies one fault word ("refuse", "no-via", "status=NNN", "close-after-connect", "slow=MS",
// "garbage", or "pass", which clears all) to `faults`. Returns false with a reason in `error`
// for an unknown word or a value out of range (status 300 to 599, slow 0 to 600000).
bool ApplyFaultWord(const std::string& word, Faults& faults, std::string& error);

struct ListenAddress {
    std::string host;  // numeric IPv4 or IPv6, without brackets
    unsigned short port = 0;
};

struct GatewayOptions {
    std::vector<ListenAddress> listen;
    std::string keyFile;
    std::string logFile;
    std::string controlFile;
    std::string name = "test-gw";  // the Via line names s_proxy_<name>
    Faults faults;
    int maxConnections = 32;
    int timeoutMs = 10000;  // reading a request, connecting upstream
    bool anyDestination = false;
};

// Splits "host:port" or "[v6]:port" into its parts. Without a port, `port` is `defaultPort`;
// `defaultPort` -1 makes the port required. Returns false for an empty host, an unclosed
// bracket or a port that is not a number from 0 to 65535.
bool SplitHostPort(const std::string& text, int defaultPort, std::string& host,
                   unsigned short& port);

// Parses the command line (argv[1..]). Returns false with a reason in `error` for an unknown
// flag, a missing or bad value, or no --listen. Sets `help` for --help (then returns true).
bool ParseOptions(int argc, char** argv, GatewayOptions& options, bool& help, std::string& error);

// The usage text.
std::string UsageText();

// One line of the control file: a glob over the request target and the faults to use.
struct FaultRule {
    std::string pattern;
    Faults faults;
};

// Parses the control file text: one rule a line, "<glob> <fault word>...", "#" comments and
// blank lines skipped. A bad line is skipped and described in `problems`.
std::vector<FaultRule> ParseFaultRules(const std::string& text, std::vector<std::string>& problems);

// The faults for `target` ("host:port" of a CONNECT, "host/path" of an HTTP request): those of
// the first rule whose glob matches, else `defaults`.
Faults ChooseFaults(const std::vector<FaultRule>& rules, const std::string& target,
                    const Faults& defaults);

}  // namespace testgw
