#include "kro/kro_env.h"

#include <cstdlib>

namespace kro_env {

namespace {

std::string& Root() {
    static std::string root = "/usr/local/kro5";
    return root;
}

}  // namespace

std::string GetEnv(const std::string& name) {
    const char* value = std::getenv(name.c_str());
    return value == nullptr ? std::string() : std::string(value);
}

const std::string& InstallRoot() { return Root(); }

void SetInstallRoot(const std::string& root) { Root() = root; }

}  // namespace kro_env
