// Paths on the server: the storage's root and the temporary names of uploads.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quarn2::sftp {

// The root of a storage. A root without a leading slash is relative to the login directory.
class Place {
  public:
    // `server` is a text that identifies the server and the user.
    explicit Place(std::string root, std::string server = {})
        : root_(std::move(root)), server_(std::move(server)) {}

    const std::string& root() const noexcept { return root_; }
    const std::string& server() const noexcept { return server_; }
    std::string PathOf(const std::string& name) const;

  private:
    std::string root_;
    std::string server_;
};

// Returns the temporary paths for uploads to `path`. An upload uses the first path unless a
// concurrent upload to the same target uses it. The temporary paths depend only on the name of the
// target, and different targets have different temporary paths.
std::vector<std::string> TemporaryPaths(const std::string& path);

// Returns the displaced path of a file. On a server that cannot rename over an existing file, the
// old file has this path while it is replaced.
std::string DisplacedPath(const std::string& path);

// Returns the original name of a displaced file, or nullopt if `name` is not a displaced name.
std::optional<std::string> DisplacedTarget(const std::string& name);

}  // namespace quarn2::sftp
