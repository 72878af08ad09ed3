// SPDX-License-Identifier: Apache-2.0
// The process-wide proxy record: defaults, first record wins, system-only setters, whole copies.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "upstream/ProxyInfo.h"

namespace {

LOCAL_PROXY_INFO Record(const std::string& host, std::uint16_t port, std::uint32_t mode) {
    LOCAL_PROXY_INFO info;
    info.proxy_host = host;
    info.proxy_port = port;
    info.proxy_mode = mode;
    info.proxy_type = PROXY_TYPE_OBSERVED;
    info.proxy_state = PROXY_STATE_IN_USE;
    return info;
}

class ProxyInfoTest : public ::testing::Test {
protected:
    void SetUp() override { ResetProxyInfo(); }
    void TearDown() override { ResetProxyInfo(); }
};

// Guards first record wins: the same host and port change nothing, another port replaces it.
TEST_F(ProxyInfoTest, SameHostAndPortKeepTheFirstRecord) {
    SetProxyInfo(Record("198.18.0.5", 3128, ProxyModeSystem));
    LOCAL_PROXY_INFO observed = Record("198.18.0.5", 3128, ProxyModeObserved);
    observed.proxy_type = PROXY_TYPE_STORED_PLAIN;
    SetProxyInfo(observed);
    EXPECT_EQ(GetProxyInfo().proxy_mode, ProxyModeSystem);
    EXPECT_EQ(GetProxyType(), PROXY_TYPE_OBSERVED);

    observed.proxy_port = 8080;
    SetProxyInfo(observed);
    EXPECT_EQ(GetProxyInfo().proxy_mode, ProxyModeObserved);
    EXPECT_EQ(GetProxyInfo().proxy_port, 8080);
    EXPECT_EQ(GetProxyType(), PROXY_TYPE_STORED_PLAIN);
}

// Guards the field setters (a system proxy's record only) and the reset to the "no proxy" record.
TEST_F(ProxyInfoTest, FieldSettersChangeOnlyASystemRecordAndResetClearsIt) {
    std::string realm = "corp";
    SetProxyInfo(Record("198.18.0.5", 3128, ProxyModeObserved));
    SetProxyType(PROXY_TYPE_STORED_QUALIFIED);
    SetProxyState(PROXY_STATE_CREDENTIALS);
    SetProxyRealm(realm);
    EXPECT_EQ(GetProxyType(), PROXY_TYPE_OBSERVED);
    EXPECT_EQ(GetProxyState(), PROXY_STATE_IN_USE);
    EXPECT_EQ(GetProxyRealm(), "");

    SetProxyInfo(Record("198.18.0.6", 3128, ProxyModeSystem));
    SetProxyType(PROXY_TYPE_STORED_QUALIFIED);
    SetProxyState(PROXY_STATE_CREDENTIALS);
    SetProxyRealm(realm);
    EXPECT_EQ(GetProxyType(), PROXY_TYPE_STORED_QUALIFIED);
    EXPECT_EQ(GetProxyState(), PROXY_STATE_CREDENTIALS);
    EXPECT_EQ(GetProxyRealm(), "corp");

    ResetProxyInfo();
    const LOCAL_PROXY_INFO info = GetProxyInfo();
    EXPECT_EQ(info.proxy_mode, ProxyModeObserved);
    EXPECT_EQ(info.proxy_host, "0.0.0.0");
    EXPECT_EQ(info.proxy_realm, "");
    EXPECT_EQ(info.proxy_port, 0);
    EXPECT_EQ(info.proxy_type, PROXY_TYPE_UNSET);
    EXPECT_EQ(info.proxy_state, PROXY_STATE_UNSET);
}

// Guards whole copies: concurrent writers and readers never see one record's host, another's port.
TEST_F(ProxyInfoTest, ConcurrentWritersAndReadersSeeWholeRecords) {
    std::atomic<bool> torn{false};
    std::vector<std::thread> threads;
    for (int writer = 0; writer < 2; ++writer) {
        threads.emplace_back([writer] {
            for (int i = 0; i < 2000; ++i) {
                const std::uint16_t port = static_cast<std::uint16_t>(1000 + (i % 50));
                // The host names the port, so that a copy can be checked on its own.
                SetProxyInfo(
                    Record("198.18." + std::to_string(writer) + "." + std::to_string(port % 250),
                           port, ProxyModeObserved));
            }
        });
    }
    threads.emplace_back([&torn] {
        for (int i = 0; i < 4000; ++i) {
            const LOCAL_PROXY_INFO info = GetProxyInfo();
            if (info.proxy_port == 0) continue;
            const std::string suffix = "." + std::to_string(info.proxy_port % 250);
            if (info.proxy_host.size() < suffix.size() ||
                info.proxy_host.compare(info.proxy_host.size() - suffix.size(), suffix.size(),
                                        suffix) != 0)
                torn = true;
        }
    });
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(torn);
}

}  // namespace
