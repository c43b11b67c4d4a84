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
    // With the trailing slash that servers require for collections.
    std::string Directory(const std::string& name) const;

    // Returns the name for an href of the server, which is a URL or only a path. Returns nullopt if
    // the href is outside the storage or cannot be a name: an encoded slash, "..", a control
    // character.
    std::optional<std::string> NameOf(std::string_view href) const;

  private:
    std::string origin_;  // "https://host:port"
    std::string root_;    // the decoded path, without a trailing slash
};

// Returns "RANDOM.NAME.part~" in the directory of the file. Two writers of one name get different
// temporary names, and a leftover shows to which file it belongs. Unlike a temporary name on a disk
// it has no leading dot: nginx does not list such names, and many servers are configured not to
// serve names that begin with ".ht".
std::string NewTemporaryName(const std::string& name);

// True if an entry of a directory is not a file of the storage, but a temporary file or a server's
// incomplete copy of one.
bool IsTemporaryEntry(std::string_view entry) noexcept;
// The same for the temporary files of `file` in the same directory.
bool IsTemporaryOf(std::string_view entry, std::string_view file) noexcept;

}  // namespace quarn2::webdav
