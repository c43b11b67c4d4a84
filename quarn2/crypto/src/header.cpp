#include "crypto/header.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <span>
#include <tuple>
#include <utility>

#include "base/hex.h"
#include "kro/kro_err.h"

namespace quarn2 {

namespace {

using kro_err::Error;
using kro_err::Kind;

constexpr std::size_t kSaltSize = 16;
constexpr std::size_t kCostAt = 8;
constexpr std::size_t kChunkAt = 11;
constexpr std::size_t kSaltAt = 12;
constexpr std::size_t kFileAt = 28;
constexpr std::size_t kFileSize = 16;
constexpr std::size_t kCheckAt = 44;
constexpr std::size_t kCheckSize = 8;
constexpr std::size_t kCodeAt = 52;
constexpr std::size_t kCodeSize = kHeaderSize - kCodeAt;

// The scrypt parameters for new files. The derivation of a key takes 64 MiB of memory and somewhat
// more than 0.1 seconds.
constexpr KeyCost kCost = {16, 8, 1};
constexpr std::uint8_t kChunkBits = 16;

// Limits for the parameters in a stored header, so that a forged header cannot exhaust the memory
// of this machine.
constexpr std::uint8_t kMaxLog2Rounds = 17;
constexpr std::uint8_t kMaxBlock = 8;
constexpr std::uint8_t kMaxLanes = 4;
constexpr std::uint8_t kMinChunkBits = 12;
constexpr std::uint8_t kMaxChunkBits = 20;

using Salt = std::array<std::byte, kSaltSize>;

// A cache of derived keys. The derivation is slow, and a process uses the same password and salt
// thousands of times.
class KeyCache {
  public:
    Key Get(const std::string& password, const Salt& salt, KeyCost cost) {
        const std::lock_guard<std::mutex> section(mutex_);
        const Name name{password, salt, {cost.log2_rounds, cost.block, cost.lanes}};
        const auto found = keys_.find(name);
        if (found != keys_.end()) return found->second;
        return keys_.emplace(name, KeyFromPassword(password, salt, cost)).first->second;
    }

  private:
    using Name = std::tuple<std::string, Salt, std::array<std::uint8_t, 3>>;

    std::mutex mutex_;
    std::map<Name, Key> keys_;
};

KeyCache& Keys() {
    static KeyCache cache;
    return cache;
}

// Returns the salt of this process. All uploads of a process use the same salt, so that only the
// first upload derives a key.
const Salt& ProcessSalt() {
    static const Salt salt = [] {
        Salt made{};
        RandomBytes(made);
        return made;
    }();
    return salt;
}

template <std::size_t Size>
void Place(Header& header, std::size_t at, const std::array<std::byte, Size>& bytes,
           std::size_t size = Size) {
    std::copy_n(bytes.begin(), size, header.begin() + static_cast<std::ptrdiff_t>(at));
}

Key CheckOf(const Key& master) { return KeyFor(master, "password check", {}); }

// Returns the authentication code of a header. The code covers the file's name, so that an attacker
// cannot replace one encrypted file with another.
Key CodeOf(const Key& master, std::string_view name, const Header& header) {
    const Key key = KeyFor(master, "header", std::span(header).subspan(kFileAt, kFileSize));
    std::string text(reinterpret_cast<const char*>(header.data()), kCodeAt);
    text += name;
    return Authenticate(key, std::as_bytes(std::span(text)));
}

FileKeys KeysOf(const Key& master, const Header& header) {
    const Bytes file = std::span(header).subspan(kFileAt, kFileSize);
    return {KeyFor(master, "chunks", file),
            std::size_t{1} << std::to_integer<unsigned>(header[kChunkAt])};
}

KeyCost CostIn(const Header& header) {
    const auto byte = [&header](std::size_t at) {
        return std::to_integer<std::uint8_t>(header.at(at));
    };
    const KeyCost cost = {byte(kCostAt), byte(kCostAt + 1), byte(kCostAt + 2)};
    const std::uint8_t chunk = byte(kChunkAt);
    const bool sane = cost.log2_rounds >= 1 && cost.log2_rounds <= kMaxLog2Rounds &&
                      cost.block >= 1 && cost.block <= kMaxBlock && cost.lanes >= 1 &&
                      cost.lanes <= kMaxLanes && chunk >= kMinChunkBits && chunk <= kMaxChunkBits;
    if (!sane) throw Error(Kind::kFailed, "the encrypted file's header is damaged");
    return cost;
}

}  // namespace

FileKeys NewHeader(const std::string& password, std::string_view name, Header& header) {
    const Key master = Keys().Get(password, ProcessSalt(), kCost);
    const Bytes magic = std::as_bytes(std::span(kMagic));
    std::copy(magic.begin(), magic.end(), header.begin());
    header[kCostAt] = std::byte{kCost.log2_rounds};
    header[kCostAt + 1] = std::byte{kCost.block};
    header[kCostAt + 2] = std::byte{kCost.lanes};
    header[kChunkAt] = std::byte{kChunkBits};
    Place(header, kSaltAt, ProcessSalt());
    RandomBytes(std::span(header).subspan(kFileAt, kFileSize));
    Place(header, kCheckAt, CheckOf(master), kCheckSize);
    Place(header, kCodeAt, CodeOf(master, name, header), kCodeSize);
    return KeysOf(master, header);
}

FileKeys ReadHeader(const std::string& password, std::string_view name, const Header& header) {
    const KeyCost cost = CostIn(header);
    Salt salt{};
    std::copy_n(header.begin() + kSaltAt, kSaltSize, salt.begin());
    const Key master = Keys().Get(password, salt, cost);
    const Bytes all = header;
    const Key check = CheckOf(master);
    if (!SameSecret(all.subspan(kCheckAt, kCheckSize), std::span(check).first(kCheckSize))) {
        throw Error(Kind::kUnauthorized,
                    "wrong arch_password for this file, or its header is damaged");
    }
    const Key code = CodeOf(master, name, header);
    if (!SameSecret(all.subspan(kCodeAt, kCodeSize), std::span(code).first(kCodeSize))) {
        throw Error(Kind::kFailed,
                    "the encrypted file's header is damaged, or the file was stored under another "
                    "name");
    }
    return KeysOf(master, header);
}

std::string PasswordHash(const std::string& password) {
    // The salt is constant, because the hash of a password must be the same in every process.
    static constexpr std::string_view kHashSalt = "quarn2 key hash ";
    static constexpr std::size_t kHashBytes = 16;
    Salt salt{};
    const Bytes text = std::as_bytes(std::span(kHashSalt));
    std::copy_n(text.begin(), std::min(text.size(), salt.size()), salt.begin());
    const Key hash = KeyFor(Keys().Get(password, salt, kCost), "key hash", {});
    return Hex({reinterpret_cast<const char*>(hash.data()), kHashBytes});
}

std::int64_t EncryptedSize(std::int64_t plain) {
    constexpr std::int64_t kChunk = std::int64_t{1} << kChunkBits;
    const std::int64_t chunks = plain == 0 ? 1 : (plain - 1) / kChunk + 1;
    return static_cast<std::int64_t>(kHeaderSize) + plain +
           chunks * static_cast<std::int64_t>(kTagSize);
}

std::int64_t PlainSize(std::int64_t encrypted, std::size_t chunk_size) {
    constexpr auto kTag = static_cast<std::int64_t>(kTagSize);
    constexpr auto kHeader = static_cast<std::int64_t>(kHeaderSize);
    // A server reported this size, so it can be any number. This check avoids an overflow.
    if (encrypted <= kHeader) return 0;
    const std::int64_t sealed = encrypted - kHeader;
    const std::int64_t whole = static_cast<std::int64_t>(chunk_size) + kTag;
    const std::int64_t chunks = (sealed - 1) / whole + 1;
    return std::max<std::int64_t>(0, sealed - chunks * kTag);
}

}  // namespace quarn2
