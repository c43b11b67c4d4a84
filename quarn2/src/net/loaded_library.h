// A shared library that is loaded when it is first needed.
//
// The libraries of the network storages bring dozens of others along. Loading them takes longer
// than a whole short command of a backup job, and a node client of a local storage would carry them
// for nothing: so the program does not link them.
#pragma once

#include <string>

namespace quarn2::net {

// Never unloaded: a library may have left handlers in the process.
class LoadedLibrary {
  public:
    // kFailed with the Debian package to install when the file cannot be loaded.
    LoadedLibrary(std::string file, std::string package);

    // Looks a function up by its name; kFailed when the library has none of that name.
    template <class Function>
    void Find(const char* name, Function& function) const {
        function = reinterpret_cast<Function>(Symbol(name));
    }

  private:
    void* Symbol(const char* name) const;
    [[noreturn]] void CannotLoad() const;

    std::string file_;
    std::string package_;
    void* library_;
};

}  // namespace quarn2::net
