// The commands of a backup job that upload files, and the node client that executes the uploads.
#pragma once

#include <memory>
#include <string>

#include "kro/kro_args.h"

// --put: passes one file to the node client and updates the backup's info file.
void CommandPut(std::shared_ptr<kro_args::Result> args);

// --client: the node client. Returns when the server closes the link or a termination signal
// arrives.
void CommandClient();

// --update: replaces one file of a backup on the storage.
void CommandUpdate(const std::string& path);
