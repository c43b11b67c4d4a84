// Checks for the names of files and directories on a storage.
#pragma once

#include <string>
#include <string_view>

namespace quarn2 {

bool IsControl(char c) noexcept;

// Returns true when the text contains NUL or another control character.
bool HasControl(std::string_view text) noexcept;

// Returns true when `path` contains the component `component`.
bool HasComponent(std::string_view path, std::string_view component) noexcept;

// Returns the name in apostrophes for an error text. Escapes control characters and truncates a
// very long name.
std::string Quoted(std::string_view name);

// Throws kro_err::Error (kFailed) when the name is not allowed for a file or directory on a
// storage.
void CheckStoredName(const std::string& name);

// Throws kro_err::Error (kFailed) for a name that is not allowed on a storage. `reason` is the end
// of the error text.
[[noreturn]] void ThrowInvalidStoredName(std::string_view name, std::string_view reason);

}  // namespace quarn2
