// Hashes, in the one place that knows the library for them.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace quarn2 {

// A hash over bytes that come piece by piece.
class Digest {
  public:
    enum class Algorithm { kSha256, kMd5 };

    explicit Digest(Algorithm algorithm);
    ~Digest();
    Digest(const Digest&) = delete;
    Digest& operator=(const Digest&) = delete;

    void Add(std::span<const std::byte> bytes);
    // The raw bytes of the hash; once, after the last piece.
    std::string Finish();

  private:
    struct Context;
    std::unique_ptr<Context> context_;
};

// Raw bytes, too.
std::string Sha256(std::string_view text);
std::string Md5(std::string_view text);
std::string HmacSha256(std::string_view key, std::string_view text);

// In small letters.
std::string Hex(std::string_view bytes);
// Nothing when the text is no pairs of hexadecimal digits.
std::optional<std::string> FromHex(std::string_view text);

// The SHA-256 of no bytes, in hexadecimal digits.
const std::string& EmptySha256();

}  // namespace quarn2
