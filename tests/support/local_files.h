// Helpers for local files of tests.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace local_files {

inline void Save(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

inline std::string Load(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream content;
    content << file.rdbuf();
    return std::move(content).str();
}

inline bool Has(const std::string& path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

// Returns pseudo-random bytes, the same for the same seed. Exchanged or missing parts change the
// content, so a comparison detects them.
inline std::string Noise(std::size_t size, unsigned seed = 1) {
    std::string bytes(size, '\0');
    std::uint64_t state = seed;
    for (std::size_t done = 0; done < size; done += sizeof(state)) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        // The low bits of this sequence have a short period: mix in the high bits.
        const std::uint64_t word = state ^ (state >> 33U);
        std::memcpy(bytes.data() + done, &word, std::min(sizeof(word), size - done));
    }
    return bytes;
}

}  // namespace local_files
