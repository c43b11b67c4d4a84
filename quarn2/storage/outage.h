// Recognises during an operation on many names that the storage does not answer any more.
#pragma once

#include <cstddef>
#include <optional>

#include "quarn2/storage.h"

namespace quarn2 {

class Outage {
  public:
    // Counts the result of one operation. `at_once` is the number of operations that run at the
    // same time. One broken line makes all of these fail, so that many failures prove nothing.
    void Count(const FileError& result, std::size_t at_once);

    // True when so many operations in a row have failed that no other one is worth an attempt.
    bool is_certain() const noexcept { return rest_.has_value(); }

    // The error of the names that are not attempted. Call it only when is_certain().
    const FileError& ErrorOfRest() const noexcept { return rest_; }

  private:
    std::size_t in_row_ = 0;
    FileError rest_;
};

}  // namespace quarn2
