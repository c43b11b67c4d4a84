// What the node client answers to a put command.
#pragma once

#include <cstdint>
#include <string>

struct Taken {
    std::string name;        // under which the file is stored
    std::int64_t bytes = 0;  // that it occupies there
    std::string key_hash;    // empty when the storage does not encrypt
};

// Reads "NAME SIZE" or "NAME SIZE HASH"; std::runtime_error or kro_err::Error for anything else.
Taken ParseAnswer(std::string answer);
