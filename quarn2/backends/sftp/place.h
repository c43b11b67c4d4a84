// Where things lie on the server: the storage's root, and the names that an upload uses on its way.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quarn2::sftp {

// The root of a storage. Relative to the directory of the login where it has no slash in front.
class Place {
  public:
    // `server` tells this server and user from others.
    explicit Place(std::string root, std::string server = {})
        : root_(std::move(root)), server_(std::move(server)) {}

    const std::string& root() const noexcept { return root_; }
    const std::string& server() const noexcept { return server_; }
    std::string PathOf(const std::string& name) const;

  private:
    std::string root_;
    std::string server_;
};

// The names under which uploads to `path` may write, the usual one first. Two uploads at once use
// two of them; each follows from the target's name alone, none is another target's.
std::vector<std::string> TemporaryPaths(const std::string& path);

// Where the old file waits while the new one takes its name, on a server that cannot rename over a
// file.
std::string DisplacedPath(const std::string& path);

// The name of the file that waits under this one; nothing when it is another kind of name.
std::optional<std::string> DisplacedTarget(const std::string& name);

}  // namespace quarn2::sftp
