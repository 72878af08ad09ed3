// SPDX-License-Identifier: Apache-2.0
// The system proxy of a Linux host from https_proxy: the service's environment, then
// /etc/environment.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/linux/EnvironmentProxySettings.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <utility>

#include "foundation/Trace.h"

namespace {
// Lower case first, as curl and most Linux tools look them up.
const char* const kNames[] = {"https_proxy", "HTTPS_PROXY"};
// /etc/environment is a few lines; more than this is not read.
constexpr std::streamsize kMaxFileBytes = 64 * 1024;

std::string Trim(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

ProxySettingsDictionary Disabled() { return {{"HTTPSEnable", "0"}}; }

// One KEY=value line of pam_env's file into `key` and `value`; false for comments and lines
// without "=".
bool ParseAssignment(std::string line, std::string& key, std::string& value) {
    line = Trim(line);
    if (line.empty() || line[0] == '#') return false;
    if (line.compare(0, 6, "export") == 0 && line.size() > 6 &&
        (line[6] == ' ' || line[6] == '\t')) {
        line = Trim(line.substr(7));
    }
    const auto equals = line.find('=');
    if (equals == std::string::npos) return false;
    key = Trim(line.substr(0, equals));
    value = Trim(line.substr(equals + 1));
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
        value = value.substr(1, value.size() - 2);
    }
    return true;
}

// The value of the first of kNames that the file assigns (its last assignment).
bool FindInFile(const std::string& path, std::string& value, const char*& name) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    std::string content(static_cast<std::size_t>(kMaxFileBytes), '\0');
    file.read(&content[0], kMaxFileBytes);
    content.resize(static_cast<std::size_t>(file.gcount()));
    std::map<std::string, std::string> assigned;
    std::istringstream lines(content);
    std::string line;
    std::string key;
    std::string text;
    while (std::getline(lines, line)) {
        if (ParseAssignment(line, key, text)) assigned[key] = text;
    }
    for (const char* candidate : kNames) {
        const auto found = assigned.find(candidate);
        if (found == assigned.end()) continue;
        value = found->second;
        name = candidate;
        return true;
    }
    return false;
}

// A proxy URL into the three keys. `name` is the variable, for log lines, which never show
// the value: it may hold a password.
ProxySettingsDictionary FromProxyUrl(const std::string& url, const char* name) {
    std::string rest = Trim(url);
    if (rest.empty()) return Disabled();
    const auto schemeEnd = rest.find("://");
    if (schemeEnd != std::string::npos) {
        std::string scheme = rest.substr(0, schemeEnd);
        std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (scheme != "http" && scheme != "https") {
            DNTRACE(TRACE, "PublicProxyMgr : %s is not an HTTP proxy", name);
            return Disabled();
        }
        rest = rest.substr(schemeEnd + 3);
    }
    rest = rest.substr(0, rest.find_first_of("/?#"));
    const auto at = rest.rfind('@');
    if (at != std::string::npos) {
        DNTRACE(TRACE, "PublicProxyMgr : The user name and password of %s are not used", name);
        rest = rest.substr(at + 1);
    }
    std::string host = rest;
    std::string port;
    if (!rest.empty() && rest[0] == '[') {
        const auto close = rest.find(']');
        if (close != std::string::npos) {
            host = rest.substr(1, close - 1);
            if (rest.compare(close + 1, 1, ":") == 0) port = rest.substr(close + 2);
        }
    } else if (const auto colon = rest.find(':'); colon != std::string::npos) {
        host = rest.substr(0, colon);
        port = rest.substr(colon + 1);
    }
    return {{"HTTPSEnable", "1"}, {"HTTPSProxy", host}, {"HTTPSPort", port}};
}
}  // namespace

CEnvironmentProxySettings::CEnvironmentProxySettings(std::function<const char*(const char*)> getenv,
                                                     std::string environmentFile)
    : m_getenv(std::move(getenv)), m_environmentFile(std::move(environmentFile)) {}

ProxySettingsDictionary CEnvironmentProxySettings::CopyProxies() {
    for (const char* name : kNames) {
        const char* value = m_getenv(name);
        if (value == nullptr) continue;
        DNTRACE(TRACE, "PublicProxyMgr : Proxy setting %s of the service environment", name);
        return FromProxyUrl(value, name);
    }
    std::string value;
    const char* name = nullptr;
    if (!FindInFile(m_environmentFile, value, name)) return Disabled();
    DNTRACE(TRACE, "PublicProxyMgr : Proxy setting %s of %s", name, m_environmentFile.c_str());
    return FromProxyUrl(value, name);
}

ISystemProxySettings& SystemProxySettings() {
    // Never destroyed: connection threads may read the settings while the process ends.
    static ISystemProxySettings* const settings = new CEnvironmentProxySettings(
        [](const char* name) -> const char* { return std::getenv(name); }, "/etc/environment");
    return *settings;
}
