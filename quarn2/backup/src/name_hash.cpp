#include "quarn2/name_hash.h"

#include "base/digest.h"
#include "base/hex.h"

namespace quarn2 {

std::string HashName(std::string_view key, std::string_view name) {
    constexpr std::size_t kDigits = 16;
    return Hex(HmacSha256(key, name)).substr(0, kDigits);
}

}  // namespace quarn2
