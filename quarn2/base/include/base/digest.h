// Hash functions. Code that uses them does not depend on the cryptographic library.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace quarn2 {

// Computes a hash of data that arrives in several buffers.
class Digest {
  public:
    enum class Algorithm { kSha256, kMd5 };

    explicit Digest(Algorithm algorithm);
    ~Digest();
    Digest(const Digest&) = delete;
    Digest& operator=(const Digest&) = delete;

    void Add(std::span<const std::byte> bytes);
    // Returns the raw bytes of the hash. Must be called only once, after the last Add.
    std::string Finish();

  private:
    struct Context;
    std::unique_ptr<Context> context_;
};

// Return the raw bytes of the hash.
std::string Sha256(std::string_view text);
std::string Md5(std::string_view text);
std::string HmacSha256(std::string_view key, std::string_view text);

// Returns the SHA-256 of empty input in hexadecimal digits.
const std::string& EmptySha256();

}  // namespace quarn2
