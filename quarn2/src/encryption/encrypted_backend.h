// Encryption around any backend.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Every file but ".info" files is encrypted on its way to `backend` and decrypted on its way back.
// A stored file without the header of encryption is handed out as it is: it was stored before there
// was a password.
std::unique_ptr<StorageBackend> Encrypted(std::unique_ptr<StorageBackend> backend,
                                          std::string password);

// The bytes that a local file of this name and size occupies behind it.
std::int64_t SizeEncrypted(const std::string& name, std::int64_t size);

// The number of first bytes that IsEncrypted needs.
constexpr std::size_t kEncryptedMarkSize = 8;

// True when a file with these first bytes is an encrypted one.
bool IsEncrypted(std::span<const std::byte> first_bytes);

}  // namespace quarn2
