// SPDX-License-Identifier: Apache-2.0
// Command line, fault modes and the per-request control file of the test gateway.
#include "GatewayOptions.h"

#include <fnmatch.h>

#include <cstdlib>
#include <sstream>

namespace testgw {
namespace {

// A decimal number in [low, high]; false for anything else, signs and spaces included.
bool ParseNumber(const std::string& text, long low, long high, long& value) {
    if (text.empty() || text.size() > 9) return false;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
    }
    value = std::strtol(text.c_str(), nullptr, 10);
    return value >= low && value <= high;
}

// The value of a flag that takes one; advances `index` past it.
bool TakeValue(int argc, char** argv, int& index, std::string& value, std::string& error) {
    if (index + 1 >= argc) {
        error = std::string("missing value for ") + argv[index];
        return false;
    }
    value = argv[++index];
    return true;
}

bool ApplyFlag(const std::string& flag, const std::string& value, GatewayOptions& options,
               std::string& error) {
    long number = 0;
    if (flag == "--listen") {
        ListenAddress address;
        if (!SplitHostPort(value, -1, address.host, address.port)) {
            error = "bad --listen address '" + value + "' (want host:port or [v6]:port)";
            return false;
        }
        options.listen.push_back(address);
    } else if (flag == "--key") {
        options.keyFile = value;
    } else if (flag == "--log") {
        options.logFile = value;
    } else if (flag == "--control") {
        options.controlFile = value;
    } else if (flag == "--name") {
        if (value.empty() || value.find_first_of(" \t\r\n") != std::string::npos) {
            error = "bad --name '" + value + "'";
            return false;
        }
        options.name = value;
    } else if (flag == "--fault") {
        return ApplyFaultWord(value, options.faults, error);
    } else if (flag == "--max-connections") {
        if (!ParseNumber(value, 1, 1024, number)) {
            error = "--max-connections wants 1 to 1024";
            return false;
        }
        options.maxConnections = static_cast<int>(number);
    } else if (flag == "--timeout") {
        if (!ParseNumber(value, 1, 600000, number)) {
            error = "--timeout wants 1 to 600000 ms";
            return false;
        }
        options.timeoutMs = static_cast<int>(number);
    } else {
        error = "unknown option " + flag;
        return false;
    }
    return true;
}

}  // namespace

std::string Faults::Describe() const {
    std::string text;
    auto add = [&text](const std::string& word) { text += (text.empty() ? "" : " ") + word; };
    if (refuse) add("refuse");
    if (noVia) add("no-via");
    if (status != 0) add("status=" + std::to_string(status));
    if (closeAfterConnect) add("close-after-connect");
    if (slowMs != 0) add("slow=" + std::to_string(slowMs));
    if (garbage) add("garbage");
    return text.empty() ? "none" : text;
}

bool ApplyFaultWord(const std::string& word, Faults& faults, std::string& error) {
    long number = 0;
    if (word == "refuse") {
        faults.refuse = true;
    } else if (word == "no-via") {
        faults.noVia = true;
    } else if (word == "close-after-connect") {
        faults.closeAfterConnect = true;
    } else if (word == "garbage") {
        faults.garbage = true;
    } else if (word == "pass") {
        faults = Faults();
    } else if (word.compare(0, 7, "status=") == 0) {
        if (!ParseNumber(word.substr(7), 300, 599, number)) {
            error = "fault " + word + ": status wants 300 to 599";
            return false;
        }
        faults.status = static_cast<int>(number);
    } else if (word.compare(0, 5, "slow=") == 0) {
        if (!ParseNumber(word.substr(5), 0, 600000, number)) {
            error = "fault " + word + ": slow wants 0 to 600000 ms";
            return false;
        }
        faults.slowMs = static_cast<int>(number);
    } else {
        error = "unknown fault '" + word + "'";
        return false;
    }
    return true;
}

bool SplitHostPort(const std::string& text, int defaultPort, std::string& host,
                   unsigned short& port) {
    std::string portText;
    if (!text.empty() && text[0] == '[') {
        const std::size_t close = text.find(']');
        if (close == std::string::npos) return false;
        host = text.substr(1, close - 1);
        if (close + 1 < text.size()) {
            if (text[close + 1] != ':') return false;
            portText = text.substr(close + 2);
            if (portText.empty()) return false;
        }
    } else {
        const std::size_t colon = text.rfind(':');
        // A bare IPv6 literal has several colons and no port.
        if (colon != std::string::npos && text.find(':') == colon) {
            host = text.substr(0, colon);
            portText = text.substr(colon + 1);
            if (portText.empty()) return false;
        } else {
            host = text;
        }
    }
    if (host.empty()) return false;
    long number = 0;
    if (portText.empty()) {
        if (defaultPort < 0) return false;
        number = defaultPort;
    } else if (!ParseNumber(portText, 0, 65535, number)) {
        return false;
    }
    port = static_cast<unsigned short>(number);
    return true;
}

bool ParseOptions(int argc, char** argv, GatewayOptions& options, bool& help, std::string& error) {
    help = false;
    for (int index = 1; index < argc; ++index) {
        const std::string flag = argv[index];
        std::string value;
        if (flag == "--help" || flag == "-h") {
            help = true;
            return true;
        }
        if (flag == "--any-destination") {
            options.anyDestination = true;
            continue;
        }
        if (!TakeValue(argc, argv, index, value, error)) return false;
        if (!ApplyFlag(flag, value, options, error)) return false;
    }
    if (options.listen.empty()) {
        error = "at least one --listen address is needed";
        return false;
    }
    return true;
}

std::string UsageText() {
    return "usage: swg-test-gateway --listen ADDR:PORT [--listen ADDR:PORT ...]\n"
           "         [--key PRIVATE.pem] [--log FILE] [--name NAME] [--fault MODE ...]\n"
           "         [--control FILE] [--max-connections N] [--timeout MS] [--any-destination]\n"
           "fault modes: refuse, no-via, status=NNN, close-after-connect, slow=MS, garbage\n"
           "control file lines: <glob over host:port or host/path> <fault mode or pass>...\n";
}

std::vector<FaultRule> ParseFaultRules(const std::string& text,
                                       std::vector<std::string>& problems) {
    std::vector<FaultRule> rules;
    std::istringstream lines(text);
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        std::istringstream words(line);
        FaultRule rule;
        if (!(words >> rule.pattern) || rule.pattern[0] == '#') continue;
        bool good = true;
        int count = 0;
        for (std::string word; good && words >> word; ++count) {
            std::string error;
            good = ApplyFaultWord(word, rule.faults, error);
            if (!good) problems.push_back("line " + std::to_string(number) + ": " + error);
        }
        if (good && count == 0) {
            problems.push_back("line " + std::to_string(number) + ": no fault mode");
            good = false;
        }
        if (good) rules.push_back(rule);
    }
    return rules;
}

Faults ChooseFaults(const std::vector<FaultRule>& rules, const std::string& target,
                    const Faults& defaults) {
    for (const FaultRule& rule : rules) {
        if (fnmatch(rule.pattern.c_str(), target.c_str(), 0) == 0) return rule.faults;
    }
    return defaults;
}

}  // namespace testgw
