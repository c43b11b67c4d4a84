// Operations on directories. S3 has no directories: a directory is a common prefix of keys.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "quarn2/listed_entry.h"
#include "service.h"
#include "unfinished.h"

namespace quarn2::s3 {

// Returns the request for one page of the keys that begin with `prefix`. `next` is the continuation
// token of the page, or "" for the first page. With `only_direct` the server groups the keys that
// contain another slash after the prefix into directories.
Call ListingCall(const std::string& prefix, bool only_direct, const std::string& next);

// Returns the files and directories directly in a directory ("" is the root). If `name` is a file,
// returns only this name, without its size. Throws kNotFound if `name` is neither a directory nor a
// file.
std::vector<ListedEntry> ListDirectory(Service& service, const std::string& name);

// Returns the complete names of all files. Returns nothing if their listing has more than
// `max_pages` pages.
std::optional<std::vector<ListedEntry>> ListAll(Service& service, std::size_t max_pages);

// Returns the common prefixes, each with a trailing slash, that begin with `prefix` and have no
// other slash after it. Returns nullopt if the listing has more than `max_pages` pages.
std::optional<std::set<std::string>> DirectoriesOf(Service& service, const std::string& prefix,
                                                   std::size_t max_pages);

// Throws kNotFound if the bucket does not exist.
void CheckBucket(Service& service);

// Removes one file and aborts its unfinished uploads. Throws kFailed if a directory of that name
// exists.
void RemoveOne(Service& service, Unfinished& unfinished, const std::string& name);

// Removes every object whose key begins with `prefix`. At most `at_once` requests run at the same
// time. `is_supported` is set to false when the server does not support requests that remove
// several objects; each object is then removed by a separate request.
void RemoveBelow(Service& service, const std::string& prefix, std::size_t at_once,
                 bool& is_supported);

}  // namespace quarn2::s3
