// The URL schemes of storage tokens. This module contains the data that the token parser needs
// about each scheme. It does not open storages.
#pragma once

#include <cstddef>
#include <functional>
#include <set>
#include <string>

#include "quarn2/token.h"

namespace quarn2 {

inline constexpr std::size_t kDefaultParallel = 8;

// The properties of one URL scheme of storage tokens.
struct TokenScheme {
    std::string scheme;
    // The token parameters that this scheme accepts in addition to the parameters of every scheme.
    std::set<std::string> params;
    // The token parameters whose values are secrets and must not be logged.
    std::set<std::string> secrets;
    // Checks a token of this scheme. Returns a description of the error (no path, no host, ...), or
    // "" for a valid token. The text must not contain a secret.
    std::function<std::string(const BackupToken&)> fault;
    // The default of the parameter "parallel": the maximum number of requests that run at the same
    // time in an operation on many files.
    std::size_t default_parallel = kDefaultParallel;
};

// Returns the value of the parameter "parallel" of a valid token, or the default of its scheme.
std::size_t ParallelOf(const BackupToken& token);

// Returns the properties of a scheme, or null for an unknown scheme. The built-in schemes are
// listed in scheme.cpp.
const TokenScheme* FindTokenScheme(const std::string& scheme);

// Adds a scheme to the built-in schemes, or replaces the scheme of the same name. Must not be
// called while other threads parse tokens.
void AddTokenScheme(TokenScheme scheme);

// Returns the names of all schemes in sorted order, separated by ", ", for error texts.
std::string KnownSchemes();

}  // namespace quarn2
