// The download of one file. Sends many read requests at once and writes the data to the sink in
// order.
#pragma once

#include <string>

#include "place.h"
#include "quarn2_backend/storage_backend.h"
#include "session.h"

namespace quarn2::sftp {

// Implements StorageBackend::Get() for SFTP. Sets `started` before the first call of the sink.
void Download(Session& session, const Place& place, const std::string& name, ByteSink& sink,
              bool& started);

}  // namespace quarn2::sftp
