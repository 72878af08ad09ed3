// SPDX-License-Identifier: Apache-2.0
// Records and seams of the agent's redirection control.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

class ISocketRedirectorApi;

// What RestartKDF hands to InitialiseRedirectorInterface and SetRedirectList.
struct SVC_STARTUP_INFO {
    uint16_t listen_port = 0;     // where monitored traffic is diverted to: 5002
    uint16_t comm_port = 0;       // the IPC port: 5004
    std::string monitored_ports;  // "," separated destination ports
    std::string exception_text;   // ";" separated, built-in entries first
    std::string inclusion_text;   // ";" separated
};

// Who stops or restarts the redirector. The non-zero values are bits of m_kdfStopReasons:
// a restart happens only when no other caller still holds the redirector down.
enum RedirectStopReason : unsigned char {
    reason_rules_refresh = 0,  // start-up, shutdown, configuration change; no mask bit
    reason_backoff = 2,        // rules only: the plug-in stays open
    reason_disruption = 4,     // closes even when Stop reports an error
};

constexpr uint16_t SWG_LISTEN_PORT = 5002;
constexpr uint16_t SWG_COMM_PORT = 5004;

// Private, loopback, link-local, multicast and reserved space, as IPv4, IPv4-mapped IPv6
// and IPv6, ";" separated and ending in ";" so that configured entries append directly.
extern const char default_exception_list[];

// The factory an agent uses when its seams leave `create` empty; CreateLmsockSwgApi until
// replaced. Test binaries replace it at start so that no test reaches the host's packet
// filter by accident. Returns the previous factory; null restores CreateLmsockSwgApi.
using RedirectorFactory = int (*)(ISocketRedirectorApi** out);
RedirectorFactory SetDefaultRedirectorFactory(RedirectorFactory factory);

// Where the redirection logic meets the platform. An empty member means the real one:
// the default factory above, ReleaseLmsockSwgApi, a real sleep,
// ServiceUtils::GetPIDFromProcessName, CSWGAgent::IsIPv6Installed. Tests fill them before the
// agent's redirector is used; they are not changed while it runs.
struct RedirectorSeams {
    std::function<int(ISocketRedirectorApi**)> create;
    std::function<int(ISocketRedirectorApi**)> release;
    std::function<void(unsigned int milliseconds)> sleep;
    std::function<int(const std::string& processName)> pidOfProcess;
    std::function<bool()> ipv6Installed;
};
