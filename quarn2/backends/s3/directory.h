// Operations on directories. S3 has no directories: a directory is a common prefix of keys.
#pragma once

#include <string>
#include <vector>

#include "backends/s3/service.h"
#include "backends/s3/unfinished.h"

namespace quarn2::s3 {

// Returns the request for one page of the keys that begin with `prefix`. `next` is the continuation
// token, "" for the first page. With `only_direct` the server groups keys that contain a further
// slash into directories.
Call ListingCall(const std::string& prefix, bool only_direct, const std::string& next);

// Returns the names directly in a directory ("" is the root); for a file, that file's name. Throws
// kNotFound if neither exists.
std::vector<std::string> ListDirectory(Service& service, const std::string& name);

// Throws kNotFound if the bucket does not exist.
void CheckBucket(Service& service);

// Removes one file and aborts its unfinished uploads. Throws kFailed if there is a directory of
// that name.
void RemoveOne(Service& service, Unfinished& unfinished, const std::string& name);

// Removes every object whose key begins with `prefix`.
void RemoveBelow(Service& service, const std::string& prefix);

}  // namespace quarn2::s3
