// The errors that this library and the layers above it throw.
#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kro_err {

// The kind of an error. It decides how the caller reacts.
enum class Kind {
    kUnauthorized,  // refused credentials, keys or certificates: a retry changes nothing
    kNotFound,      // the requested object does not exist
    kUnavailable,   // a temporary failure: a retry may succeed
    kFailed,        // any other failure
};

class Error : public std::runtime_error {
  public:
    Error(Kind kind, const std::string& text);

    Kind kind() const noexcept { return kind_; }

    // The kind as a word: "unauthorized", "not_found", "unavailable" or "failed".
    std::string_view type() const noexcept;

  private:
    Kind kind_;
};

// The error of a failed system call. error() returns its errno.
class SystemError : public Error {
  public:
    SystemError(Kind kind, const std::string& text, int error) : Error(kind, text), error_(error) {}

    int error() const noexcept { return error_; }

  private:
    int error_;
};

// True for the errno of a system call that found no file at its path: ENOENT or ENOTDIR.
bool IsMissing(int error = errno) noexcept;

// Makes the error of a failed system call, with the text "TEXT: reason". ENOENT and ENOTDIR give
// kNotFound, every other errno kFailed. EACCES and EPERM do not give kUnauthorized, because
// permissions of local files are not credentials.
SystemError FromErrno(const std::string& text, int error = errno);

}  // namespace kro_err
