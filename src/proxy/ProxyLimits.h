// SPDX-License-Identifier: Apache-2.0
// Bounds that the listener and the connection threads share.
#pragma once

#include <cstdint>

// The longest header block read from a client or from the gateway, in bytes.
constexpr int kHeaderBlockLimit = 64000;
// Each header line costs a list node and a string beside its bytes; a block may hold one line
// for every this many bytes of its limit (1000 lines for 64000), ten times what common web
// servers accept.
constexpr int kHeaderLineCost = 64;
// How long a connect of the outgoing side may take, in seconds.
constexpr std::uint32_t kConnectTimeoutSeconds = 4;
// How long a job waits on its client before the relay: for the whole session record and
// header block, and for each write to the client before the relay. A slow but honest client
// on a poor network sends a few kilobytes of headers in far less.
constexpr int kClientWaitMs = 30000;
// How long the gateway may take to take the job's request and answer it, body included.
constexpr int kGatewayAnswerWaitMs = 30000;
// The largest body of a gateway's answer that is passed on to the client (its block page);
// a larger one is refused as one that cannot be held. The body of a 200 is read and dropped
// in pieces, whatever its length.
constexpr int kGatewayPageLimit = 256 * 1024;
// The share of a pool's threads, in percent, that jobs still before the relay may hold; past
// it the oldest such job is closed, so that waiting clients cannot take the last threads.
constexpr std::uint32_t kBeforeRelaySharePercent = 75;
