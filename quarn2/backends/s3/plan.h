// How a file is cut into parts.
#pragma once

#include <cstdint>

namespace quarn2::s3 {

struct Plan {
    std::int64_t part_size = 0;
    // How many parts are on their way at once. 0: a part is larger than the memory for parts; it is
    // read from the source as it is sent, one part at a time.
    int in_memory = 0;
};

// `part_size` is the size wanted; a file that it would cut into more parts than there can be gets
// larger ones. kFailed for a file larger than an object can be.
Plan PlanParts(std::int64_t size, std::int64_t part_size);

}  // namespace quarn2::s3
