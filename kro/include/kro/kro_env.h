// The environment of the process.
#pragma once

#include <string>

namespace kro_env {

// The variable's value, empty when it is not set.
std::string GetEnv(const std::string& name);

// The panel's install root: where the launcher found itself, else "/usr/local/kro5".
const std::string& InstallRoot();

// For the launcher, once, before anything else runs.
void SetInstallRoot(const std::string& root);

}  // namespace kro_env
