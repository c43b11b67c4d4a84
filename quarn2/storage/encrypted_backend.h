// A wrapper that adds encryption to any backend.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Wraps a backend. The wrapper encrypts every file except ".info" files on upload and decrypts it
// on download. Get returns a stored file without an encryption header unchanged, because such a
// file was stored before the token had a password.
std::unique_ptr<StorageBackend> Encrypted(std::unique_ptr<StorageBackend> backend,
                                          std::string password);

// Returns the size in bytes that a local file of this name and size has after encryption.
std::int64_t SizeEncrypted(const std::string& name, std::int64_t size);

// The number of bytes at the beginning of a file that IsEncrypted examines.
constexpr std::size_t kEncryptedMarkSize = 8;

// Returns true when `first_bytes`, the first bytes of a file, begin with the magic bytes of
// encrypted files.
bool IsEncrypted(std::span<const std::byte> first_bytes);

}  // namespace quarn2
