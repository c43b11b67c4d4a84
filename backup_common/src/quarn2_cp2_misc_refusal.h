// Finds the reason why the node client refused a command. The control socket does not transfer the
// reason, but the node client and the command write to the same log.
#pragma once

#include <sys/types.h>

#include <string>

#include "kro/kro_log_reader.h"

// The beginning of the log line that the node client writes after the line with the reason, in the
// same thread. `process` is the process that sent the command.
std::string RefusalLine(pid_t process);

// Searches the log after `begin` for the reason why the node client has refused this process's
// command. Returns "" when the log contains none.
std::string FindRefusal(const kro_log::Bookmark& begin, pid_t node_client);
