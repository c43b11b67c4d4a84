// Encodes requests and parses replies of SFTP version 3.
//
// A packet consists of a length of four bytes, a type, an id (except in the greeting) and the
// fields. Replies are not trusted: the length of every field is checked against the rest of the
// packet.
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
    // Status codes of later protocol versions. Some servers also send them in version 3.
    kInvalidHandle = 9,
    kNoSuchPath = 10,
    kFileAlreadyExists = 11,
    kWriteProtected = 12,
    kNoMedia = 13,
    kNoSpace = 14,
    kQuotaExceeded = 15,
    kLockConflict = 17,
};

// The flags of a request to open a file.
inline constexpr std::uint32_t kOpenRead = 0x01;
inline constexpr std::uint32_t kOpenWrite = 0x02;
inline constexpr std::uint32_t kOpenCreate = 0x08;
inline constexpr std::uint32_t kOpenTruncate = 0x10;
inline constexpr std::uint32_t kOpenExclusive = 0x20;

// The attributes of a file that a server has sent. The server may omit any of them.
struct Attributes {
    std::optional<std::uint64_t> size;
    std::optional<std::uint32_t> mode;
    std::optional<std::uint32_t> mtime;

    bool IsDirectory() const noexcept;
    bool IsLink() const noexcept;
    // Returns true for a plain file, and also if the server has omitted the type.
    bool IsFile() const noexcept;
};

// Builds a request field by field.
class Request {
  public:
    explicit Request(Type type);

    Request& U32(std::uint32_t value);
    Request& U64(std::uint64_t value);
    Request& Text(std::string_view text);
    // Appends file attributes that contain only the mode.
    Request& Mode(std::uint32_t mode);

    // Writes the length and the `id` into the request and returns the packet. The length includes
    // `more` bytes of data, which are sent separately after the packet.
    std::span<const std::byte> Finish(std::uint32_t id, std::size_t more = 0);

    // Like Finish(), for the greeting, which contains the protocol version in place of an id.
    std::span<const std::byte> FinishInit(std::uint32_t version) { return Finish(version); }

  private:
    std::vector<std::byte> bytes_;
};

// Parses the fields of a reply in order. Throws kro_err::Error (kFailed) if the reply ends too
// early. The views that it returns are valid as long as the bytes passed to the constructor.
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

// Decodes a big-endian number of four bytes.
std::uint32_t LoadU32(std::span<const std::byte, 4> bytes) noexcept;

// Throws kFailed after a reply that violates the protocol. `what` describes the reply.
[[noreturn]] void ThrowInvalidReply(const std::string& what);

}  // namespace quarn2::sftp
