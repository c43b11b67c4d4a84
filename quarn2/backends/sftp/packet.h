// The packets of SFTP version 3: requests being written, replies being read.
//
// A packet is a length of four bytes, a type, an id (but for the greeting) and the fields. Nothing
// here trusts a reply: every field is checked against what is left of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quarn2::sftp {

enum class Type : std::uint8_t {
    kInit = 1,
    kVersion = 2,
    kOpen = 3,
    kClose = 4,
    kRead = 5,
    kWrite = 6,
    kLstat = 7,
    kFstat = 8,
    kOpenDir = 11,
    kReadDir = 12,
    kRemove = 13,
    kMkDir = 14,
    kRmDir = 15,
    kStat = 17,
    kRename = 18,
    kStatus = 101,
    kHandle = 102,
    kData = 103,
    kName = 104,
    kAttrs = 105,
    kExtended = 200,
    kExtendedReply = 201,
};

enum class Code : std::uint32_t {
    kOk = 0,
    kEof = 1,
    kNoSuchFile = 2,
    kPermissionDenied = 3,
    kFailure = 4,
    kBadMessage = 5,
    kNoConnection = 6,
    kConnectionLost = 7,
    kUnsupported = 8,
    // Of later versions of the protocol; some servers send them all the same.
    kInvalidHandle = 9,
    kNoSuchPath = 10,
    kFileAlreadyExists = 11,
    kWriteProtected = 12,
    kNoMedia = 13,
    kNoSpace = 14,
    kQuotaExceeded = 15,
    kLockConflict = 17,
};

// The flags of an open request.
inline constexpr std::uint32_t kOpenRead = 0x01;
inline constexpr std::uint32_t kOpenWrite = 0x02;
inline constexpr std::uint32_t kOpenCreate = 0x08;
inline constexpr std::uint32_t kOpenTruncate = 0x10;
inline constexpr std::uint32_t kOpenExclusive = 0x20;

// What a server tells of a file; it need not tell everything.
struct Attributes {
    std::optional<std::uint64_t> size;
    std::optional<std::uint32_t> mode;
    std::optional<std::uint32_t> mtime;

    bool IsDirectory() const noexcept;
    bool IsLink() const noexcept;
    // A server that does not tell the type is believed that it is a file.
    bool IsFile() const noexcept;
};

// A request that grows field by field.
class Request {
  public:
    explicit Request(Type type);

    Request& U32(std::uint32_t value);
    Request& U64(std::uint64_t value);
    Request& Text(std::string_view text);
    // Attributes that carry a mode and nothing else.
    Request& Mode(std::uint32_t mode);

    // The whole packet with its length, and `id` behind the type. `more` bytes follow that are sent
    // by themselves.
    std::span<const std::byte> Finish(std::uint32_t id, std::size_t more = 0);

    // The greeting has a version where others have an id.
    std::span<const std::byte> FinishInit(std::uint32_t version) { return Finish(version); }

  private:
    std::vector<std::byte> bytes_;
};

// Reads the fields of a reply one after the other; throws kro_err::Error (kFailed) for a reply that
// ends too early. Views live as long as the bytes they are read from.
class Fields {
  public:
    explicit Fields(std::span<const std::byte> bytes) noexcept : bytes_(bytes) {}

    std::uint8_t U8();
    std::uint32_t U32();
    std::uint64_t U64();
    std::span<const std::byte> Bytes();
    std::string Text();
    Attributes Attrs();

    bool empty() const noexcept { return bytes_.empty(); }

  private:
    std::span<const std::byte> Take(std::size_t count);

    std::span<const std::byte> bytes_;
};

// A four-byte number of a packet's head.
std::uint32_t LoadU32(std::span<const std::byte, 4> bytes) noexcept;

// Throws kFailed: what the server sends is no SFTP.
[[noreturn]] void BadReply(const std::string& what);

}  // namespace quarn2::sftp
