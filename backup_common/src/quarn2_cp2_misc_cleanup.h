// The list of incomplete backups, ".cleanup" in an info root, which another program writes. A line
// is the escaped token of the storage, a tab, and the prefix of the backup's files (see GetPrefix).
// Only this unit reads and rewrites the list.
#pragma once

#include <string>

// Removes the incomplete backups that `dir`/.cleanup lists and keeps the lines of backups that
// could not be removed.
void CleanUp(const std::string& dir);

// Removes the lines of a backup from the list. Must be called when the interrupted job was repeated
// and has completed the backup. `date` is "custom" for a custom backup. Failures are only logged.
void ForgetIncomplete(const std::string& dir, const std::string& user, const std::string& date);
