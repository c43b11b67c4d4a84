// Limits the memory that the listing of a server can take.
#pragma once

#include <cstddef>
#include <string>

namespace quarn2 {

// Counts the entries that a server lists during one operation, over all pages.
class ListingLimit {
  public:
    // Ten times the number of names on a storage with ten thousand backups.
    static constexpr std::size_t kMaxEntries = 1'000'000;
    static constexpr std::size_t kMaxBytes = 128UL * 1024 * 1024;
    // No backup is nested this deep, but a server could report nested directories without end.
    static constexpr std::size_t kMaxDepth = 200;

    // `what` names the server in the error text.
    explicit ListingLimit(std::string what) : what_(std::move(what)) {}

    // Counts one more entry with a name of `bytes` bytes. Throws kro_err::Error (kFailed) above the
    // limits.
    void Count(std::size_t bytes);
    // Throws kro_err::Error (kFailed) for a directory more than kMaxDepth levels below the one
    // where the operation started.
    void CheckDepth(std::size_t depth) const;

  private:
    [[noreturn]] void ThrowTooLong() const;

    std::string what_;
    std::size_t entries_ = 0;
    std::size_t bytes_ = 0;
};

}  // namespace quarn2
