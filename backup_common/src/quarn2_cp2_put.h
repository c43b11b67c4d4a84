// Upload: the commands of a backup job and the node client that serves them.
#pragma once

#include <memory>
#include <string>

#include "kro/kro_args.h"

// --put: hands one file to the node client and keeps the backup's info file.
void CommandPut(std::shared_ptr<kro_args::Result> args);

// --client: the node client; returns when the server has closed the link.
void CommandClient();

// --update: replaces one file of a backup on the storage.
void CommandUpdate(const std::string& path);
