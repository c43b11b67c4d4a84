// Limits the memory for the directory listings of a server.
#pragma once

#include <cstddef>
#include <string>

namespace quarn2 {

// Counts the directory entries that a server lists during one operation, over all pages of the
// listing. A faulty or hostile server must not exhaust the memory.
class ListingLimit {
  public:
    // The maximum number of listed names. A storage with ten thousand backups has about a tenth of
    // this number of names.
    static constexpr std::size_t kMaxEntries = 1'000'000;
    static constexpr std::size_t kMaxBytes = 128UL * 1024 * 1024;
    // The maximum depth of nested directories. No backup is nested this deep, but a faulty server
    // could report an endless chain of directories.
    static constexpr std::size_t kMaxDepth = 200;

    // `what` is the name of the server in error texts.
    explicit ListingLimit(std::string what) : what_(std::move(what)) {}

    // Counts a directory entry whose name has `bytes` bytes. Throws kro_err::Error (kFailed) if the
    // total exceeds kMaxEntries or kMaxBytes.
    void Count(std::size_t bytes);
    // Throws kro_err::Error (kFailed) if `depth` exceeds kMaxDepth. `depth` is the number of levels
    // below the directory where the operation started.
    void CheckDepth(std::size_t depth) const;

  private:
    [[noreturn]] void ThrowTooLong() const;

    std::string what_;
    std::size_t entries_ = 0;
    std::size_t bytes_ = 0;
};

}  // namespace quarn2
