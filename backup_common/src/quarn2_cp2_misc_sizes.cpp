#include "quarn2_cp2_misc_sizes.h"

#include <limits>

std::int64_t SumOfSizes(std::int64_t a, std::int64_t b) noexcept {
    std::int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum)) return sum;
    using Limits = std::numeric_limits<std::int64_t>;
    return b > 0 ? Limits::max() : Limits::min();
}

std::int64_t LessSize(std::int64_t a, std::int64_t b) noexcept {
    std::int64_t rest = 0;
    if (!__builtin_sub_overflow(a, b, &rest)) return rest;
    using Limits = std::numeric_limits<std::int64_t>;
    return b < 0 ? Limits::max() : Limits::min();
}
