// Lists, creates and removes directories on an SFTP server. Many requests are sent at once, which
// saves a round trip per name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "place.h"
#include "quarn2/listed_entry.h"
#include "session.h"

namespace quarn2::sftp {

// Returns the attributes of the file or directory at `path`, or nullopt if nothing exists there.
// Does not follow links.
std::optional<Attributes> ReadAttributes(Session& session, const std::string& path);

// SendRootQuery() sends a query for the storage's root and returns the id of the request.
// CheckRoot() throws kNotFound if the root does not exist, and kFailed if the root is neither a
// directory nor a link to a directory.
std::uint32_t SendRootQuery(Session& session, const Place& place);
void CheckRoot(const Place& place, Reply answer);
void CheckRoot(Session& session, const Place& place);

// The result of MakeDirs().
struct MadeDirs {
    std::vector<std::string> parents;  // parent directories of the created directories
    Status refusal;  // the server's error for the last directory that could not be created
};
// Creates the missing directories above and at `name`. Does not check whether the directories exist
// afterwards: code that calls MakeDirs() must check this.
MadeDirs MakeDirs(Session& session, const Place& place, const std::string& name);

// The following functions implement the functions of StorageBackend with the same names.
void MakeDir(Session& session, const Place& place, const std::string& name);
std::vector<ListedEntry> ListSizes(Session& session, const Place& place, const std::string& name);
void Remove(Session& session, const Place& place, const std::string& name);
void RemoveDir(Session& session, const Place& place, const std::string& name);
void Clear(Session& session, const Place& place);

}  // namespace quarn2::sftp
