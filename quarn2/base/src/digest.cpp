#include "base/digest.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>
#include <limits>

#include "base/hex.h"
#include "kro/kro_err.h"

namespace quarn2 {

namespace {

void Check(bool good) {
    if (good) return;
    throw kro_err::Error(kro_err::Kind::kFailed, "the cryptographic library cannot compute a hash");
}

std::string HashOf(Digest::Algorithm algorithm, std::string_view text) {
    Digest digest(algorithm);
    digest.Add(std::as_bytes(std::span(text)));
    return digest.Finish();
}

}  // namespace

struct Digest::Context {
    EVP_MD_CTX* state = EVP_MD_CTX_new();

    Context() = default;
    ~Context() { EVP_MD_CTX_free(state); }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
};

Digest::Digest(Algorithm algorithm) : context_(std::make_unique<Context>()) {
    const EVP_MD* const kind = algorithm == Algorithm::kSha256 ? EVP_sha256() : EVP_md5();
    Check(context_->state != nullptr && EVP_DigestInit_ex(context_->state, kind, nullptr) == 1);
}

Digest::~Digest() = default;

void Digest::Add(std::span<const std::byte> bytes) {
    Check(EVP_DigestUpdate(context_->state, bytes.data(), bytes.size()) == 1);
}

std::string Digest::Finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
    unsigned size = 0;
    Check(EVP_DigestFinal_ex(context_->state, hash.data(), &size) == 1);
    return {reinterpret_cast<const char*>(hash.data()), size};
}

std::string Sha256(std::string_view text) { return HashOf(Digest::Algorithm::kSha256, text); }

std::string Md5(std::string_view text) { return HashOf(Digest::Algorithm::kMd5, text); }

std::string HmacSha256(std::string_view key, std::string_view text) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> code{};
    unsigned size = 0;
    Check(key.size() <= static_cast<std::size_t>(std::numeric_limits<int>::max()));
    Check(HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
               reinterpret_cast<const unsigned char*>(text.data()), text.size(), code.data(),
               &size) != nullptr);
    return {reinterpret_cast<const char*>(code.data()), size};
}

const std::string& EmptySha256() {
    static const std::string hash = Hex(Sha256({}));
    return hash;
}

}  // namespace quarn2
