#include "crypto/cipher.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "kro/kro_err.h"

namespace quarn2 {

namespace {

constexpr std::size_t kNonceSize = 12;

void Check(bool good, const char* what) {
    if (good) return;
    throw kro_err::Error(kro_err::Kind::kFailed,
                         std::string("cryptographic operation failed: ") + what);
}

const unsigned char* In(Bytes bytes) {
    return reinterpret_cast<const unsigned char*>(bytes.data());
}
unsigned char* Out(std::span<std::byte> bytes) {
    return reinterpret_cast<unsigned char*>(bytes.data());
}

int Length(std::size_t size) {
    Check(size <= static_cast<std::size_t>(std::numeric_limits<int>::max()), "too many bytes");
    return static_cast<int>(size);
}

// The nonce contains the number of the chunk and a flag for the last chunk. Decryption therefore
// fails if a chunk was moved or the file was truncated.
std::array<unsigned char, kNonceSize> Nonce(std::uint64_t number, bool last) {
    constexpr unsigned kByteBits = 8;
    std::array<unsigned char, kNonceSize> nonce{};
    nonce[0] = last ? 1 : 0;
    for (std::size_t i = 0; i < sizeof number; ++i) {
        nonce[kNonceSize - 1 - i] = static_cast<unsigned char>(number >> (i * kByteBits));
    }
    return nonce;
}

struct KdfDeleter {
    void operator()(EVP_KDF* kdf) const { EVP_KDF_free(kdf); }
    void operator()(EVP_KDF_CTX* context) const { EVP_KDF_CTX_free(context); }
};

OSSL_PARAM Octets(const char* name, Bytes bytes) {
    return OSSL_PARAM_construct_octet_string(name, const_cast<std::byte*>(bytes.data()),
                                             bytes.size());
}

}  // namespace

Key KeyFromPassword(std::string_view password, Bytes salt, KeyCost cost) {
    constexpr std::uint64_t kMemoryLimit = 1ULL << 30U;
    Key key{};
    const int done = EVP_PBE_scrypt(password.data(), password.size(), In(salt), salt.size(),
                                    1ULL << cost.log2_rounds, cost.block, cost.lanes, kMemoryLimit,
                                    Out(key), key.size());
    Check(done == 1, "key derivation");
    return key;
}

Key KeyFor(const Key& key, std::string_view purpose, Bytes context) {
    const std::unique_ptr<EVP_KDF, KdfDeleter> kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr));
    Check(kdf != nullptr, "HKDF");
    const std::unique_ptr<EVP_KDF_CTX, KdfDeleter> state(EVP_KDF_CTX_new(kdf.get()));
    Check(state != nullptr, "HKDF");
    std::string digest = "SHA256";
    std::vector<OSSL_PARAM> params = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest.data(), 0),
        Octets(OSSL_KDF_PARAM_KEY, key),
        Octets(OSSL_KDF_PARAM_INFO, std::as_bytes(std::span(purpose)))};
    if (!context.empty()) params.push_back(Octets(OSSL_KDF_PARAM_SALT, context));
    params.push_back(OSSL_PARAM_construct_end());
    Key derived{};
    Check(EVP_KDF_derive(state.get(), Out(derived), derived.size(), params.data()) == 1, "HKDF");
    return derived;
}

Key Authenticate(const Key& key, Bytes bytes) {
    Key code{};
    unsigned size = 0;
    const unsigned char* const done = HMAC(EVP_sha256(), key.data(), Length(key.size()), In(bytes),
                                           bytes.size(), Out(code), &size);
    Check(done != nullptr && size == code.size(), "HMAC");
    return code;
}

bool SameSecret(Bytes a, Bytes b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

void RandomBytes(std::span<std::byte> bytes) {
    Check(RAND_bytes(Out(bytes), Length(bytes.size())) == 1, "random bytes");
}

struct ChunkCipher::Context {
    Context() : state(EVP_CIPHER_CTX_new()) { Check(state != nullptr, "cipher"); }
    ~Context() { EVP_CIPHER_CTX_free(state); }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    EVP_CIPHER_CTX* state;
};

ChunkCipher::ChunkCipher(const Key& key, Use use) : context_(std::make_unique<Context>()) {
    const auto init = use == Use::kSeal ? EVP_EncryptInit_ex : EVP_DecryptInit_ex;
    Check(init(context_->state, EVP_aes_256_gcm(), nullptr, In(key), nullptr) == 1, "cipher key");
}

ChunkCipher::~ChunkCipher() = default;

void ChunkCipher::Seal(std::uint64_t number, bool last, Bytes plain, std::span<std::byte> sealed) {
    Check(sealed.size() >= plain.size() + kTagSize,
          "the buffer is too small for an encrypted chunk");
    EVP_CIPHER_CTX* const state = context_->state;
    const auto nonce = Nonce(number, last);
    int written = 0;
    Check(
        EVP_EncryptInit_ex(state, nullptr, nullptr, nullptr, nonce.data()) == 1 &&
            EVP_EncryptUpdate(state, Out(sealed), &written, In(plain), Length(plain.size())) == 1 &&
            EVP_EncryptFinal_ex(state, Out(sealed) + written, &written) == 1 &&
            EVP_CIPHER_CTX_ctrl(state, EVP_CTRL_GCM_GET_TAG, Length(kTagSize),
                                Out(sealed) + plain.size()) == 1,
        "encrypting a chunk");
}

bool ChunkCipher::Open(std::uint64_t number, bool last, Bytes sealed, std::span<std::byte> plain) {
    if (sealed.size() < kTagSize) return false;
    EVP_CIPHER_CTX* const state = context_->state;
    const std::size_t size = sealed.size() - kTagSize;
    Check(plain.size() >= size, "the buffer is too small for a decrypted chunk");
    const auto nonce = Nonce(number, last);
    std::array<unsigned char, kTagSize> tag{};
    std::copy_n(In(sealed) + size, kTagSize, tag.begin());
    int written = 0;
    Check(EVP_DecryptInit_ex(state, nullptr, nullptr, nullptr, nonce.data()) == 1 &&
              EVP_CIPHER_CTX_ctrl(state, EVP_CTRL_GCM_SET_TAG, Length(kTagSize), tag.data()) == 1 &&
              EVP_DecryptUpdate(state, Out(plain), &written, In(sealed), Length(size)) == 1,
          "decrypting a chunk");
    return EVP_DecryptFinal_ex(state, Out(plain) + written, &written) == 1;
}

}  // namespace quarn2
