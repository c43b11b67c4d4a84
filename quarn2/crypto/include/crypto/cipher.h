// The cryptographic operations that the encryption uses. Code that uses them does not depend on the
// cryptographic library.
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

// The parameters of scrypt, which derives a key from a password. The derivation needs 128 * block *
// 2^log2_rounds bytes of memory.
struct KeyCost {
    std::uint8_t log2_rounds = 0;
    std::uint8_t block = 0;
    std::uint8_t lanes = 0;
};

// Derives a key from a password with scrypt, which is slow and needs much memory on purpose, so
// that guessing passwords is expensive.
Key KeyFromPassword(std::string_view password, Bytes salt, KeyCost cost);

// Derives a separate key for `purpose` from `key`. A derived key reveals nothing about `key` or
// about the keys for other purposes.
Key KeyFor(const Key& key, std::string_view purpose, Bytes context);

// Returns the HMAC-SHA-256 of the bytes under `key`.
Key Authenticate(const Key& key, Bytes bytes);

// Returns true when both byte strings are equal. The duration does not depend on their content.
bool SameSecret(Bytes a, Bytes b);

void RandomBytes(std::span<std::byte> bytes);

// Encrypts and decrypts the numbered chunks of one file with one key (AES-256-GCM). Seal must never
// be called with different bytes for the same chunk number, because that would reuse a nonce.
class ChunkCipher {
  public:
    enum class Use { kSeal, kOpen };
    ChunkCipher(const Key& key, Use use);
    ~ChunkCipher();
    ChunkCipher(const ChunkCipher&) = delete;
    ChunkCipher& operator=(const ChunkCipher&) = delete;

    // Encrypts a chunk. Writes the encrypted bytes and the authentication tag to `sealed`, which
    // must have space for both.
    void Seal(std::uint64_t number, bool last, Bytes plain, std::span<std::byte> sealed);

    // Decrypts a chunk. Returns false when the chunk was changed, or was encrypted with another
    // key, `number` or `last`.
    bool Open(std::uint64_t number, bool last, Bytes sealed, std::span<std::byte> plain);

  private:
    struct Context;
    std::unique_ptr<Context> context_;
};

}  // namespace quarn2
