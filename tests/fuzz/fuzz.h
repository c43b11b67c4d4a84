// Helpers of the fuzz targets. A target is a program that libFuzzer calls with one input after
// another. The first lines of each target describe what it checks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

namespace fuzz {

// Aborts with the text of the promise if the target has not kept it. A promise must hold for every
// input.
inline void Require(bool kept, const char* promise) {
    if (kept) return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

// Returns false if the call throws a std::exception, that is, refuses its input. Other exceptions
// end the target as a finding.
template <class Call>
bool Accepts(const Call& call) {
    try {
        call();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// Parses an input from its beginning, so that a corpus can be written by hand.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size)
        : rest_(reinterpret_cast<const char*>(data), size) {}

    bool empty() const noexcept { return rest_.empty(); }

    // Consumes the next byte; returns 0 at the end.
    unsigned Byte() {
        if (rest_.empty()) return 0;
        const auto byte = static_cast<unsigned char>(rest_.front());
        rest_.remove_prefix(1);
        return byte;
    }

    // Consumes two bytes as a big-endian number.
    std::size_t Number() {
        constexpr std::size_t kByte = 256;
        const std::size_t high = Byte();
        return high * kByte + Byte();
    }

    // Consumes the input up to and including the next occurrence of `mark`, or all of it. Returns
    // the text before the mark.
    std::string Until(std::string_view mark) {
        const std::size_t end = rest_.find(mark);
        const std::string piece(rest_.substr(0, end));
        rest_.remove_prefix(end == rest_.npos ? rest_.size() : end + mark.size());
        return piece;
    }
    std::string Line() { return Until("\n"); }

    std::string Take(std::size_t most) {
        const std::string piece(rest_.substr(0, most));
        rest_.remove_prefix(piece.size());
        return piece;
    }
    std::string Rest() { return Take(rest_.size()); }

  private:
    std::string_view rest_;
};

// Passes a text to `take` in pieces. The bytes of the text determine the lengths of the pieces.
template <class Take>
void InPieces(std::string_view text, const Take& take) {
    while (!text.empty()) {
        constexpr unsigned kMaxPiece = 13;
        const std::size_t size = 1 + static_cast<unsigned char>(text.front()) % kMaxPiece;
        take(text.substr(0, size));
        text.remove_prefix(std::min(size, text.size()));
    }
}

// The folder that a target works in. The first call creates it and changes to it; scripts/fuzz
// removes it.
inline const std::string& WorkFolder() {
    static const std::string folder = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "fuzz_XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no folder to work in");
        std::filesystem::current_path(pattern);
        return pattern;
    }();
    return folder;
}

}  // namespace fuzz
