// Directories on the server: listing, making and removing them without a round trip for each name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "backends/sftp/place.h"
#include "backends/sftp/session.h"

namespace quarn2::sftp {

// What is there, following no link; nothing when nothing is.
std::optional<Attributes> LookAt(Session& session, const std::string& path);

// The root must be there and be a directory (through links): throws kNotFound, kFailed.
std::uint32_t AskForRoot(Session& session, const Place& place);
void CheckRoot(const Place& place, Reply answer);
void CheckRoot(Session& session, const Place& place);

// Makes the directories above and at `name`, as far as they are missing. Whoever needs them finds
// out whether they are there now.
struct MadeDirs {
    std::vector<std::string> parents;  // of those that were made
    Status refusal;                    // of the last one that was not
};
MadeDirs MakeDirs(Session& session, const Place& place, const std::string& name);

// The promises of StorageBackend.
void MakeDir(Session& session, const Place& place, const std::string& name);
std::vector<std::string> List(Session& session, const Place& place, const std::string& name);
void Remove(Session& session, const Place& place, const std::string& name);
void RemoveDir(Session& session, const Place& place, const std::string& name);
void Clear(Session& session, const Place& place);

}  // namespace quarn2::sftp
