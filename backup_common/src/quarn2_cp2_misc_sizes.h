// Arithmetic with sizes in bytes.
#pragma once

#include <cstdint>

// Saturating addition and subtraction: a result out of range becomes the nearest limit. Sizes from
// info files and node clients can be any number.
std::int64_t SumOfSizes(std::int64_t a, std::int64_t b) noexcept;
std::int64_t LessSize(std::int64_t a, std::int64_t b) noexcept;
