// SPDX-License-Identifier: Apache-2.0
// The firewall mark that every socket the agent opens to the network carries.
#pragma once

#include <cstdint>

// The diversion table lets packets with this mark pass first, so the agent's own gateway,
// bypass and probe connections are never diverted back to its listener.
constexpr uint32_t SWG_SOCKET_MARK = 0x5347;  // "SG"

// Sets SWG_SOCKET_MARK on `fd` (SO_MARK). Returns 0 or the errno of the failure
// (EPERM without CAP_NET_ADMIN). Any thread.
int ApplyAgentSocketMark(int fd);
