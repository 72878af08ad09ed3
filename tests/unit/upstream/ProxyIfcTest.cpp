// SPDX-License-Identifier: Apache-2.0
// ProxyIfc: protected credentials, the qualified user, host data, and the wipe of plain text.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "foundation/crypto/SingletonObfuscationMgr.h"
#include "upstream/ProxyIfc.h"

namespace {

class ProxyIfcTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(CSingletonObfuscationMgr::createSingletonInstance(m_keys, nullptr, 0, false), 0);
        std::uint32_t ref = kNewestKeyRef;
        ASSERT_EQ(m_keys->GenerateSymmetricKey(ref), 0);
    }
    void TearDown() override { CSingletonObfuscationMgr::releaseInstance(m_keys); }

    CSingletonObfuscationMgr* m_keys = nullptr;
};

// Guards the credential round trip, empty credentials of a fresh object, copies that keep
// their credentials readable, and the host data with and without a port.
TEST_F(ProxyIfcTest, CredentialsComeBackAndCopiesKeepThem) {
    ProxyIfc proxy(ProxyTypePlain, false);
    EXPECT_TRUE(proxy.getProxyUser().empty());
    EXPECT_TRUE(proxy.getProxyPswd().empty());
    EXPECT_EQ(proxy.getProxyHostData(), "");
    EXPECT_EQ(proxy.setProxyUser("alice"), 0);
    EXPECT_EQ(proxy.setProxyPswd("open sesame"), 0);
    EXPECT_EQ(proxy.setProxyAuthority(""), 0);
    EXPECT_STREQ(proxy.getProxyUser().c_str(), "alice");
    EXPECT_STREQ(proxy.getProxyPswd().c_str(), "open sesame");

    proxy.setProxyHost("10.0.0.1");
    EXPECT_EQ(proxy.getProxyHostData(), "10.0.0.1");
    proxy.setProxyPort("8080");
    EXPECT_EQ(proxy.getProxyHostData(), "10.0.0.1:8080");

    const ProxyIfc copy(proxy);
    ProxyIfc assigned(ProxyTypeQualified, false);
    assigned = proxy;
    for (const ProxyIfc* other : {&copy, static_cast<const ProxyIfc*>(&assigned)}) {
        EXPECT_STREQ(other->getProxyPswd().c_str(), "open sesame");
        EXPECT_EQ(other->getProxyHostData(), "10.0.0.1:8080");
        EXPECT_EQ(other->getProxyType(), ProxyTypePlain);
    }
}

// Guards the qualified user: the authority goes in front only for a qualified proxy that has
// one.
TEST_F(ProxyIfcTest, QualifiedUserCarriesTheAuthorityOnlyWhenQualified) {
    const struct {
        ProxyType type;
        const char* authority;
        const char* expected;
    } cases[] = {
        {ProxyTypeQualified, "CORP", "CORP\\alice"},
        {ProxyTypePlain, "CORP", "alice"},
        {ProxyTypeQualified, "", "alice"},
    };
    for (const auto& c : cases) {
        ProxyIfc proxy(c.type, false);
        ASSERT_EQ(proxy.setProxyUser("alice"), 0);
        ASSERT_EQ(proxy.setProxyAuthority(c.authority), 0);
        EXPECT_STREQ(proxy.getProxyQualifiedUser().c_str(), c.expected);
    }
}

// Guards the plain text: the protected bytes do not hold it, and a wiped credential leaves
// zeros in the buffer it used.
TEST_F(ProxyIfcTest, PlainTextIsNeitherStoredNorLeftBehind) {
    const std::string secret = "hunter2-correct-horse";
    ProxyIfc proxy(ProxyTypePlain, false);
    ASSERT_EQ(proxy.setProxyPswd(secret), 0);
    const unsigned char* stored = proxy.getEncryptedProxyPswd();
    ASSERT_NE(stored, nullptr);
    std::uint32_t bufferLength = 0;
    std::memcpy(&bufferLength, stored + 4, sizeof(bufferLength));
    const std::string bytes(reinterpret_cast<const char*>(stored), 28 + bufferLength);
    EXPECT_EQ(bytes.find("hunter2"), std::string::npos);
    std::string recovered;
    EXPECT_EQ(ProxyIfc::getUnencryptedProxyString(28 + bufferLength, stored, recovered), 0);
    EXPECT_EQ(recovered, secret);

    ProxyIfc::UnprotectedCredential credential = proxy.getProxyPswd();
    ASSERT_EQ(credential.length(), secret.size());
    const char* buffer = credential.c_str();
    credential.Wipe();
    EXPECT_EQ(std::string(buffer, secret.size()), std::string(secret.size(), '\0'));
    EXPECT_TRUE(credential.empty());
}

// Guards the path without a key manager: nothing is stored, nothing reads, nothing crashes.
TEST_F(ProxyIfcTest, WithoutAKeyManagerNothingIsStored) {
    CSingletonObfuscationMgr::releaseInstance(m_keys);
    m_keys = nullptr;
    ProxyIfc proxy(ProxyTypePlain, false);
    EXPECT_EQ(proxy.setProxyUser("alice"), 0);
    EXPECT_TRUE(proxy.getProxyUser().empty());
    EXPECT_EQ(proxy.getEncryptedProxyUser(), nullptr);
}

}  // namespace
