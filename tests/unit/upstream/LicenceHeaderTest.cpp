// SPDX-License-Identifier: Apache-2.0
// Licence header: sealing with the public key and opening with the private key.
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/encoder.h>
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

// PEM text of a freshly generated key: the private key, or its public half.
std::string MakeKeyPem(EVP_PKEY* key, bool privatePart) {
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

std::string RsaPem(unsigned bits, bool privatePart) {
    return MakeKeyPem(EVP_RSA_gen(bits), privatePart);
}

// The sample public key as a PKCS#1 "BEGIN RSA PUBLIC KEY" block.
std::string Pkcs1PublicPem(const std::string& spkiPem) {
    BIO* in = BIO_new_mem_buf(spkiPem.data(), static_cast<int>(spkiPem.size()));
    EVP_PKEY* key = PEM_read_bio_PUBKEY(in, nullptr, nullptr, nullptr);
    BIO_free(in);
    OSSL_ENCODER_CTX* encoder =
        OSSL_ENCODER_CTX_new_for_pkey(key, EVP_PKEY_PUBLIC_KEY, "PEM", "type-specific", nullptr);
    unsigned char* data = nullptr;
    std::size_t length = 0;
    std::string pem;
    if (encoder != nullptr && OSSL_ENCODER_to_data(encoder, &data, &length) == 1) {
        pem.assign(reinterpret_cast<char*>(data), length);
    }
    OPENSSL_free(data);
    OSSL_ENCODER_CTX_free(encoder);
    EVP_PKEY_free(key);
    return pem;
}

std::string EcPublicPem() { return MakeKeyPem(EVP_EC_gen("P-256"), false); }

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

    OrgInfoRecord m_org;
    std::string m_privatePem;
};

// The gateway reads back exactly the identity the agent sealed, with a fresh timestamp.
TEST_F(LicenceHeaderTest, RoundTripWithSampleKeyPair) {
    const int64_t before = std::time(nullptr);
    std::string keyId, payload;
    ASSERT_NO_FATAL_FAILURE(Build(keyId, payload));
    const int64_t after = std::time(nullptr);

    LicenceIdentity identity;
    std::string error;
    ASSERT_TRUE(DecodeLicenceHeader(keyId, payload, m_privatePem, identity, error)) << error;
    EXPECT_EQ(identity.strKeyId, "sample-key-1");
    EXPECT_EQ(identity.strOrgId, m_org.strOrgId);
    EXPECT_EQ(identity.strDeviceId, m_org.strDeviceId);
    EXPECT_EQ(identity.strUserId, m_org.strPstrUserId);
    EXPECT_EQ(identity.strOverlayUser, m_org.strOverlayUser);
    EXPECT_TRUE(identity.strInterfaceAddress.empty());
    EXPECT_GE(identity.timestamp, before);
    EXPECT_LE(identity.timestamp, after);
    EXPECT_EQ(identity.strNonce.size(), 24u);  // 16 bytes in base64
}

// The interface address travels when given, and empty identity members stay empty.
TEST_F(LicenceHeaderTest, RoundTripWithAddressAndEmptyMembers) {
    m_org.strOverlayUser.clear();
    m_org.strPstrUserId.clear();
    std::string keyId, payload;
    ASSERT_NO_FATAL_FAILURE(Build(keyId, payload, "198.18.0.2"));
    LicenceIdentity identity;
    std::string error;
    ASSERT_TRUE(DecodeLicenceHeader(keyId, payload, m_privatePem, identity, error)) << error;
    EXPECT_EQ(identity.strInterfaceAddress, "198.18.0.2");
    EXPECT_EQ(identity.strOrgId, "org-4711");
    EXPECT_EQ(identity.strUserId, "");
    EXPECT_EQ(identity.strOverlayUser, "");
}

// Each build seals a new content key and nonce, so no two headers can be replayed as one.
TEST_F(LicenceHeaderTest, TwoBuildsDiffer) {
    std::string keyId1, payload1, keyId2, payload2;
    ASSERT_NO_FATAL_FAILURE(Build(keyId1, payload1));
    ASSERT_NO_FATAL_FAILURE(Build(keyId2, payload2));
    EXPECT_EQ(keyId1, keyId2);
    EXPECT_NE(payload1, payload2);
    // No field of the value repeats: wrapped key, IV, ciphertext and tag all change.
    std::istringstream fields1(payload1), fields2(payload2);
    std::string field1, field2;
    int index = 0;
    while (std::getline(fields1, field1, '.') && std::getline(fields2, field2, '.')) {
        if (index++ == 0) continue;  // the version
        EXPECT_NE(field1, field2) << "field " << index - 1;
    }
    EXPECT_EQ(index, 5);

    LicenceIdentity identity1, identity2;
    std::string error;
    ASSERT_TRUE(DecodeLicenceHeader(keyId1, payload1, m_privatePem, identity1, error)) << error;
    ASSERT_TRUE(DecodeLicenceHeader(keyId2, payload2, m_privatePem, identity2, error)) << error;
    EXPECT_NE(identity1.strNonce, identity2.strNonce);
}

// Changing any single character of the payload value is detected, wherever it stands: in the
// version, a separator, the wrapped key, the IV, the ciphertext, the tag or the base64 padding.
TEST_F(LicenceHeaderTest, TamperingWithAnyByteFails) {
    std::string keyId, payload;
    ASSERT_NO_FATAL_FAILURE(Build(keyId, payload));
    LicenceIdentity identity;
    std::string error;
    ASSERT_TRUE(DecodeLicenceHeader(keyId, payload, m_privatePem, identity, error)) << error;

    for (std::size_t at = 0; at < payload.size(); ++at) {
        std::string changed = payload;
        changed[at] = FlipLowBit(payload[at]);
        EXPECT_FALSE(DecodeLicenceHeader(keyId, changed, m_privatePem, identity, error))
            << "change at " << at << " of " << payload.size() << " went unnoticed";
        EXPECT_FALSE(error.empty());
        EXPECT_TRUE(identity.strOrgId.empty());
    }
    EXPECT_FALSE(DecodeLicenceHeader(keyId, payload + "A", m_privatePem, identity, error));
    EXPECT_FALSE(DecodeLicenceHeader(keyId, payload.substr(0, payload.size() - 4), m_privatePem,
                                     identity, error));
}

// The key id is bound to the payload: a header moved under another id does not open.
TEST_F(LicenceHeaderTest, ChangedKeyIdFails) {
    std::string keyId, payload;
    ASSERT_NO_FATAL_FAILURE(Build(keyId, payload));
    LicenceIdentity identity;
    std::string error;
    EXPECT_FALSE(DecodeLicenceHeader("sample-key-2", payload, m_privatePem, identity, error));
    EXPECT_NE(error.find("does not verify"), std::string::npos) << error;
    EXPECT_FALSE(DecodeLicenceHeader("", payload, m_privatePem, identity, error));
}

// A gateway with another organisation's key learns nothing.
TEST_F(LicenceHeaderTest, WrongPrivateKeyFails) {
    std::string keyId, payload;
    ASSERT_NO_FATAL_FAILURE(Build(keyId, payload));
    const std::string otherKey = RsaPem(2048, true);
    ASSERT_FALSE(otherKey.empty());
    LicenceIdentity identity;
    std::string error;
    EXPECT_FALSE(DecodeLicenceHeader(keyId, payload, otherKey, identity, error));
    EXPECT_FALSE(error.empty());
    EXPECT_TRUE(identity.strOrgId.empty());
    // A 3072-bit key fails on the size of the wrapped key before any decryption.
    EXPECT_FALSE(DecodeLicenceHeader(keyId, payload, RsaPem(3072, true), identity, error));
    EXPECT_NE(error.find("size"), std::string::npos) << error;
}

// Keys that cannot be used fail cleanly with a reason, also the second time (cached failure),
// and never yield lines.
TEST_F(LicenceHeaderTest, UnusablePublicKeysFailCleanly) {
    const std::string sample = m_org.strpKeyPem;
    const struct {
        std::string pem;
        const char* reason;
    } cases[] = {
        {"", "no public key"},
        {" \n\t", "no public key"},
        {"-----BEGIN PUBLIC KEY-----\ngarbage\n-----END PUBLIC KEY-----\n", "not readable"},
        {sample.substr(0, sample.size() / 2), "not readable"},
        {"not a key at all", "not readable"},
        {EcPublicPem(), "not an RSA key"},
        {RsaPem(1024, false), "shorter than 2048"},
    };
    for (const auto& item : cases) {
        m_org.strpKeyPem = item.pem;
        for (int round = 0; round < 2; ++round) {
            std::vector<std::string> lines{"left over"};
            std::string error;
            EXPECT_FALSE(BuildLicenceHeaderLines(m_org, lines, error)) << item.reason;
            EXPECT_TRUE(lines.empty()) << item.reason;
            EXPECT_NE(error.find(item.reason), std::string::npos)
                << "expected '" << item.reason << "', got '" << error << "'";
        }
    }
}

// A bad private key on the gateway side is a reason, not a crash.
TEST_F(LicenceHeaderTest, UnusablePrivateKeysFailCleanly) {
    std::string keyId, payload;
    ASSERT_NO_FATAL_FAILURE(Build(keyId, payload));
    LicenceIdentity identity;
    std::string error;
    EXPECT_FALSE(DecodeLicenceHeader(keyId, payload, "", identity, error));
    EXPECT_NE(error.find("no private key"), std::string::npos) << error;
    EXPECT_FALSE(DecodeLicenceHeader(keyId, payload, m_org.strpKeyPem, identity, error));
    EXPECT_NE(error.find("not readable"), std::string::npos) << error;
    EXPECT_FALSE(DecodeLicenceHeader(keyId, payload, m_privatePem.substr(0, 300), identity, error));
    EXPECT_FALSE(error.empty());
}

// Configurations may carry the key as a bare base64 body, with escaped line ends, or in PKCS#1.
TEST_F(LicenceHeaderTest, PublicKeyInConfigurationForms) {
    std::string body;
    std::istringstream lines(m_org.strpKeyPem);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("-----") == std::string::npos) body += line;
    }
    std::string escaped = m_org.strpKeyPem;
    for (std::size_t at = escaped.find('\n'); at != std::string::npos;
         at = escaped.find('\n', at + 2)) {
        escaped.replace(at, 1, "\\n");
    }
    const std::string pkcs1 = Pkcs1PublicPem(m_org.strpKeyPem);
    ASSERT_NE(pkcs1.find("BEGIN RSA PUBLIC KEY"), std::string::npos) << pkcs1;
    for (const std::string& form : {body, escaped, pkcs1}) {
        m_org.strpKeyPem = form;
        std::string keyId, payload;
        ASSERT_NO_FATAL_FAILURE(Build(keyId, payload));
        LicenceIdentity identity;
        std::string error;
        EXPECT_TRUE(DecodeLicenceHeader(keyId, payload, m_privatePem, identity, error)) << error;
    }
}

// A key id that could break the header line (CR LF injection, spaces) or is missing is refused.
TEST_F(LicenceHeaderTest, KeyIdUnfitForHeaderFails) {
    for (const std::string& id : {std::string(""), std::string("key 1"),
                                  std::string("key\r\nX-Injected: 1"), std::string(300, 'k')}) {
        m_org.strpKeyId = id;
        std::vector<std::string> lines;
        std::string error;
        EXPECT_FALSE(BuildLicenceHeaderLines(m_org, lines, error)) << id;
        EXPECT_TRUE(lines.empty());
        EXPECT_FALSE(error.empty());
    }
}

// Long identities with JSON-special and non-ASCII characters come back byte for byte; one past
// the limit fails rather than being cut.
TEST_F(LicenceHeaderTest, LongIdentities) {
    m_org.strOrgId = std::string(2000, 'o') + "\"quoted\\";
    m_org.strDeviceId = std::string(1500, 'd') + "\x01\t";
    m_org.strPstrUserId = "H" + std::string(3000, 'u') + "J\xc3\xbcrgen@b\xc3\xa4r.example";
    m_org.strOverlayUser = std::string(2500, 'v');
    std::string keyId, payload;
    ASSERT_NO_FATAL_FAILURE(Build(keyId, payload));
    EXPECT_LE(payload.size(), kLicenceMaxPayloadValue);
    LicenceIdentity identity;
    std::string error;
    ASSERT_TRUE(DecodeLicenceHeader(keyId, payload, m_privatePem, identity, error)) << error;
    EXPECT_EQ(identity.strOrgId, m_org.strOrgId);
    EXPECT_EQ(identity.strDeviceId, m_org.strDeviceId);
    EXPECT_EQ(identity.strUserId, m_org.strPstrUserId);
    EXPECT_EQ(identity.strOverlayUser, m_org.strOverlayUser);

    m_org.strPstrUserId = std::string(kLicenceMaxPlaintext, 'u');
    std::vector<std::string> lines;
    EXPECT_FALSE(BuildLicenceHeaderLines(m_org, lines, error));
    EXPECT_NE(error.find("too long"), std::string::npos) << error;
    EXPECT_TRUE(lines.empty());
}

// Malformed values are refused before any private-key work, with a reason.
TEST_F(LicenceHeaderTest, MalformedPayloadValues) {
    std::string keyId, payload;
    ASSERT_NO_FATAL_FAILURE(Build(keyId, payload));
    const std::string rest = payload.substr(payload.find('.'));
    const struct {
        std::string value;
        const char* reason;
    } cases[] = {
        {"", "five fields"},
        {"1.AAAA.AAAA.AAAA", "five fields"},
        {payload + ".AAAA", "five fields"},
        {"2" + rest, "unsupported"},
        {"1.AAAA.AAAA.AAAA.AAAA", "size"},
        {"1.AA=A.AAAA.AAAA.AAAA", "base64"},
        {std::string(kLicenceMaxPayloadValue + 1, 'A'), "too long"},
    };
    for (const auto& item : cases) {
        LicenceIdentity identity;
        std::string error;
        EXPECT_FALSE(DecodeLicenceHeader(keyId, item.value, m_privatePem, identity, error));
        EXPECT_NE(error.find(item.reason), std::string::npos)
            << "expected '" << item.reason << "', got '" << error << "'";
    }
}

// Connection threads build headers at the same time from the one cached key.
TEST_F(LicenceHeaderTest, ConcurrentBuildsShareTheCachedKey) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 10;
    std::vector<std::vector<std::string>> built(kThreads * kRounds);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t, &built] {
            for (int r = 0; r < kRounds; ++r) {
                std::string error;
                if (!BuildLicenceHeaderLines(m_org, built[t * kRounds + r], error)) {
                    built[t * kRounds + r] = {error};
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (const auto& lines : built) {
        ASSERT_EQ(lines.size(), 2u) << (lines.empty() ? "" : lines[0]);
        LicenceIdentity identity;
        std::string error;
        EXPECT_TRUE(DecodeLicenceHeader(ValueOf(lines[0], kLicenceKeyIdHeader),
                                        ValueOf(lines[1], kLicencePayloadHeader), m_privatePem,
                                        identity, error))
            << error;
        EXPECT_EQ(identity.strDeviceId, m_org.strDeviceId);
    }
}

}  // namespace
