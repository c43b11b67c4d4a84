// How a command learns why the node client refused it. The control socket carries no reason, but
// both sides write to one log.
#pragma once

#include <sys/types.h>

#include <string>

#include "kro/kro_log_reader.h"

// The node client writes a line with this beginning after the reason, in the same thread.
std::string RefusalLine(pid_t process);

// The reason that the node client has logged for this process's command since `begin`; "" when
// there is none.
std::string FindRefusal(const kro_log::Bookmark& begin, pid_t node_client);
