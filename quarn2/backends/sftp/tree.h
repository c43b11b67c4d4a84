// Directories on the server: listing, making and removing them without a round trip for each name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "backends/sftp/place.h"
#include "backends/sftp/session.h"

namespace quarn2::sftp {

// Returns the attributes of the file or directory, nullopt if there is none. Does not follow links.
std::optional<Attributes> LookAt(Session& session, const std::string& path);

// AskForRoot() sends a query for the root and returns its id. CheckRoot() throws kNotFound if the
// root does not exist, and kFailed if it is neither a directory nor a link to one.
std::uint32_t AskForRoot(Session& session, const Place& place);
void CheckRoot(const Place& place, Reply answer);
void CheckRoot(Session& session, const Place& place);

// Makes the missing directories above and at `name`. Does not check whether they exist afterwards:
// the caller does.
struct MadeDirs {
    std::vector<std::string> parents;  // of the directories that were made
    Status refusal;                    // for the last directory that was not made
};
MadeDirs MakeDirs(Session& session, const Place& place, const std::string& name);

// These have the contracts of the functions of StorageBackend.
void MakeDir(Session& session, const Place& place, const std::string& name);
std::vector<std::string> List(Session& session, const Place& place, const std::string& name);
void Remove(Session& session, const Place& place, const std::string& name);
void RemoveDir(Session& session, const Place& place, const std::string& name);
void Clear(Session& session, const Place& place);

}  // namespace quarn2::sftp
