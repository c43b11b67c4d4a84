// The first steps of a program: the programs' main functions call these before anything else.
#pragma once

#include <string>

namespace kro_launch {

// The install root of this executable: the directory whose sbin directory contains it. Returns
// kro_env::InstallRoot() for an executable in a directory of another name.
std::string FindInstallRoot();

// Protects secrets in the environment and in memory: disables core dumps and access by other
// processes of this user. Throws kro_err::Error when that fails.
void DisableCoreDumps();

// Opens /dev/null for each closed standard stream, so that no file that is opened later gets the
// number of a standard stream.
void OpenMissingStandardStreams();

}  // namespace kro_launch
