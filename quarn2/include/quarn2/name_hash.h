// Replaces names by hashes.
#pragma once

#include <string>
#include <string_view>

namespace quarn2 {

// Returns 16 hexadecimal digits that depend only on `key` and `name`. Without the key, an attacker
// cannot recover the name by hashing likely names.
std::string HashName(std::string_view key, std::string_view name);

}  // namespace quarn2
