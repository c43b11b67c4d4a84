// An error with advice for the user who ran the command.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace kro_err {

class HintedError : public std::runtime_error {
  public:
    HintedError(const std::string& text, std::string hint)
        : std::runtime_error(text), hint_(std::move(hint)) {}

    // One line of advice. The launcher prints it below the text of the error.
    const std::string& hint() const noexcept { return hint_; }

  private:
    std::string hint_;
};

}  // namespace kro_err
