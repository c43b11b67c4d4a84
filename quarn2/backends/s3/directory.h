// Directories, which S3 knows only as beginnings of keys.
#pragma once

#include <string>
#include <vector>

#include "backends/s3/service.h"
#include "backends/s3/unfinished.h"

namespace quarn2::s3 {

// One page of the keys that begin with `prefix`, from `next` on ("" from the start). With
// `only_direct` those with a further slash are put together to directories.
Call ListingCall(const std::string& prefix, bool only_direct, const std::string& next);

// What lies directly in a directory ("" is the root); for a file its name. kNotFound when there is
// neither.
std::vector<std::string> ListDirectory(Service& service, const std::string& name);

// kNotFound for a missing bucket.
void CheckBucket(Service& service);

// Removes one file and its leftovers; a directory is kFailed.
void RemoveOne(Service& service, Unfinished& unfinished, const std::string& name);

// Removes all whose key begins with `prefix`.
void RemoveBelow(Service& service, const std::string& prefix);

}  // namespace quarn2::s3
