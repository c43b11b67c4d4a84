// Short ways to a test's local files.
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace local_files {

inline void Save(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

inline std::string Load(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline bool Has(const std::string& path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

// Bytes without a pattern that a copy could get right by chance.
inline std::string Noise(std::size_t size, unsigned seed = 1) {
    std::string bytes(size, '\0');
    unsigned state = seed;
    for (char& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24U);
    }
    return bytes;
}

}  // namespace local_files
