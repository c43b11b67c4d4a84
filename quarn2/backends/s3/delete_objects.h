// Requests that remove objects.
#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "service.h"

namespace quarn2::s3 {

// The maximum number of keys that S3 allows in one request.
inline constexpr std::size_t kMaxKeysOfDelete = 1000;

// Returns the request that removes one object.
Call DeleteCall(const std::string& key);

// Throws the error of the response to a DeleteCall unless it confirms that the key no longer
// exists.
void CheckRemoved(const Service& service, const net::HttpReply& reply,
                  const std::string& operation);

// Returns the request that removes up to kMaxKeysOfDelete objects. Its response contains only the
// keys that were not removed. XML, the format of the request, must be able to represent the keys
// (IsXmlText).
Call DeleteObjectsCall(std::span<const std::string> keys);

// Returns true if the response shows that the server does not support a DeleteObjectsCall, or that
// its access rules allow only a DeleteCall.
bool IsUnknownRequest(const net::HttpReply& reply);

}  // namespace quarn2::s3
