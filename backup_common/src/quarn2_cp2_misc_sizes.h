// Arithmetic with sizes in bytes.
#pragma once

#include <cstdint>

// Saturating addition and subtraction. Info files and node clients can contain any size, and the
// account must not overflow.
std::int64_t SumOfSizes(std::int64_t a, std::int64_t b) noexcept;
std::int64_t LessSize(std::int64_t a, std::int64_t b) noexcept;
