// SPDX-License-Identifier: Apache-2.0
// The trusted server probe against servers that are not one, on loopback: each gives "not
// trusted" within the probe's limits. The right and wrong certificates are tried against a
// real TLS server in tests/scripts/backoff_e2e.sh.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "core/SWGAgent.h"
#include "support/TestServers.h"

namespace {

using namespace std::chrono_literals;
using swg_test::Endpoint;
using swg_test::EndpointPort;
using swg_test::TestServer;

const std::string kFingerprint(64, 'A');

bool Probe(CSWGAgent& agent, const TestServer& server,
           const std::string& fingerprint = kFingerprint) {
    return agent.IsCustomerTrustedNetwork("127.0.0.1", fingerprint, EndpointPort(server.Address()));
}

TEST(TrustedProbeTest, NoTlsNoListenerOrNothingConfiguredIsNotTrusted) {
    CSWGAgent agent;
    TestServer plain(Endpoint("127.0.0.1", 0), [](int fd) {
        const char reply[] = "HTTP/1.0 400 Bad Request\r\n\r\n";
        (void)!::write(fd, reply, sizeof(reply) - 1);
    });
    EXPECT_FALSE(Probe(agent, plain));
    EXPECT_EQ(plain.Accepted(), 1);
    EXPECT_FALSE(Probe(agent, plain, ""));  // no fingerprint: no connection at all
    EXPECT_FALSE(agent.IsCustomerTrustedNetwork("127.0.0.1", kFingerprint, 0));
    EXPECT_EQ(plain.Accepted(), 1);
    plain.Stop();
    EXPECT_FALSE(Probe(agent, plain));  // refused
}

// A server that takes the connection and never answers the handshake: the handshake's 20 s
// end the probe, and the 4 s of the connect no longer apply once it is up.
TEST(TrustedProbeTest, SilentServerEndsAtTheHandshakeLimit) {
    CSWGAgent agent;
    TestServer silent(Endpoint("127.0.0.1", 0), [](int fd) {
        char sink[512];
        while (::read(fd, sink, sizeof(sink)) > 0) {
        }
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Probe(agent, silent));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 19s);
    EXPECT_LT(took, 25s);
}

}  // namespace
