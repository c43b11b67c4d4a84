// The free space of an SFTP storage.
#pragma once

#include "place.h"
#include "session.h"

namespace quarn2::sftp {

// Returns true if the storage has no space or no inodes left for another file. Returns false if the
// server does not report its free space.
bool IsFull(Session& session, const Place& place);

}  // namespace quarn2::sftp
