// The cryptography that encryption is made of: one place that knows the library.
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

// The cost of making a key from a password (scrypt): memory is 128 * block * 2^log2_rounds bytes.
struct KeyCost {
    std::uint8_t log2_rounds = 0;
    std::uint8_t block = 0;
    std::uint8_t lanes = 0;
};

// Slow and memory-hard on purpose.
Key KeyFromPassword(std::string_view password, Bytes salt, KeyCost cost);

// A key of its own for one purpose; knowing it tells nothing about `key` or other purposes.
Key KeyFor(const Key& key, std::string_view purpose, Bytes context);

// The authentication code of some bytes.
Key Authenticate(const Key& key, Bytes bytes);

// True when both are equal; takes the same time whatever differs.
bool SameSecret(Bytes a, Bytes b);

void RandomBytes(std::span<std::byte> bytes);

// Seals and opens the numbered chunks of one file under one key (AES-256-GCM). A number must not be
// used twice for sealing.
class ChunkCipher {
  public:
    enum class Use { kSeal, kOpen };
    ChunkCipher(const Key& key, Use use);
    ~ChunkCipher();
    ChunkCipher(const ChunkCipher&) = delete;
    ChunkCipher& operator=(const ChunkCipher&) = delete;

    // `sealed` has room for the plain bytes and the tag.
    void Seal(std::uint64_t number, bool last, Bytes plain, std::span<std::byte> sealed);

    // False when the chunk is not what was sealed under this key, number and mark.
    bool Open(std::uint64_t number, bool last, Bytes sealed, std::span<std::byte> plain);

  private:
    struct Context;
    std::unique_ptr<Context> context_;
};

}  // namespace quarn2
