// SPDX-License-Identifier: Apache-2.0
// Licence header: sealing with the public key and opening with the private key.
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <ctime>
#include <fstream>
#include <sstream>
#include <thread>

#include "upstream/LicenceHeader.h"

namespace {

std::string ReadSample(const std::string& name) {
    std::ifstream in(std::string(SWG_SOURCE_DIR) + "/packaging/sample/" + name);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// PEM text of a freshly generated key (taken over): the private key, or its public half.
std::string KeyPem(EVP_PKEY* key, bool privatePart) {
    BIO* bio = BIO_new(BIO_s_mem());
    const int ok = privatePart
                       ? PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr)
                       : PEM_write_bio_PUBKEY(bio, key);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    std::string pem = ok == 1 ? std::string(data, static_cast<std::size_t>(length)) : "";
    BIO_free(bio);
    EVP_PKEY_free(key);
    return pem;
}

// A base64 character with the lowest of its six bits flipped, so that a change hidden in the
// unused bits of a last group is tried too; any other character becomes 'A'.
char FlipLowBit(char c) {
    static const std::string alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const std::size_t digit = alphabet.find(c);
    return digit == std::string::npos ? 'A' : alphabet[digit ^ 1U];
}

// The value behind "Name: " of a built line.
std::string ValueOf(const std::string& line, const char* name) {
    const std::string prefix = std::string(name) + ": ";
    return line.compare(0, prefix.size(), prefix) == 0 ? line.substr(prefix.size()) : "";
}

class LicenceHeaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_org.strOrgId = "org-4711";
        m_org.strDeviceId = "device-9f1c";
        m_org.strPstrUserId = "Hjane.doe@corp.example";
        m_org.strOverlayUser = "Hoverlay-user";
        m_org.strpKeyId = "sample-key-1";
        m_org.strpKeyPem = ReadSample("licence-test-public.pem");
        m_privatePem = ReadSample("licence-test-private.pem");
        ASSERT_NE(m_org.strpKeyPem.find("BEGIN PUBLIC KEY"), std::string::npos);
        ASSERT_NE(m_privatePem.find("BEGIN PRIVATE KEY"), std::string::npos);
    }

    // Builds for m_org and returns the two values; fails the test when the build fails.
    void Build(std::string& keyId, std::string& payload, const std::string& address = "") {
        std::vector<std::string> lines;
        std::string error;
        ASSERT_TRUE(BuildLicenceHeaderLines(m_org, address, lines, error)) << error;
        ASSERT_EQ(lines.size(), 2u);
        keyId = ValueOf(lines[0], kLicenceKeyIdHeader);
        payload = ValueOf(lines[1], kLicencePayloadHeader);
        ASSERT_FALSE(keyId.empty()) << lines[0];
        ASSERT_FALSE(payload.empty()) << lines[1];
    }
    // Opens the two values with `privatePem` (the sample's by default) into m_opened.
    bool Open(const std::string& keyId, const std::string& payload, const std::string& pem = "") {
        return DecodeLicenceHeader(keyId, payload, pem.empty() ? m_privatePem : pem, m_opened,
                                   m_error);
    }
    // Whether the build fails with a reason containing `reason` and leaves no lines.
    void ExpectBuildFails(const std::string& reason) {
        std::vector<std::string> lines{"left over"};
        std::string error;
        EXPECT_FALSE(BuildLicenceHeaderLines(m_org, lines, error));
        EXPECT_TRUE(lines.empty());
        EXPECT_NE(error.find(reason), std::string::npos) << "want '" << reason << "': " << error;
    }

    OrgInfoRecord m_org;
    std::string m_privatePem;
    LicenceIdentity m_opened;
    std::string m_error;
};

// Guards the round trip: exactly the sealed identity, fresh timestamp, address only if given.
TEST_F(LicenceHeaderTest, RoundTripWithSampleKeyPair) {
    const int64_t before = std::time(nullptr);
    std::string keyId, payload;
    ASSERT_NO_FATAL_FAILURE(Build(keyId, payload, "198.18.0.2"));
    ASSERT_TRUE(Open(keyId, payload)) << m_error;
    EXPECT_EQ(m_opened.strKeyId, "sample-key-1");
    EXPECT_EQ(m_opened.strOrgId, m_org.strOrgId);
    EXPECT_EQ(m_opened.strDeviceId, m_org.strDeviceId);
    EXPECT_EQ(m_opened.strUserId, m_org.strPstrUserId);
    EXPECT_EQ(m_opened.strOverlayUser, m_org.strOverlayUser);
    EXPECT_EQ(m_opened.strInterfaceAddress, "198.18.0.2");
    EXPECT_GE(m_opened.timestamp, before);
    EXPECT_LE(m_opened.timestamp, std::time(nullptr));
    EXPECT_EQ(m_opened.strNonce.size(), 24u);  // 16 bytes in base64

    m_org.strOverlayUser.clear();
    m_org.strPstrUserId.clear();
    ASSERT_NO_FATAL_FAILURE(Build(keyId, payload));
    ASSERT_TRUE(Open(keyId, payload)) << m_error;
    EXPECT_EQ(m_opened.strOrgId, "org-4711");
    EXPECT_EQ(m_opened.strUserId, "");
    EXPECT_EQ(m_opened.strOverlayUser, "");
    EXPECT_EQ(m_opened.strInterfaceAddress, "");
}

// Guards against replay: IV, ciphertext, tag and nonce of two payloads differ (the wrapped
// content key serves a while); and a content key is never carried over to another public key.
TEST_F(LicenceHeaderTest, TwoBuildsDiffer) {
    std::string keyId1, payload1, keyId2, payload2;
    ASSERT_NO_FATAL_FAILURE(Build(keyId1, payload1));
    ASSERT_NO_FATAL_FAILURE(Build(keyId2, payload2));
    EXPECT_EQ(keyId1, keyId2);
    std::istringstream fields1(payload1), fields2(payload2);
    std::string field1, field2;
    int index = 0;
    while (std::getline(fields1, field1, '.') && std::getline(fields2, field2, '.')) {
        if (index++ < 2) continue;  // the version and the wrapped key
        EXPECT_NE(field1, field2) << "field " << index - 1;
    }
    EXPECT_EQ(index, 5);
    ASSERT_TRUE(Open(keyId1, payload1)) << m_error;
    const std::string nonce = m_opened.strNonce;
    ASSERT_TRUE(Open(keyId2, payload2)) << m_error;
    EXPECT_NE(m_opened.strNonce, nonce);

    EVP_PKEY* other = EVP_RSA_gen(2048);
    ASSERT_NE(other, nullptr);
    ASSERT_EQ(EVP_PKEY_up_ref(other), 1);  // KeyPem frees the key it is given
    const std::string otherPrivate = KeyPem(other, true);
    m_org.strpKeyPem = KeyPem(other, false);
    std::string keyId3, payload3;
    ASSERT_NO_FATAL_FAILURE(Build(keyId3, payload3));
    EXPECT_TRUE(Open(keyId3, payload3, otherPrivate)) << m_error;
    EXPECT_FALSE(Open(keyId3, payload3));
}

// Guards the seal: any changed character, length or key id fails and yields no identity.
TEST_F(LicenceHeaderTest, TamperingWithAnyByteFails) {
    std::string keyId, payload;
    ASSERT_NO_FATAL_FAILURE(Build(keyId, payload));
    ASSERT_TRUE(Open(keyId, payload)) << m_error;
    for (std::size_t at = 0; at < payload.size(); ++at) {
        std::string changed = payload;
        changed[at] = FlipLowBit(payload[at]);
        EXPECT_FALSE(Open(keyId, changed)) << "change at " << at << " went unnoticed";
        EXPECT_FALSE(m_error.empty());
        EXPECT_TRUE(m_opened.strOrgId.empty());
    }
    EXPECT_FALSE(Open(keyId, payload + "A"));
    EXPECT_FALSE(Open(keyId, payload.substr(0, payload.size() - 4)));
    EXPECT_FALSE(Open("sample-key-2", payload));
    EXPECT_NE(m_error.find("does not verify"), std::string::npos) << m_error;
    EXPECT_FALSE(Open("", payload));
}

// Guards the gateway side: a wrong, bad or missing private key or malformed value is a reason.
TEST_F(LicenceHeaderTest, WrongKeyOrMalformedValueFailsWithAReason) {
    std::string keyId, payload;
    ASSERT_NO_FATAL_FAILURE(Build(keyId, payload));
    EXPECT_FALSE(Open(keyId, payload, KeyPem(EVP_RSA_gen(2048), true)));
    EXPECT_FALSE(m_error.empty());
    EXPECT_TRUE(m_opened.strOrgId.empty());

    const std::string rest = payload.substr(payload.find('.'));
    const struct {
        std::string value;
        std::string pem;
        const char* reason;
    } cases[] = {
        {payload, " ", "no private key"},
        {payload, m_org.strpKeyPem, "not readable"},
        {payload, m_privatePem.substr(0, 300), "not readable"},
        {"", "", "five fields"},
        {"1.AAAA.AAAA.AAAA", "", "five fields"},
        {payload + ".AAAA", "", "five fields"},
        {"2" + rest, "", "unsupported"},
        {"1.AAAA.AAAA.AAAA.AAAA", "", "size"},
        {"1.AA=A.AAAA.AAAA.AAAA", "", "base64"},
        {std::string(kLicenceMaxPayloadValue + 1, 'A'), "", "too long"},
    };
    for (const auto& c : cases) {
        EXPECT_FALSE(Open(keyId, c.value, c.pem));
        EXPECT_NE(m_error.find(c.reason), std::string::npos) << c.reason << ": " << m_error;
    }
}

// Guards bad public keys failing cleanly (twice: cached), and the key forms configurations use.
TEST_F(LicenceHeaderTest, PublicKeyFormsAndUnusableKeys) {
    const std::string sample = m_org.strpKeyPem;
    const std::pair<std::string, const char*> unusable[] = {
        {"", "no public key"},
        {" \n\t", "no public key"},
        {"-----BEGIN PUBLIC KEY-----\ngarbage\n-----END PUBLIC KEY-----\n", "not readable"},
        {sample.substr(0, sample.size() / 2), "not readable"},
        {KeyPem(EVP_EC_gen("P-256"), false), "not an RSA key"},
        {KeyPem(EVP_RSA_gen(1024), false), "shorter than 2048"},
    };
    for (const auto& [pem, reason] : unusable) {
        m_org.strpKeyPem = pem;
        ExpectBuildFails(reason);
        ExpectBuildFails(reason);
    }

    std::string body;
    std::istringstream lines(sample);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("-----") == std::string::npos) body += line;
    }
    std::string escaped = sample;
    for (std::size_t at = escaped.find('\n'); at != std::string::npos;
         at = escaped.find('\n', at + 2)) {
        escaped.replace(at, 1, "\\n");
    }
    for (const std::string& form : {body, escaped}) {
        m_org.strpKeyPem = form;
        std::string keyId, payload;
        ASSERT_NO_FATAL_FAILURE(Build(keyId, payload));
        EXPECT_TRUE(Open(keyId, payload)) << m_error;
    }
}

// Guards key ids unfit for a header line, and long identities: whole, or refused past the limit.
TEST_F(LicenceHeaderTest, KeyIdAndIdentityLimits) {
    for (const std::string& id : {std::string(""), std::string("key 1"),
                                  std::string("key\r\nX-Injected: 1"), std::string(300, 'k')}) {
        SCOPED_TRACE(id);
        m_org.strpKeyId = id;
        ExpectBuildFails("");
    }
    m_org.strpKeyId = "sample-key-1";
    m_org.strOrgId = std::string(2000, 'o') + "\"quoted\\";
    m_org.strDeviceId = std::string(1500, 'd') + "\x01\t";
    m_org.strPstrUserId = "H" + std::string(3000, 'u') + "J\xc3\xbcrgen@b\xc3\xa4r.example";
    m_org.strOverlayUser = std::string(2500, 'v');
    std::string keyId, payload;
    ASSERT_NO_FATAL_FAILURE(Build(keyId, payload));
    EXPECT_LE(payload.size(), kLicenceMaxPayloadValue);
    ASSERT_TRUE(Open(keyId, payload)) << m_error;
    EXPECT_EQ(m_opened.strOrgId, m_org.strOrgId);
    EXPECT_EQ(m_opened.strDeviceId, m_org.strDeviceId);
    EXPECT_EQ(m_opened.strUserId, m_org.strPstrUserId);
    EXPECT_EQ(m_opened.strOverlayUser, m_org.strOverlayUser);

    m_org.strPstrUserId = std::string(kLicenceMaxPlaintext, 'u');
    ExpectBuildFails("too long");
}

// Guards the key cache: headers built at once on several threads all open.
TEST_F(LicenceHeaderTest, ConcurrentBuildsShareTheCachedKey) {
    std::vector<std::vector<std::string>> built(4 * 10);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4; ++t) {
        threads.emplace_back([this, t, &built] {
            for (std::size_t r = t * 10; r < t * 10 + 10; ++r) {
                std::string error;
                if (!BuildLicenceHeaderLines(m_org, built[r], error)) built[r] = {error};
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (const auto& lines : built) {
        ASSERT_EQ(lines.size(), 2u) << (lines.empty() ? "" : lines[0]);
        EXPECT_TRUE(
            Open(ValueOf(lines[0], kLicenceKeyIdHeader), ValueOf(lines[1], kLicencePayloadHeader)))
            << m_error;
        EXPECT_EQ(m_opened.strDeviceId, m_org.strDeviceId);
    }
}

}  // namespace
