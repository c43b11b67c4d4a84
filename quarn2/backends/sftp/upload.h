// The upload of one file. Writes a temporary file on the server, checks it, syncs it and renames
// it.
#pragma once

#include <string>

#include "place.h"
#include "quarn2_backend/storage_backend.h"
#include "session.h"
#include "upload_lock.h"

namespace quarn2::sftp {

// The progress of an upload. After an error, SftpBackend uses it to decide whether to retry the
// upload or to remove the temporary file.
struct UploadState {
    bool started = false;   // the upload has begun to read the source
    std::string temporary;  // path of the temporary file on the server; empty: none
    UploadLock lock;        // the lock of the temporary file; must be held while the file exists
};

// Implements StorageBackend::Put() for SFTP. Leaves no temporary file on the server, unless the
// connection fails during the upload.
bool Upload(Session& session, const Place& place, const std::string& name, ByteSource& source,
            UploadState& state);

}  // namespace quarn2::sftp
