#include "plan.h"

#include <algorithm>

#include "address.h"
#include "kro/kro_err.h"

namespace quarn2::s3 {

namespace {

constexpr std::int64_t kMaxParts = 10000;
constexpr std::int64_t kMaxObjectSize = 5 * kMiB * kMiB;
// The memory for parallel parts in bytes. It is three quarters of kMaxPart; only a single large
// part may use more.
constexpr std::int64_t kMemory = 48 * kMiB;
constexpr std::int64_t kMaxAtOnce = 6;

std::int64_t DividedUp(std::int64_t number, std::int64_t by) { return (number + by - 1) / by; }

}  // namespace

Plan PlanParts(std::int64_t size, std::int64_t part_size) {
    if (size > kMaxObjectSize) {
        throw kro_err::Error(kro_err::Kind::kFailed,
                             "the file is larger than 5 TiB, the maximum size of an S3 object");
    }
    Plan plan;
    const std::int64_t needed = DividedUp(DividedUp(size, kMaxParts), kMiB) * kMiB;
    plan.part_size = std::max(part_size, needed);
    if (plan.part_size > kMaxPart) return plan;
    plan.in_memory =
        static_cast<int>(std::clamp<std::int64_t>(kMemory / plan.part_size, 1, kMaxAtOnce));
    return plan;
}

}  // namespace quarn2::s3
