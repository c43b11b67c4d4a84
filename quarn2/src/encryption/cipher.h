// The cryptographic operations of the encryption. Callers do not depend on the cryptographic
// library.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace quarn2 {

constexpr std::size_t kKeySize = 32;
constexpr std::size_t kTagSize = 16;

using Bytes = std::span<const std::byte>;
using Key = std::array<std::byte, kKeySize>;

// The cost of deriving a key from a password (scrypt). It needs 128 * block * 2^log2_rounds bytes
// of memory.
struct KeyCost {
    std::uint8_t log2_rounds = 0;
    std::uint8_t block = 0;
    std::uint8_t lanes = 0;
};

// Derives a key from a password. It is slow and memory-hard on purpose, against guessing.
Key KeyFromPassword(std::string_view password, Bytes salt, KeyCost cost);

// Derives a separate key for one purpose. A derived key reveals nothing about `key` or about the
// keys for other purposes.
Key KeyFor(const Key& key, std::string_view purpose, Bytes context);

// Returns the authentication code of the bytes (HMAC-SHA-256).
Key Authenticate(const Key& key, Bytes bytes);

// Returns true when both are equal, after a time that does not depend on the content.
bool SameSecret(Bytes a, Bytes b);

void RandomBytes(std::span<std::byte> bytes);

// Seals and opens the numbered chunks of one file under one key (AES-256-GCM). Different bytes must
// never be sealed under the same number, because the nonce would repeat.
class ChunkCipher {
  public:
    enum class Use { kSeal, kOpen };
    ChunkCipher(const Key& key, Use use);
    ~ChunkCipher();
    ChunkCipher(const ChunkCipher&) = delete;
    ChunkCipher& operator=(const ChunkCipher&) = delete;

    // Writes the encrypted bytes and the tag to `sealed`, which must have room for both.
    void Seal(std::uint64_t number, bool last, Bytes plain, std::span<std::byte> sealed);

    // Returns false when the chunk was not sealed with this key, number and `last`, or was changed.
    bool Open(std::uint64_t number, bool last, Bytes sealed, std::span<std::byte> plain);

  private:
    struct Context;
    std::unique_ptr<Context> context_;
};

}  // namespace quarn2
