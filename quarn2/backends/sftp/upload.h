// One upload: writes a temporary file, checks it, syncs it and renames it.
#pragma once

#include <string>

#include "backends/sftp/place.h"
#include "backends/sftp/session.h"
#include "backends/sftp/upload_lock.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2::sftp {

// The progress of an upload, for callers that clean up or try again.
struct UploadState {
    bool started = false;   // the source has been read
    std::string temporary;  // path of the temporary file on the server; empty: none
    UploadLock lock;        // on `temporary`; must be held while the file exists
};

// Like StorageBackend::Put(). Leaves no temporary file unless the session broke.
bool Upload(Session& session, const Place& place, const std::string& name, ByteSource& source,
            UploadState& state);

}  // namespace quarn2::sftp
