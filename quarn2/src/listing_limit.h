// Keeps a listing within the memory of this machine, whatever a server shows.
#pragma once

#include <cstddef>
#include <string>

namespace quarn2 {

// Counts what a server lists in answer to one question, over all pages.
class ListingLimit {
  public:
    // Ten times what a storage with ten thousand backups shows.
    static constexpr std::size_t kMostEntries = 1'000'000;
    static constexpr std::size_t kMostBytes = 128UL * 1024 * 1024;
    // Deeper than backups lie; servers can show directories within directories without end.
    static constexpr std::size_t kDeepest = 200;

    // `what` names the server in the error text.
    explicit ListingLimit(std::string what) : what_(std::move(what)) {}

    // One more entry of so many bytes. Throws a kro_err::Error (kFailed) when it is too many.
    void Count(std::size_t bytes);
    // Throws likewise for a directory so far below the one that was asked for.
    void CheckDepth(std::size_t depth) const;

  private:
    [[noreturn]] void Refuse() const;

    std::string what_;
    std::size_t entries_ = 0;
    std::size_t bytes_ = 0;
};

}  // namespace quarn2
