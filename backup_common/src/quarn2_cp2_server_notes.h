// Warnings on standard error for the operator or job that starts a server.
#pragma once

#include <string>

#include "kro/kro_args.h"

// Prints "quarn2_cp: warning: TEXT" on standard error and logs TEXT at level 4.
void Warn(const std::string& text);

// What a server with this --count-limit deletes although no number asks for it; "" when the value
// names the number of daily backups.
std::string CountLimitWarning(const std::string& count_limit);

// Warns on standard error and in the log when the server will delete daily backups only because
// their number was not given.
void WarnOfCountLimit(const kro_args::Result& args);

// Warns when standard input has ended already, so that the call will not keep its server.
void WarnOfEndedInput();

// Says what this process waits for, once: a process that waits for several things in turn names
// the first.
void SayWaiting(const std::string& reason);
