// The URL schemes of storage tokens: the data that the parser of tokens needs about each scheme.
// How the storage of a token is opened is not known here.
#pragma once

#include <functional>
#include <set>
#include <string>

#include "quarn2/token.h"

namespace quarn2 {

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
};

// Returns the properties of a scheme, or null for an unknown scheme. The built-in schemes are
// listed in scheme.cpp.
const TokenScheme* FindTokenScheme(const std::string& scheme);

// Adds a scheme to the built-in schemes, or replaces the scheme of the same name. Must not be
// called while other threads parse tokens.
void AddTokenScheme(TokenScheme scheme);

// Returns the names of all schemes in sorted order, separated by ", ", for error texts.
std::string KnownSchemes();

}  // namespace quarn2
