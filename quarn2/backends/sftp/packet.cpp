#include "packet.h"

#include <sys/stat.h>

#include "kro/kro_err.h"

namespace quarn2::sftp {

namespace {

// Flags in the encoded attributes of a file. Each flag means that the attribute is present.
constexpr std::uint32_t kHasSize = 0x1;
constexpr std::uint32_t kHasOwner = 0x2;
constexpr std::uint32_t kHasMode = 0x4;
constexpr std::uint32_t kHasTimes = 0x8;
constexpr std::uint32_t kHasExtended = 0x80000000;

constexpr std::size_t kLengthSize = 4;
constexpr std::size_t kHeadSize = 9;  // bytes of the length, type and id of a packet

void StoreU32(std::uint32_t value, std::byte* to) noexcept {
    for (int shift = 24; shift >= 0; shift -= 8) {
        *to++ = static_cast<std::byte>((value >> static_cast<unsigned>(shift)) & 0xffU);
    }
}

}  // namespace

bool Attributes::IsDirectory() const noexcept { return mode && S_ISDIR(*mode); }

bool Attributes::IsLink() const noexcept { return mode && S_ISLNK(*mode); }

bool Attributes::IsFile() const noexcept { return !mode || S_ISREG(*mode); }

Request::Request(Type type) : bytes_(kHeadSize) {
    bytes_[kLengthSize] = static_cast<std::byte>(type);
}

Request& Request::U32(std::uint32_t value) {
    bytes_.resize(bytes_.size() + sizeof value);
    StoreU32(value, bytes_.data() + bytes_.size() - sizeof value);
    return *this;
}

Request& Request::U64(std::uint64_t value) {
    U32(static_cast<std::uint32_t>(value >> 32U));
    return U32(static_cast<std::uint32_t>(value & 0xffffffffU));
}

Request& Request::Text(std::string_view text) {
    U32(static_cast<std::uint32_t>(text.size()));
    const auto bytes = std::as_bytes(std::span(text));
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return *this;
}

Request& Request::Mode(std::uint32_t mode) { return U32(kHasMode).U32(mode); }

std::span<const std::byte> Request::Finish(std::uint32_t id, std::size_t more) {
    StoreU32(static_cast<std::uint32_t>(bytes_.size() - kLengthSize + more), bytes_.data());
    StoreU32(id, bytes_.data() + kLengthSize + 1);
    return bytes_;
}

std::span<const std::byte> Fields::Take(std::size_t count) {
    if (count > bytes_.size()) ThrowInvalidReply("a truncated reply");
    const auto taken = bytes_.first(count);
    bytes_ = bytes_.subspan(count);
    return taken;
}

std::uint8_t Fields::U8() { return std::to_integer<std::uint8_t>(Take(1)[0]); }

std::uint32_t Fields::U32() { return LoadU32(Take(4).first<4>()); }

std::uint64_t Fields::U64() {
    const std::uint64_t high = U32();
    return (high << 32U) | U32();
}

std::span<const std::byte> Fields::Bytes() { return Take(U32()); }

std::string Fields::Text() {
    const auto bytes = Bytes();
    std::string text(bytes.size(), '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) text[i] = static_cast<char>(bytes[i]);
    return text;
}

Attributes Fields::Attrs() {
    Attributes attributes;
    const std::uint32_t flags = U32();
    if ((flags & kHasSize) != 0) attributes.size = U64();
    if ((flags & kHasOwner) != 0) Take(8);
    if ((flags & kHasMode) != 0) attributes.mode = U32();
    if ((flags & kHasTimes) != 0) {
        Take(4);
        attributes.mtime = U32();
    }
    if ((flags & kHasExtended) != 0) {
        for (std::uint32_t left = U32(); left > 0; --left) {
            Bytes();
            Bytes();
        }
    }
    return attributes;
}

std::uint32_t LoadU32(std::span<const std::byte, 4> bytes) noexcept {
    std::uint32_t value = 0;
    for (const std::byte byte : bytes) value = (value << 8U) | std::to_integer<std::uint32_t>(byte);
    return value;
}

void ThrowInvalidReply(const std::string& what) {
    throw kro_err::Error(kro_err::Kind::kFailed, "the SFTP server violated the protocol: " + what);
}

}  // namespace quarn2::sftp
