// One download: many reads under way, handed on in order.
#pragma once

#include <string>

#include "backends/sftp/place.h"
#include "backends/sftp/session.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2::sftp {

// As StorageBackend::Get. `started`: the sink has been told something.
void Download(Session& session, const Place& place, const std::string& name, ByteSink& sink,
              bool& started);

}  // namespace quarn2::sftp
