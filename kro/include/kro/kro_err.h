// Errors of the framework and of everything that reports through it.
#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kro_err {

// What a caller can do about an error.
enum class Kind {
    kUnauthorized,  // refused credentials, keys or certificates: trying again changes nothing
    kNotFound,      // what was asked for is not there
    kUnavailable,   // trouble that may pass: worth another try
    kFailed,        // everything else
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

// The error of a failed system call; error() is its errno.
class SystemError : public Error {
  public:
    SystemError(Kind kind, const std::string& text, int error) : Error(kind, text), error_(error) {}

    int error() const noexcept { return error_; }

  private:
    int error_;
};

// The error of a failed system call: "TEXT: reason". ENOENT and ENOTDIR give kNotFound, EACCES and
// EPERM kFailed (a local file's rights are no matter of credentials), the rest kFailed.
SystemError FromErrno(const std::string& text, int error = errno);

}  // namespace kro_err
