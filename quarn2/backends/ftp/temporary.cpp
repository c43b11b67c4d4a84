#include "temporary.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string_view>

#include "kro/kro_file.h"
#include "kro/kro_new_file.h"
#include "kro/str.h"

namespace quarn2::ftp {

namespace {

// The maximum length of a file's name that is used in its temporary name unchanged. File systems
// allow 255 bytes, and the suffixes of the temporary name need the rest.
constexpr std::size_t kMaxPlainLength = 220;
constexpr std::size_t kCutLength = 200;

// Returns the FNV-1a hash of the text. The hash is the same in every build. It only distinguishes
// names and is not cryptographically secure.
std::string Hash(std::string_view text) {
    constexpr std::uint64_t kOffset = 14695981039346656037U;
    constexpr std::uint64_t kPrime = 1099511628211U;
    static constexpr std::array<char, 33> kLetters = {"abcdefghijklmnopqrstuvwxyz234567"};
    constexpr unsigned kBits = 5;
    std::uint64_t hash = kOffset;
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * kPrime;
    std::string letters;
    for (unsigned shift = 0; shift < 64; shift += kBits) letters += kLetters[hash >> shift & 31U];
    return letters;
}

// Returns a text that identifies this machine. Each network namespace counts as a separate machine.
std::string Machine() {
    std::array<char, 256> host = {};
    gethostname(host.data(), host.size() - 1);
    struct stat space = {};
    if (stat("/proc/self/ns/net", &space) != 0) space.st_ino = 0;
    return kro_file::ReadE("/etc/machine-id") + "\n" + host.data() + "\n" + str::Str(space.st_ino);
}

// Truncates a long name at the boundary of a UTF-8 character and appends the hash of the complete
// name, so that the result is unique.
std::string Shortened(const std::string& name) {
    if (name.size() <= kMaxPlainLength) return name;
    std::size_t length = kCutLength;
    constexpr unsigned kTopBits = 0xC0;
    constexpr unsigned kContinued = 0x80;
    while (length > 1 && (static_cast<unsigned char>(name[length]) & kTopBits) == kContinued) {
        --length;
    }
    return name.substr(0, length) + "." + Hash(name);
}

}  // namespace

TemporaryName::TemporaryName(const std::string& user, const std::string& path) {
    static const std::string machine = Machine();
    const auto [directory, name] = kro_file::SplitPath(path);
    stem_ = kro_file::ConcatPath(directory, Shortened(name) + "." + Hash(machine + "\n" + user));
    const std::string key = "quarn2-ftp-" + Hash(user + "\n" + path);
    for (int number = 0;; ++number) {
        const std::string suffix = number == 0 ? "" : "-" + str::Str(number);
        lock_ = TryLockName(key + suffix);
        if (!lock_) continue;
        path_ = Path(suffix);
        is_additional_ = number > 0;
        return;
    }
}

std::string TemporaryName::Path(const std::string& suffix) const {
    const auto [directory, name] = kro_file::SplitPath(stem_);
    return kro_file::ConcatPath(directory, kro_file::TemporaryName(name + suffix));
}

}  // namespace quarn2::ftp
