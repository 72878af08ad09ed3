// SPDX-License-Identifier: Apache-2.0
// Sealing and opening of the licence header: RSA-OAEP wraps a fresh AES-256-GCM key.
#include "upstream/LicenceHeader.h"

#include <cjson/cJSON.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/decoder.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "foundation/Trace.h"

namespace {

constexpr std::size_t kAesKeyBytes = 32;
constexpr std::size_t kGcmIvBytes = 12;
constexpr std::size_t kGcmTagBytes = 16;
constexpr std::size_t kNonceBytes = 16;
constexpr int kMinRsaBits = 2048;
constexpr std::size_t kMaxKeyIdLength = 256;
constexpr std::size_t kKeyCacheEntries = 16;

using Bytes = std::vector<unsigned char>;

struct PkeyDeleter {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct PkeyCtxDeleter {
    void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
struct CipherCtxDeleter {
    void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
struct DecoderCtxDeleter {
    void operator()(OSSL_DECODER_CTX* ctx) const { OSSL_DECODER_CTX_free(ctx); }
};
struct JsonDeleter {
    void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxDeleter>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxDeleter>;
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;
using SharedPkey = std::shared_ptr<EVP_PKEY>;

// Wipes key material on every way out of a function.
class CWiped {
public:
    explicit CWiped(Bytes& bytes) : m_bytes(bytes) {}
    ~CWiped() { OPENSSL_cleanse(m_bytes.data(), m_bytes.size()); }
    CWiped(const CWiped&) = delete;
    CWiped& operator=(const CWiped&) = delete;

private:
    Bytes& m_bytes;
};

// `what`, followed by the reason of the latest OpenSSL error of this thread. Empties the
// thread's error queue so that a later, unrelated caller does not see these errors.
std::string OpenSslFailure(const std::string& what) {
    unsigned long code = 0;
    unsigned long last = 0;
    while ((code = ERR_get_error()) != 0) last = code;
    if (last == 0) return what;
    const char* reason = ERR_reason_error_string(last);
    return what + " (" + (reason != nullptr ? reason : "unknown OpenSSL error") + ")";
}

// ---- base64 --------------------------------------------------------------------------

std::string Base64Encode(const Bytes& in) {
    if (in.empty()) return std::string();
    std::string out(4 * ((in.size() + 2) / 3) + 1, '\0');
    const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]), in.data(),
                                        static_cast<int>(in.size()));
    out.resize(written < 0 ? 0 : static_cast<std::size_t>(written));
    return out;
}

int Base64Digit(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

// Strict RFC 4648 decoding: padded to a multiple of 4, nothing outside the alphabet, and the
// unused bits of the last group zero. Only the canonical text of a byte string decodes, so
// no change to a header value can decode to the same bytes.
bool Base64DecodeStrict(const std::string& in, Bytes& out) {
    out.clear();
    if (in.empty() || in.size() % 4 != 0) return false;
    const std::size_t padding = in[in.size() - 1] != '=' ? 0 : (in[in.size() - 2] == '=' ? 2 : 1);
    const std::size_t dataChars = in.size() - padding;
    uint32_t accumulator = 0;
    int bits = 0;
    for (std::size_t i = 0; i < dataChars; ++i) {
        const int digit = Base64Digit(in[i]);
        if (digit < 0) return false;
        accumulator = (accumulator << 6) | static_cast<uint32_t>(digit);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<unsigned char>((accumulator >> bits) & 0xffU));
        }
    }
    return (accumulator & ((1U << bits) - 1U)) == 0;
}

Bytes RandomBytes(std::size_t count, bool& ok) {
    Bytes bytes(count);
    ok = RAND_bytes(bytes.data(), static_cast<int>(count)) == 1;
    return bytes;
}

// ---- keys ----------------------------------------------------------------------------

// A configuration may carry the key as the bare base64 body of a SubjectPublicKeyInfo, or with
// its line ends escaped once too often; both are put back into PEM form.
std::string NormalisePem(const std::string& text, bool isPrivate) {
    std::string pem = text;
    for (std::size_t at = pem.find("\\n"); at != std::string::npos; at = pem.find("\\n", at)) {
        pem.replace(at, 2, "\n");
    }
    if (isPrivate || pem.find("-----BEGIN") != std::string::npos) return pem;
    std::string body;
    for (char c : pem) {
        if (c != ' ' && c != '\t' && c != '\r' && c != '\n') body.push_back(c);
    }
    std::string wrapped = "-----BEGIN PUBLIC KEY-----\n";
    for (std::size_t at = 0; at < body.size(); at += 64) wrapped += body.substr(at, 64) + "\n";
    return wrapped + "-----END PUBLIC KEY-----\n";
}

SharedPkey ParseRsaKey(const std::string& text, bool isPrivate, std::string& error) {
    if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
        error = isPrivate ? "no private key" : "no public key";
        return nullptr;
    }
    const std::string pem = NormalisePem(text, isPrivate);
    EVP_PKEY* raw = nullptr;
    const int selection = isPrivate ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY;
    std::unique_ptr<OSSL_DECODER_CTX, DecoderCtxDeleter> decoder(
        OSSL_DECODER_CTX_new_for_pkey(&raw, "PEM", nullptr, nullptr, selection, nullptr, nullptr));
    if (!decoder) {
        error = OpenSslFailure("cannot set up the PEM decoder");
        return nullptr;
    }
    // An empty passphrase makes an encrypted PEM fail here rather than prompt on a terminal.
    OSSL_DECODER_CTX_set_passphrase(decoder.get(), reinterpret_cast<const unsigned char*>(""), 0);
    const auto* data = reinterpret_cast<const unsigned char*>(pem.data());
    std::size_t length = pem.size();
    if (OSSL_DECODER_from_data(decoder.get(), &data, &length) != 1 || raw == nullptr) {
        error = OpenSslFailure(isPrivate ? "private key is not readable PEM"
                                         : "public key is not readable PEM");
        return nullptr;
    }
    SharedPkey key(raw, PkeyDeleter());
    if (!EVP_PKEY_is_a(key.get(), "RSA")) {
        error = std::string("key is not an RSA key (") + EVP_PKEY_get0_type_name(key.get()) + ")";
        return nullptr;
    }
    if (EVP_PKEY_get_bits(key.get()) < kMinRsaBits) {
        error = "RSA key of " + std::to_string(EVP_PKEY_get_bits(key.get())) +
                " bits is shorter than " + std::to_string(kMinRsaBits);
        return nullptr;
    }
    return key;
}

// Parsed keys by PEM text, so that a connection does not parse the key again. A text that
// failed is kept with its reason: a bad configuration is reported once, not per connection.
// A configuration change brings a new text; the cache is emptied when it is full, which only
// costs one parse per key in use.
class CLicenceKeyCache {
public:
    struct Entry {
        SharedPkey key;
        std::string error;
    };

    // The entry for `pem`; `fresh` is true when this call parsed it.
    Entry Get(const std::string& pem, bool isPrivate, bool& fresh) {
        std::lock_guard<std::mutex> hold(m_lock);
        auto slot = m_entries.find({isPrivate, pem});
        fresh = slot == m_entries.end();
        if (!fresh) return slot->second;
        if (m_entries.size() >= kKeyCacheEntries) m_entries.clear();
        Entry entry;
        entry.key = ParseRsaKey(pem, isPrivate, entry.error);
        m_entries.emplace(std::make_pair(isPrivate, pem), entry);
        return entry;
    }

private:
    std::mutex m_lock;
    std::map<std::pair<bool, std::string>, Entry> m_entries;
};

CLicenceKeyCache& KeyCache() {
    static CLicenceKeyCache cache;
    return cache;
}

SharedPkey PublicKeyFor(const OrgInfoRecord& org, std::string& error) {
    bool fresh = false;
    const CLicenceKeyCache::Entry entry = KeyCache().Get(org.strpKeyPem, false, fresh);
    if (!entry.key) {
        error = entry.error;
        if (fresh)
            DNTRACE(WARN, "Licence : public key %s cannot be used: %s", org.strpKeyId.c_str(),
                    entry.error.c_str());
        return nullptr;
    }
    if (fresh)
        DNTRACE(LIC, "Licence : public key %s loaded, %d bits", org.strpKeyId.c_str(),
                EVP_PKEY_get_bits(entry.key.get()));
    return entry.key;
}

// Visible ASCII only: the id goes out as a header value and binds the payload through the
// additional data, so it must survive header parsing byte for byte.
bool IsHeaderSafeKeyId(const std::string& keyId) {
    if (keyId.empty() || keyId.size() > kMaxKeyIdLength) return false;
    for (unsigned char c : keyId) {
        if (c < 0x21 || c > 0x7e) return false;
    }
    return true;
}

std::string AdditionalData(const std::string& keyId) {
    return std::to_string(kLicenceFormatVersion) + "." + keyId;
}

// ---- RSA-OAEP and AES-GCM ------------------------------------------------------------

PkeyCtxPtr OaepContext(EVP_PKEY* key, bool encrypt) {
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    if (!ctx) return nullptr;
    const int init = encrypt ? EVP_PKEY_encrypt_init(ctx.get()) : EVP_PKEY_decrypt_init(ctx.get());
    if (init != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
        EVP_PKEY_CTX_set_rsa_oaep_md_name(ctx.get(), "SHA256", nullptr) != 1 ||
        EVP_PKEY_CTX_set_rsa_mgf1_md_name(ctx.get(), "SHA256", nullptr) != 1) {
        return nullptr;
    }
    return ctx;
}

bool WrapKey(EVP_PKEY* key, const Bytes& aesKey, Bytes& wrapped, std::string& error) {
    PkeyCtxPtr ctx = OaepContext(key, true);
    std::size_t length = 0;
    if (!ctx || EVP_PKEY_encrypt(ctx.get(), nullptr, &length, aesKey.data(), aesKey.size()) != 1) {
        error = OpenSslFailure("cannot set up RSA-OAEP");
        return false;
    }
    wrapped.assign(length, 0);
    if (EVP_PKEY_encrypt(ctx.get(), wrapped.data(), &length, aesKey.data(), aesKey.size()) != 1) {
        error = OpenSslFailure("RSA-OAEP encryption failed");
        return false;
    }
    wrapped.resize(length);
    return true;
}

bool UnwrapKey(EVP_PKEY* key, const Bytes& wrapped, Bytes& aesKey, std::string& error) {
    PkeyCtxPtr ctx = OaepContext(key, false);
    if (!ctx) {
        error = OpenSslFailure("cannot set up RSA-OAEP");
        return false;
    }
    aesKey.assign(static_cast<std::size_t>(EVP_PKEY_get_size(key)), 0);
    std::size_t length = aesKey.size();
    if (EVP_PKEY_decrypt(ctx.get(), aesKey.data(), &length, wrapped.data(), wrapped.size()) != 1) {
        error =
            OpenSslFailure("cannot unwrap the content key (wrong private key or changed value)");
        return false;
    }
    aesKey.resize(length);
    if (length != kAesKeyBytes) {
        error = "unwrapped content key has " + std::to_string(length) + " bytes";
        return false;
    }
    return true;
}

// `in` is the plaintext when sealing and the ciphertext when opening; `tag` is written when
// sealing and checked when opening.
bool AesGcm(bool seal, const Bytes& key, const Bytes& iv, const std::string& aad, const Bytes& in,
            Bytes& out, Bytes& tag) {
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx ||
        EVP_CipherInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr, seal ? 1 : 0) !=
            1 ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(iv.size()),
                            nullptr) != 1 ||
        EVP_CipherInit_ex(ctx.get(), nullptr, nullptr, key.data(), iv.data(), -1) != 1) {
        return false;
    }
    int length = 0;
    if (EVP_CipherUpdate(ctx.get(), nullptr, &length,
                         reinterpret_cast<const unsigned char*>(aad.data()),
                         static_cast<int>(aad.size())) != 1) {
        return false;
    }
    out.assign(in.size() + 16, 0);
    if (EVP_CipherUpdate(ctx.get(), out.data(), &length, in.data(), static_cast<int>(in.size())) !=
        1) {
        return false;
    }
    std::size_t total = static_cast<std::size_t>(length);
    if (!seal && EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(tag.size()),
                                     tag.data()) != 1) {
        return false;
    }
    if (EVP_CipherFinal_ex(ctx.get(), out.data() + total, &length) != 1) return false;
    total += static_cast<std::size_t>(length);
    out.resize(total);
    if (seal) {
        tag.assign(kGcmTagBytes, 0);
        return EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(tag.size()),
                                   tag.data()) == 1;
    }
    return true;
}

// ---- content key ---------------------------------------------------------------------

// One content key and its RSA-OAEP wrap serve the headers of a minute: the wrap cost about
// 40 of the 55 us a header took, on every gateway connection. Each header still has its own
// IV, nonce and time, so no two are alike and none can be replayed as another; AES-GCM with
// random 96-bit IVs stays safe for 2^32 messages under one key, far above kContentKeyUses.
// A key is for one public key: a new configuration's key gets its own at once.
constexpr auto kContentKeyLifetime = std::chrono::seconds(60);
constexpr std::uint32_t kContentKeyUses = 1U << 20;

class CContentKeyCache {
public:
    bool Get(const SharedPkey& key, Bytes& aesKey, Bytes& wrapped, std::string& error) {
        std::lock_guard<std::mutex> hold(m_lock);
        const auto now = std::chrono::steady_clock::now();
        if (m_key != key || m_uses >= kContentKeyUses || now - m_made >= kContentKeyLifetime) {
            bool ok = false;
            Bytes fresh = RandomBytes(kAesKeyBytes, ok);
            CWiped wipeFresh(fresh);
            if (!ok) {
                error = OpenSslFailure("no random bytes for the content key");
                return false;
            }
            Bytes freshWrapped;
            if (!WrapKey(key.get(), fresh, freshWrapped, error)) return false;
            OPENSSL_cleanse(m_aesKey.data(), m_aesKey.size());
            m_aesKey = fresh;
            m_wrapped = std::move(freshWrapped);
            m_key = key;
            m_made = now;
            m_uses = 0;
        }
        ++m_uses;
        aesKey = m_aesKey;
        wrapped = m_wrapped;
        return true;
    }

private:
    std::mutex m_lock;
    SharedPkey m_key;
    Bytes m_aesKey;
    Bytes m_wrapped;
    std::chrono::steady_clock::time_point m_made;
    std::uint32_t m_uses = 0;
};

CContentKeyCache& ContentKeys() {
    static CContentKeyCache cache;
    return cache;
}

// ---- payload -------------------------------------------------------------------------

bool MakePlaintext(const OrgInfoRecord& org, const std::string& interfaceAddress, Bytes& plain,
                   std::string& error) {
    bool ok = false;
    const Bytes nonce = RandomBytes(kNonceBytes, ok);
    JsonPtr json(cJSON_CreateObject());
    if (!ok || !json) {
        error = OpenSslFailure("cannot make the payload nonce");
        return false;
    }
    cJSON* root = json.get();
    bool added = cJSON_AddNumberToObject(root, "v", kLicenceFormatVersion) != nullptr &&
                 cJSON_AddStringToObject(root, "org", org.strOrgId.c_str()) != nullptr &&
                 cJSON_AddStringToObject(root, "device", org.strDeviceId.c_str()) != nullptr &&
                 cJSON_AddStringToObject(root, "user", org.strPstrUserId.c_str()) != nullptr &&
                 cJSON_AddStringToObject(root, "overlay", org.strOverlayUser.c_str()) != nullptr;
    if (added && !interfaceAddress.empty()) {
        added = cJSON_AddStringToObject(root, "ip", interfaceAddress.c_str()) != nullptr;
    }
    added =
        added &&
        cJSON_AddNumberToObject(root, "ts", static_cast<double>(std::time(nullptr))) != nullptr &&
        cJSON_AddStringToObject(root, "nonce", Base64Encode(nonce).c_str()) != nullptr;
    char* printed = added ? cJSON_PrintUnformatted(root) : nullptr;
    if (printed == nullptr) {
        error = "System Out Of Memory while building the licence payload";
        return false;
    }
    const std::size_t length = std::strlen(printed);
    plain.assign(printed, printed + length);
    OPENSSL_cleanse(printed, length);
    cJSON_free(printed);
    if (plain.size() > kLicenceMaxPlaintext) {
        error =
            "identity too long for the licence header (" + std::to_string(plain.size()) + " bytes)";
        return false;
    }
    return true;
}

// A member that must be present as a string.
bool JsonString(const cJSON* root, const char* name, std::string& out) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(root, name);
    if (!cJSON_IsString(item) || item->valuestring == nullptr) return false;
    out = item->valuestring;
    return true;
}

bool ReadPlaintext(const Bytes& plain, LicenceIdentity& out, std::string& error) {
    const std::string text(plain.begin(), plain.end());
    JsonPtr json(cJSON_ParseWithLength(text.data(), text.size()));
    const cJSON* root = json.get();
    if (!cJSON_IsObject(root)) {
        error = "payload is not a JSON object";
        return false;
    }
    const cJSON* version = cJSON_GetObjectItemCaseSensitive(root, "v");
    const cJSON* timestamp = cJSON_GetObjectItemCaseSensitive(root, "ts");
    if (!cJSON_IsNumber(version) || version->valuedouble != kLicenceFormatVersion) {
        error = "payload of an unknown version";
        return false;
    }
    if (!cJSON_IsNumber(timestamp) || !JsonString(root, "org", out.strOrgId) ||
        !JsonString(root, "device", out.strDeviceId) || !JsonString(root, "user", out.strUserId) ||
        !JsonString(root, "overlay", out.strOverlayUser) ||
        !JsonString(root, "nonce", out.strNonce)) {
        error = "payload lacks a member";
        return false;
    }
    JsonString(root, "ip", out.strInterfaceAddress);
    out.timestamp = static_cast<int64_t>(timestamp->valuedouble);
    return true;
}

// Splits the payload value into its five fields and decodes the four base64 ones.
bool SplitPayload(const std::string& value, Bytes& wrapped, Bytes& iv, Bytes& ciphertext,
                  Bytes& tag, std::string& error) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t dot = value.find('.'); fields.size() < 6; dot = value.find('.', start)) {
        fields.push_back(value.substr(start, dot == std::string::npos ? dot : dot - start));
        if (dot == std::string::npos) break;
        start = dot + 1;
    }
    if (fields.size() != 5) {
        error = "payload value does not have five fields";
        return false;
    }
    if (fields[0] != std::to_string(kLicenceFormatVersion)) {
        error = "unsupported licence format '" + fields[0].substr(0, 8) + "'";
        return false;
    }
    if (!Base64DecodeStrict(fields[1], wrapped) || !Base64DecodeStrict(fields[2], iv) ||
        !Base64DecodeStrict(fields[3], ciphertext) || !Base64DecodeStrict(fields[4], tag)) {
        error = "payload field is not canonical base64";
        return false;
    }
    if (iv.size() != kGcmIvBytes || tag.size() != kGcmTagBytes) {
        error = "payload nonce or tag of the wrong size";
        return false;
    }
    return true;
}

}  // namespace

bool BuildLicenceHeaderLines(const OrgInfoRecord& org, const std::string& interfaceAddress,
                             std::vector<std::string>& lines, std::string& error) {
    lines.clear();
    error.clear();
    try {
        if (!IsHeaderSafeKeyId(org.strpKeyId)) {
            error = "public key id is empty, too long or not printable ASCII";
            return false;
        }
        const SharedPkey key = PublicKeyFor(org, error);
        if (!key) return false;
        Bytes plain;
        CWiped wipePlain(plain);
        if (!MakePlaintext(org, interfaceAddress, plain, error)) return false;
        Bytes aesKey;
        CWiped wipeKey(aesKey);
        Bytes wrapped;
        if (!ContentKeys().Get(key, aesKey, wrapped, error)) return false;
        bool ivOk = false;
        const Bytes iv = RandomBytes(kGcmIvBytes, ivOk);
        if (!ivOk) {
            error = OpenSslFailure("no random bytes for the IV");
            return false;
        }
        Bytes ciphertext;
        Bytes tag;
        if (!AesGcm(true, aesKey, iv, AdditionalData(org.strpKeyId), plain, ciphertext, tag)) {
            error = OpenSslFailure("AES-256-GCM encryption failed");
            return false;
        }
        const std::string value = std::to_string(kLicenceFormatVersion) + "." +
                                  Base64Encode(wrapped) + "." + Base64Encode(iv) + "." +
                                  Base64Encode(ciphertext) + "." + Base64Encode(tag);
        lines.push_back(std::string(kLicenceKeyIdHeader) + ": " + org.strpKeyId);
        lines.push_back(std::string(kLicencePayloadHeader) + ": " + value);
        return true;
    } catch (const std::bad_alloc&) {
        lines.clear();
        error = "System Out Of Memory while building the licence header";
        return false;
    }
}

bool BuildLicenceHeaderLines(const OrgInfoRecord& org, std::vector<std::string>& lines,
                             std::string& error) {
    return BuildLicenceHeaderLines(org, std::string(), lines, error);
}

bool DecodeLicenceHeader(const std::string& keyIdValue, const std::string& payloadValue,
                         const std::string& privateKeyPem, LicenceIdentity& out,
                         std::string& error) {
    out = LicenceIdentity();
    error.clear();
    try {
        if (!IsHeaderSafeKeyId(keyIdValue)) {
            error = "key id is empty, too long or not printable ASCII";
            return false;
        }
        if (payloadValue.size() > kLicenceMaxPayloadValue) {
            error = "payload value too long";
            return false;
        }
        Bytes wrapped, iv, ciphertext, tag;
        if (!SplitPayload(payloadValue, wrapped, iv, ciphertext, tag, error)) return false;
        bool fresh = false;
        const CLicenceKeyCache::Entry entry = KeyCache().Get(privateKeyPem, true, fresh);
        if (!entry.key) {
            error = entry.error;
            return false;
        }
        if (wrapped.size() != static_cast<std::size_t>(EVP_PKEY_get_size(entry.key.get()))) {
            error = "wrapped content key does not match the private key's size";
            return false;
        }
        Bytes aesKey;
        CWiped wipeKey(aesKey);
        if (!UnwrapKey(entry.key.get(), wrapped, aesKey, error)) return false;
        Bytes plain;
        CWiped wipePlain(plain);
        if (!AesGcm(false, aesKey, iv, AdditionalData(keyIdValue), ciphertext, plain, tag)) {
            ERR_clear_error();
            error = "payload does not verify (changed value or other key id)";
            return false;
        }
        if (!ReadPlaintext(plain, out, error)) {
            out = LicenceIdentity();
            return false;
        }
        out.strKeyId = keyIdValue;
        return true;
    } catch (const std::bad_alloc&) {
        out = LicenceIdentity();
        error = "System Out Of Memory while reading the licence header";
        return false;
    }
}
