// Checks of the names that files have on a storage.
#pragma once

#include <string>
#include <string_view>

namespace quarn2 {

bool IsControl(char c) noexcept;

// True when the text has NUL or another control character.
bool HasControl(std::string_view text) noexcept;

// True when `component` stands between the slashes of the path.
bool HasComponent(std::string_view path, std::string_view component) noexcept;

// The name between apostrophes as an error text shows it: control characters escaped, an endless
// one shortened.
std::string Quoted(std::string_view name);

// Throws kro_err::Error (kFailed) unless a file or directory of a storage may have this name.
void CheckStoredName(const std::string& name);

}  // namespace quarn2
