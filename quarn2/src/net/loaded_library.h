// A shared library that is loaded when it is first needed.
//
// The libraries of the network storages depend on dozens of others. Loading them takes longer than
// a complete short command of a backup job, and a node client of a local storage does not need
// them. The program therefore does not link them.
#pragma once

#include <string>

namespace quarn2::net {

// Never unloaded, because a library may have installed handlers in the process.
class LoadedLibrary {
  public:
    // Throws kFailed with the Debian package to install if the file cannot be loaded.
    LoadedLibrary(std::string file, std::string package);

    // Looks a function up by its name. Throws kFailed if the library has no such function.
    template <class Function>
    void Find(const char* name, Function& function) const {
        function = reinterpret_cast<Function>(Symbol(name));
    }

  private:
    void* Symbol(const char* name) const;
    [[noreturn]] void ThrowCannotLoad() const;

    std::string file_;
    std::string package_;
    void* library_;
};

}  // namespace quarn2::net
