// Opens the events file for its writer and its reader.
#pragma once

#include <sys/stat.h>

#include <string>

#include "kro/res_handle.h"

// Opens the file with the flags of open(2). With O_CREAT, creates a missing file with mode 0600.
// Throws kro_err::Error (kNotFound for a missing file) when the file cannot be opened, when it is
// not a plain file with one name, or when a user other than root and this user could have written
// it. Does not follow a symbolic link and does not block on a named pipe. Sets `status` to the
// status of the open file.
ResHandle OpenEventFile(const std::string& path, int flags, struct stat& status);
