// The node client's answer to a put command.
#pragma once

#include <cstdint>
#include <string>

struct Taken {
    std::string name;        // the stored name
    std::int64_t bytes = 0;  // the size on the storage
    std::string key_hash;    // empty when the storage does not encrypt
};

// Parses "NAME SIZE" or "NAME SIZE HASH". Throws std::runtime_error when the name is missing and
// kro_err::Error when the size is not a number.
Taken ParseAnswer(std::string answer);
