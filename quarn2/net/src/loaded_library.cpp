#include "net/loaded_library.h"

#include <dlfcn.h>

#include <utility>

#include "kro/kro_err.h"

namespace quarn2::net {

LoadedLibrary::LoadedLibrary(std::string file, std::string package)
    : file_(std::move(file)),
      package_(std::move(package)),
      // The library is never unloaded, so copies of this object can share the library's handle.
      // cppcheck-suppress [noCopyConstructor,noOperatorEq,noDestructor]
      library_(dlopen(file_.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (library_ == nullptr) ThrowCannotLoad();
}

void* LoadedLibrary::Symbol(const char* name) const {
    void* const symbol = dlsym(library_, name);
    if (symbol == nullptr) ThrowCannotLoad();
    return symbol;
}

void LoadedLibrary::ThrowCannotLoad() const {
    const char* const reason = dlerror();
    throw kro_err::Error(kro_err::Kind::kFailed,
                         "this storage needs " + file_ + " (Debian package " + package_ +
                             "): " + (reason == nullptr ? "unknown reason" : reason));
}

}  // namespace quarn2::net
