// Warnings on standard error for the operator or job that starts a server.
#pragma once

#include <string>

#include "kro/kro_args.h"

// Prints "quarn2_cp: warning: TEXT" on standard error and logs TEXT at level 4.
void Warn(const std::string& text);

// Returns a warning if --count-limit contains no number of daily backups, because the server then
// deletes every daily backup except the newest backup of a user. Returns "" if it contains one.
std::string CountLimitWarning(const std::string& count_limit);

// Warns on standard error and in the log when the server will delete daily backups only because
// --count-limit does not contain their number.
void WarnOfCountLimit(const kro_args::Result& args);

// Warns when standard input is already at its end, because this --server command then ends
// immediately and does not keep the server alive.
void WarnOfEndedInput();

// Prints the reason why this process waits. Only the first call of a process prints.
void PrintWaitReason(const std::string& reason);
