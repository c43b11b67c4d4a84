// The URLs of the files of a WebDAV storage, and the temporary names of uploads.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "quarn2/token.h"

namespace quarn2::webdav {

// Converts names of a storage to URLs and back. Names are relative to the storage's root; "" is the
// root itself. In a URL every byte with a special meaning is percent-encoded.
class DavAddress {
  public:
    explicit DavAddress(const BackupToken& token);

    std::string File(const std::string& name) const;
    // Returns the URL of a directory, with the trailing slash that servers require for collections.
    std::string Directory(const std::string& name) const;

    // Returns the name for an href that the server has sent, which is a URL or an absolute path.
    // Returns nullopt if the href is outside the storage, or contains an encoded slash, ".." or a
    // control character.
    std::optional<std::string> NameOf(std::string_view href) const;

  private:
    std::string origin_;  // "https://host:port"
    std::string root_;    // the decoded path, without a trailing slash
};

// Returns a temporary name "RANDOM.NAME.part~" in the directory of the file. Concurrent uploads of
// one file get different temporary names, and the name of an abandoned temporary file contains the
// name of its target. The name does not begin with a dot, because nginx does not list such names,
// and many servers are configured not to serve names that begin with ".ht".
std::string NewTemporaryName(const std::string& name);

// Returns true if `entry` is the name of a temporary file, or of a server's incomplete copy of a
// temporary file.
bool IsTemporaryEntry(std::string_view entry) noexcept;
// Returns true if `entry` is the name of a temporary file for `file` in the same directory, or of a
// server's incomplete copy of such a file.
bool IsTemporaryOf(std::string_view entry, std::string_view file) noexcept;

}  // namespace quarn2::webdav
