// Where the files of a WebDAV storage are found, and what they are called while they are written.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "quarn2/token.h"

namespace quarn2::webdav {

// The names of a storage as URLs, and back. Names are relative to the storage's root, "" is the
// root itself; a URL has every byte that could mean something else percent-encoded.
class DavAddress {
  public:
    explicit DavAddress(const BackupToken& token);

    std::string File(const std::string& name) const;
    // With the closing slash that servers want of collections.
    std::string Directory(const std::string& name) const;

    // The name that a server's href, absolute or a path alone, stands for. Nothing when it leads
    // out of the storage or could not be a name: an encoded slash, "..", a control character.
    std::optional<std::string> NameOf(std::string_view href) const;

  private:
    std::string origin_;  // "https://host:port"
    std::string root_;    // the decoded path, without a closing slash
};

// A file is written as "RANDOM.NAME.part~" beside its place: two writers of one name never meet,
// and whose leftover it is can be told. There is no dot in front, unlike on a disk: nginx lists no
// name that begins with one, and many servers are set up to serve none that begins with ".ht".
std::string NewTemporaryName(const std::string& name);

// An entry of a directory that is no file of the storage: a temporary one, or what a server has
// left of one.
bool IsTemporaryEntry(std::string_view entry) noexcept;
// The same, for the file of that name in the same directory.
bool IsTemporaryOf(std::string_view entry, std::string_view file) noexcept;

}  // namespace quarn2::webdav
