// Splits a file into the parts of a multipart upload.
#pragma once

#include <cstdint>

namespace quarn2::s3 {

struct Plan {
    std::int64_t part_size = 0;
    // Number of parts that are uploaded in parallel from memory. 0: a part is larger than the
    // memory for parts. The source is then read while it is sent, one part at a time.
    int in_memory = 0;
};

// `part_size` is the requested size. A file that would need more parts than S3 allows gets larger
// parts. Throws kFailed for a file larger than the maximum object size.
Plan PlanParts(std::int64_t size, std::int64_t part_size);

}  // namespace quarn2::s3
