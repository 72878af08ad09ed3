// SPDX-License-Identifier: Apache-2.0
// Bounds that the listener and the connection threads share.
#pragma once

#include <cstdint>

// The longest header block read from a client or from the gateway, in bytes.
constexpr int kHeaderBlockLimit = 64000;
// How long a connect of the outgoing side may take, in seconds.
constexpr std::uint32_t kConnectTimeoutSeconds = 4;
