#include "base/listing_limit.h"

#include "kro/kro_err.h"
#include "kro/str.h"

namespace quarn2 {

void ListingLimit::Count(std::size_t bytes) {
    ++entries_;
    bytes_ += bytes;
    if (entries_ > kMaxEntries || bytes_ > kMaxBytes) ThrowTooLong();
}

void ListingLimit::CheckDepth(std::size_t depth) const {
    if (depth <= kMaxDepth) return;
    throw kro_err::Error(kro_err::Kind::kFailed,
                         what_ + ": more than " + str::Str(kMaxDepth) + " levels of directories");
}

void ListingLimit::ThrowTooLong() const {
    throw kro_err::Error(kro_err::Kind::kFailed, what_ + ": the listing is too long: more than " +
                                                     str::Str(kMaxEntries) + " names or " +
                                                     str::Str(kMaxBytes >> 20U) + " MiB");
}

}  // namespace quarn2
