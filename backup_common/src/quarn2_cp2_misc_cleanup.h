// The list of incomplete backups, ".cleanup" in an info root, which another program writes. A line
// is the escaped token of the storage, a tab, and the prefix of the backup's files (see GetPrefix).
// Only this unit reads and rewrites it.
#pragma once

#include <string>

// Removes the lines of a backup that is complete now, because its interrupted job was repeated
// successfully. `date` is "custom" for a custom backup. Failures are only logged.
void ForgetIncomplete(const std::string& dir, const std::string& user, const std::string& date);
