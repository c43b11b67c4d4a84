#include "base/stored_name.h"

#include <limits.h>

#include <algorithm>

#include "base/hex.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_new_file.h"

namespace quarn2 {

namespace {

constexpr std::size_t kQuotedLimit = 300;

void CheckComponent(std::string_view name, std::string_view component) {
    if (component.empty()) ThrowInvalidStoredName(name, "it has an empty component");
    if (component == "." || component == "..")
        ThrowInvalidStoredName(name, "it has a '.' or '..' component");
    // Refuse a file with a temporary name: listings would omit the file, and a later cleanup would
    // remove it.
    if (kro_file::IsTemporaryName(component))
        ThrowInvalidStoredName(name, "it has the reserved form of a temporary name");
    // The upload first writes a file with a temporary name, which is longer than the final name and
    // must not exceed NAME_MAX either.
    if (kro_file::TemporaryName(component).size() > NAME_MAX)
        ThrowInvalidStoredName(name, "it is too long");
}

}  // namespace

bool IsControl(char c) noexcept {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

bool HasComponent(std::string_view path, std::string_view component) noexcept {
    while (!path.empty()) {
        const std::string_view first = path.substr(0, path.find('/'));
        if (first == component) return true;
        path.remove_prefix(std::min(first.size() + 1, path.size()));
    }
    return false;
}

bool HasControl(std::string_view text) noexcept {
    return std::any_of(text.begin(), text.end(), IsControl);
}

std::string Quoted(std::string_view name) {
    std::string text = "'";
    for (const char& c : name.substr(0, kQuotedLimit)) {
        if (IsControl(c)) {
            text += "\\x" + Hex({&c, 1});
        } else {
            text += c;
        }
    }
    if (name.size() > kQuotedLimit) text += "...";
    return text + "'";
}

void ThrowInvalidStoredName(std::string_view name, std::string_view reason) {
    throw kro_err::Error(
        kro_err::Kind::kFailed,
        "name " + Quoted(name) + " is not allowed on a storage: " + std::string(reason));
}

void CheckStoredName(const std::string& name) {
    if (name.empty()) ThrowInvalidStoredName(name, "it is empty");
    if (HasControl(name)) ThrowInvalidStoredName(name, "it contains a control character");
    std::string_view rest = name;
    for (;;) {
        const std::size_t slash = rest.find('/');
        CheckComponent(name, rest.substr(0, slash));
        if (slash == std::string_view::npos) return;
        rest.remove_prefix(slash + 1);
    }
}

}  // namespace quarn2
