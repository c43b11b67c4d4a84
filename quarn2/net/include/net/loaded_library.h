// A shared library that is loaded when it is first needed.
//
// The libraries of the network storages depend on dozens of other libraries. Loading these
// libraries takes longer than a complete short command of a backup job, and a node client with a
// local storage does not need them. The program is therefore not linked with these libraries.
#pragma once

#include <string>

namespace quarn2::net {

// A loaded shared library. The destructor does not unload the library, because the library may have
// installed handlers in the process.
class LoadedLibrary {
  public:
    // Loads the library from `file`. If that fails, throws kFailed with the name of the Debian
    // package to install.
    LoadedLibrary(std::string file, std::string package);

    // Sets `function` to the library's function of this name. Throws kFailed if the library has no
    // such function.
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
