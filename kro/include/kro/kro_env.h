// The environment of the process.
#pragma once

#include <string>

namespace kro_env {

// The value of the variable, empty when it is not set.
std::string GetEnv(const std::string& name);

// The panel's install root: the directory that contains the launcher's sbin directory, else
// "/usr/local/kro5".
const std::string& InstallRoot();

// Sets the install root. The launcher calls it once, before it starts a role.
void SetInstallRoot(const std::string& root);

}  // namespace kro_env
