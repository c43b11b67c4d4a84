// One download: sends many reads at once and passes the data on in order.
#pragma once

#include <string>

#include "backends/sftp/place.h"
#include "backends/sftp/session.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2::sftp {

// Like StorageBackend::Get(). Sets `started` before the first call of the sink.
void Download(Session& session, const Place& place, const std::string& name, ByteSink& sink,
              bool& started);

}  // namespace quarn2::sftp
