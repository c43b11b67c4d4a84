// The environment of the process.
#pragma once

#include <string>

namespace kro_env {

// The value of the variable, empty when it is not set.
std::string GetEnv(const std::string& name);

// The install root of the hosting panel: the directory whose sbin directory contains this program,
// or "/usr/local/kro5" when the program is in a directory of another name.
const std::string& InstallRoot();

// Sets the install root. The launcher calls it once, before it runs the command.
void SetInstallRoot(const std::string& root);

}  // namespace kro_env
