// The header of an encrypted file, and the keys derived from it and the password.
//
//   offset  bytes
//   0       8      "QN2ENC1\n"
//   8       3      cost of the key derivation: log2 rounds, block, lanes
//   11      1      log2 of the plain bytes in a chunk
//   12      16     salt of the key derivation
//   28      16     random identifier of the file
//   44      8      check value of the password
//   52      12     authentication code of all of the above and of the file's name
//
// The encrypted chunks follow the header, each with its authentication tag. Every chunk except the
// last is full. The nonce of the last chunk contains a flag, so that decryption detects a
// truncated file. An empty file has one empty chunk.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "crypto/cipher.h"

namespace quarn2 {

constexpr std::size_t kHeaderSize = 64;
constexpr std::string_view kMagic = "QN2ENC1\n";

using Header = std::array<std::byte, kHeaderSize>;

// The key and the chunk size of one file.
struct FileKeys {
    Key chunks{};
    std::size_t chunk_size = 0;  // plain bytes per chunk
};

// Fills `header` for a new file and returns the keys of the file. `name` is the last component of
// the stored name.
FileKeys NewHeader(const std::string& password, std::string_view name, Header& header);

// Reads a header that begins with kMagic. Throws kUnauthorized for a wrong password, and kFailed
// for a header that is damaged or belongs to a file of another name. A damaged salt or check value
// looks like a wrong password.
FileKeys ReadHeader(const std::string& password, std::string_view name, const Header& header);

// Returns a hash that identifies a password. The hash of a password is the same in every process.
std::string PasswordHash(const std::string& password);

// Returns the stored size of a file of `plain` bytes.
std::int64_t EncryptedSize(std::int64_t plain);

// Returns the plain size of an encrypted file with chunks of `chunk_size` plain bytes. Returns 0 if
// `encrypted` is smaller than an encrypted empty file.
std::int64_t PlainSize(std::int64_t encrypted, std::size_t chunk_size);

}  // namespace quarn2
