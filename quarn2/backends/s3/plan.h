// Determines the part size of a multipart upload.
#pragma once

#include <cstdint>

namespace quarn2::s3 {

struct Plan {
    std::int64_t part_size = 0;
    // Number of parts that are uploaded in parallel from memory. 0: a part is larger than kMaxPart,
    // so each part is read from the source while it is sent, one part at a time.
    int in_memory = 0;
};

// Plans the upload of a file of `size` bytes. `part_size` is the requested part size; the plan uses
// larger parts if the file would otherwise need more parts than S3 allows. Throws kFailed if the
// file is larger than the maximum object size of S3.
Plan PlanParts(std::int64_t size, std::int64_t part_size);

}  // namespace quarn2::s3
