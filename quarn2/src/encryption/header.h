// The head of an encrypted file, and the keys that come from it and the password.
//
//   offset  bytes
//   0       8      "QN2ENC1\n"
//   8       3      cost of the key derivation: log2 rounds, block, lanes
//   11      1      log2 of the plain bytes in a chunk
//   12      16     salt of the key derivation
//   28      16     the file's own number, random
//   44      8      check of the password
//   52      12     authentication code of all of the above and of the file's name
//
// Chunks follow: plain bytes sealed, each with its tag; every chunk but the last is full, the last
// one carries a mark, and an empty file has one empty chunk.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "encryption/cipher.h"

namespace quarn2 {

constexpr std::size_t kHeaderSize = 64;
constexpr std::string_view kMagic = "QN2ENC1\n";

using Header = std::array<std::byte, kHeaderSize>;

// What it takes to seal or open one file's chunks.
struct FileKeys {
    Key chunks{};
    std::size_t chunk_size = 0;  // of plain bytes
};

// A new file's header, for the last component of its stored name.
FileKeys NewHeader(const std::string& password, std::string_view name, Header& header);

// Reads a header. kUnauthorized for a wrong password, kFailed for a damaged header or one that
// belongs to another name.
FileKeys ReadHeader(const std::string& password, std::string_view name, const Header& header);

// What tells one password's backups from another's.
std::string PasswordHash(const std::string& password);

// The size on the storage of a file of so many bytes.
std::int64_t EncryptedSize(std::int64_t plain);

// The other way round, for a file with chunks of so many plain bytes; 0 for a size that no
// encrypted file has.
std::int64_t PlainSize(std::int64_t encrypted, std::size_t chunk_size);

}  // namespace quarn2
