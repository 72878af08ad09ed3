// SPDX-License-Identifier: Apache-2.0
// Protected blocks: layout, sizes, result codes, malformed blocks, key lifetime, RSA transfer.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/crypto/DataCrypt.h"

namespace {

using Bytes = std::vector<unsigned char>;

ObfuscatedData Head(const Bytes& block) {
    ObfuscatedData head{};
    std::memcpy(&head, block.data(), sizeof(head));
    return head;
}

void SetHead(Bytes& block, const ObfuscatedData& head) {
    std::memcpy(block.data(), &head, sizeof(head));
}

// The process's key manager with one key, made anew for each test.
class DataCryptTest : public ::testing::Test {
protected:
    void SetUp() override { MakeKeyManager(); }
    void TearDown() override { CSingletonObfuscationMgr::releaseInstance(m_manager); }

    void MakeKeyManager() {
        ASSERT_EQ(CSingletonObfuscationMgr::createSingletonInstance(m_manager, nullptr, 0, false),
                  0);
        std::uint32_t ref = kNewestKeyRef;
        ASSERT_EQ(m_manager->GenerateSymmetricKey(ref), 0);
    }

    static Bytes Protect(CDataCrypt& crypt, const std::string& text) {
        unsigned char* block = nullptr;
        unsigned int length = 0;
        EXPECT_EQ(crypt.EncryptDataAlloc(reinterpret_cast<const unsigned char*>(text.data()),
                                         static_cast<unsigned int>(text.size()), block, length),
                  0);
        Bytes bytes(block, block + length);
        (void)crypt.CryptMemFree(block, false);
        return bytes;
    }

    // The code of DecryptDataAlloc; `text` gets the plain bytes on success.
    static long Recover(CDataCrypt& crypt, const Bytes& block, std::string& text) {
        unsigned char* plain = nullptr;
        unsigned int length = 0;
        const long result = crypt.DecryptDataAlloc(
            block.data(), static_cast<unsigned int>(block.size()), plain, length);
        text.assign(reinterpret_cast<char*>(plain), plain != nullptr ? length : 0);
        EXPECT_EQ(plain == nullptr, result != 0);
        (void)crypt.CryptMemFree(plain, true);
        return result;
    }

    CSingletonObfuscationMgr* m_manager = nullptr;
};

// Guards the block layout: buffer length plain + 16, data length padded to whole blocks
// (16 bytes take 32), a zero vector field, a block of buffer length + 28, and the way back.
TEST_F(DataCryptTest, BlocksHaveTheirLayoutAndRecoverTheirBytes) {
    long result = -1;
    CDataCrypt crypt(result);
    ASSERT_EQ(result, 0);
    for (const unsigned int length : {1u, 15u, 16u, 17u, 200u}) {
        SCOPED_TRACE(length);
        const std::string text(length, 'k');
        const Bytes block = Protect(crypt, text);
        const ObfuscatedData head = Head(block);
        EXPECT_EQ(head.bufferLength, length + 16);
        EXPECT_EQ(head.dataLength, (length / 16 + 1) * 16);
        EXPECT_EQ(block.size(), head.bufferLength + 28u);
        EXPECT_EQ(Bytes(head.iv, head.iv + 16), Bytes(16, 0));
        std::string back;
        EXPECT_EQ(Recover(crypt, block, back), 0);
        EXPECT_EQ(back, text);
    }
    EXPECT_EQ(Protect(crypt, std::string(16, 'k')).size(), 60u);
}

// Guards the size protocol (null or short buffer: the size and 0xFE140006) and the
// null-input codes, for both directions.
TEST_F(DataCryptTest, SizeQueriesAndEmptyInputGetTheirCodes) {
    long result = -1;
    CDataCrypt crypt(result);
    const unsigned char plain[] = "secret";
    unsigned int size = 99;
    EXPECT_EQ(crypt.EncryptData(plain, 7, nullptr, size), DC_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 28u + 7 + 16);
    Bytes block(size);
    unsigned int shortSize = size - 1;
    EXPECT_EQ(crypt.EncryptData(plain, 7, block.data(), shortSize), DC_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(crypt.EncryptData(plain, 7, block.data(), size), 0);

    unsigned int needed = 0;
    EXPECT_EQ(crypt.DecryptData(block.data(), size, nullptr, needed), DC_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(needed, 16u + 16);
    char text[32] = {};
    EXPECT_EQ(crypt.DecryptString(block.data(), size, text, needed), 0);
    EXPECT_EQ(needed, 7u);
    EXPECT_STREQ(text, "secret");

    EXPECT_EQ(crypt.EncryptData(plain, 0, block.data(), size), DC_E_INVALIDARG);
    EXPECT_EQ(crypt.EncryptString(static_cast<const char*>(nullptr), block.data(), size),
              DC_E_INVALIDARG);
    EXPECT_EQ(crypt.DecryptData(nullptr, size, block.data(), size), DC_E_INVALIDARG);
}

// Guards reading a damaged block: never past its end, never a plain text, each with its code.
TEST_F(DataCryptTest, MalformedBlocksGetTheirCodes) {
    long result = -1;
    CDataCrypt crypt(result);
    const Bytes good = Protect(crypt, "password");
    const struct {
        const char* what;
        std::function<void(Bytes&)> damage;
        long code;
    } cases[] = {
        {"shorter than the head", [](Bytes& b) { b.resize(27); }, OBF_E_BUFFER_TOO_SMALL},
        {"cut by one byte", [](Bytes& b) { b.pop_back(); }, OBF_E_BUFFER_TOO_SMALL},
        {"buffer length beyond the bytes",
         [](Bytes& b) {
             ObfuscatedData h = Head(b);
             h.bufferLength = 0xFFFFFFF0U;
             SetHead(b, h);
         },
         OBF_E_BUFFER_TOO_SMALL},
        {"data length beyond the buffer",
         [](Bytes& b) {
             ObfuscatedData h = Head(b);
             h.dataLength = h.bufferLength + 16;
             SetHead(b, h);
         },
         OBF_E_INVALIDARG},
        {"unknown key",
         [](Bytes& b) {
             ObfuscatedData h = Head(b);
             h.keyRef ^= 1;
             SetHead(b, h);
         },
         OBF_E_NO_SUCH_KEY},
        {"cipher text not whole blocks",
         [](Bytes& b) {
             ObfuscatedData h = Head(b);
             h.dataLength = 17;
             SetHead(b, h);
         },
         OBF_E_OPENSSL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes block = good;
        c.damage(block);
        std::string back;
        EXPECT_EQ(Recover(crypt, block, back), c.code);
    }
}

// Guards the key's lifetime: no CDataCrypt without a key manager, one manager at a time, and
// a block of an earlier manager (an earlier run) does not decrypt under the next.
TEST_F(DataCryptTest, BlocksDieWithTheirKeyManager) {
    Bytes block;
    {
        long result = -1;
        CDataCrypt crypt(result);
        block = Protect(crypt, "old");
        CSingletonObfuscationMgr* second = nullptr;
        EXPECT_EQ(CSingletonObfuscationMgr::createSingletonInstance(second, nullptr, 0, false),
                  OBF_E_INSTANCE_EXISTS);
        EXPECT_EQ(second, nullptr);
    }
    CSingletonObfuscationMgr::releaseInstance(m_manager);
    m_manager = nullptr;
    long result = 0;
    CDataCrypt orphan(result);
    EXPECT_EQ(result, OBF_E_NO_INSTANCE);
    IDataCrypt* made = &orphan;
    EXPECT_EQ(CDataCrypt::CreateDataCrypt(made), OBF_E_NO_INSTANCE);
    EXPECT_EQ(made, nullptr);

    MakeKeyManager();
    CDataCrypt crypt(result);
    std::string back;
    EXPECT_EQ(Recover(crypt, block, back), OBF_E_NO_SUCH_KEY);
}

// Guards the RSA operations: a key exported under another manager's public key is taken in by
// that manager alone, once, and then opens blocks of the exporting one.
TEST_F(DataCryptTest, SymmetricKeyTravelsUnderTheReceiversPublicKey) {
    long result = -1;
    CObfuscationMgr receiver(result, nullptr, 0, false);
    ASSERT_EQ(result, 0);
    unsigned int keyLength = 0;
    ASSERT_EQ(receiver.GetPublicKey(nullptr, keyLength), OBF_E_BUFFER_TOO_SMALL);
    Bytes publicKey(keyLength);
    ASSERT_EQ(receiver.GetPublicKey(publicKey.data(), keyLength), 0);
    CObfuscationMgr sender(result, publicKey.data(), keyLength, false);
    ASSERT_EQ(result, 0);

    std::uint32_t ref = 0;
    ASSERT_EQ(sender.GenerateSymmetricKey(ref), 0);
    const unsigned char plain[] = "travels";
    ObfuscatedData* block = nullptr;
    ASSERT_EQ(sender.SymmetricEncrypt(plain, sizeof(plain), block), 0);
    unsigned int wrappedLength = 0;
    EXPECT_EQ(sender.GetEncrKeyData(nullptr, wrappedLength, ref), OBF_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(wrappedLength, 256u);
    Bytes wrapped(wrappedLength);
    ASSERT_EQ(sender.GetEncrKeyData(wrapped.data(), wrappedLength, ref), 0);

    std::uint32_t added = 0;
    EXPECT_EQ(sender.AddEncrSymmetricKey(wrapped.data(), wrappedLength, added),
              OBF_E_NO_PRIVATE_KEY);
    ASSERT_EQ(receiver.AddEncrSymmetricKey(wrapped.data(), wrappedLength, added), 0);
    EXPECT_EQ(added, ref);
    EXPECT_EQ(receiver.AddEncrSymmetricKey(wrapped.data(), wrappedLength, added), OBF_E_KEY_HELD);
    unsigned char out[64] = {};
    unsigned int outLength = sizeof(out);
    EXPECT_EQ(receiver.SymmetricDecrypt(block, out, outLength), 0);
    EXPECT_STREQ(reinterpret_cast<char*>(out), "travels");

    EXPECT_EQ(receiver.RemoveSymmetricKey(ref), 0);
    outLength = sizeof(out);
    EXPECT_EQ(receiver.SymmetricDecrypt(block, out, outLength), OBF_E_NO_SUCH_KEY);
    CObfuscationMgr::FreeObfuscatedData(block);
}

// Guards the key manager's lock: threads that protect and recover at once share one cipher
// context, and each still gets its own text back.
TEST_F(DataCryptTest, ConcurrentUsersEachGetTheirOwnText) {
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &failures] {
            long result = -1;
            CDataCrypt crypt(result);
            for (int i = 0; i < 200; ++i) {
                const std::string text = "user-" + std::to_string(t) + "-" + std::to_string(i);
                std::string back;
                if (Recover(crypt, Protect(crypt, text), back) != 0 || back != text) {
                    ++failures[t];
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

}  // namespace
