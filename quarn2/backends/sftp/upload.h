// One upload: written beside its place, checked, synced, renamed.
#pragma once

#include <string>

#include "backends/sftp/place.h"
#include "backends/sftp/session.h"
#include "backends/sftp/upload_lock.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2::sftp {

// How far an upload got, for whoever has to clean up or to try again.
struct UploadState {
    bool started = false;   // the source has been read
    std::string temporary;  // what lies on the server under a temporary name; empty: nothing
    UploadLock lock;        // on it: to be held until it is gone
};

// As StorageBackend::Put. Leaves nothing under a temporary name unless the session broke.
bool Upload(Session& session, const Place& place, const std::string& name, ByteSource& source,
            UploadState& state);

}  // namespace quarn2::sftp
