// Arithmetic with sizes in bytes.
#pragma once

#include <cstdint>

// Sums that stay at the ends of the range: info files and links say what they like, and an account
// must not wrap round.
std::int64_t SumOfSizes(std::int64_t a, std::int64_t b) noexcept;
std::int64_t LessSize(std::int64_t a, std::int64_t b) noexcept;
