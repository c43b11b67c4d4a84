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
    // `server` identifies the server and the user.
    explicit Place(std::string root, std::string server = {})
        : root_(std::move(root)), server_(std::move(server)) {}

    const std::string& root() const noexcept { return root_; }
    const std::string& server() const noexcept { return server_; }
    std::string PathOf(const std::string& name) const;

  private:
    std::string root_;
    std::string server_;
};

// Returns the temporary paths for uploads to `path`, the usual one first. Each of several
// concurrent uploads uses a different one. They are derived from the target's name alone, and no
// two targets share one.
std::vector<std::string> TemporaryPaths(const std::string& path);

// Returns the path of the old file during its replacement, on a server that cannot rename over a
// file.
std::string DisplacedPath(const std::string& path);

// Returns the target if `name` is that of a displaced file, else nullopt.
std::optional<std::string> DisplacedTarget(const std::string& name);

}  // namespace quarn2::sftp
