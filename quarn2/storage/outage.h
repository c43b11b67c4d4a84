// Detects that the storage has stopped responding during an operation on many names.
#pragma once

#include <cstddef>
#include <optional>

#include "quarn2/storage.h"

namespace quarn2 {

class Outage {
  public:
    // Counts the result of one operation. `at_once` is the number of operations that run at the
    // same time. A short network failure can make all of these operations fail, so an outage is
    // `at_once` + 2 failures in a row.
    void Count(const FileError& result, std::size_t at_once);

    // Returns true when so many operations in a row have failed that the remaining names must not
    // be attempted.
    bool is_certain() const noexcept { return rest_.has_value(); }

    // Returns the error to report for each remaining name. Empty unless is_certain().
    const FileError& ErrorOfRest() const noexcept { return rest_; }

  private:
    std::size_t in_row_ = 0;
    FileError rest_;
};

}  // namespace quarn2
