#include "kro/kro_err.h"

#include <cstring>

namespace kro_err {

Error::Error(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}

std::string_view Error::type() const noexcept {
    switch (kind_) {
        case Kind::kUnauthorized:
            return "unauthorized";
        case Kind::kNotFound:
            return "not_found";
        case Kind::kUnavailable:
            return "unavailable";
        case Kind::kFailed:
            break;
    }
    return "failed";
}

bool IsMissing(int error) noexcept { return error == ENOENT || error == ENOTDIR; }

SystemError FromErrno(const std::string& text, int error) {
    char buffer[128];
    const Kind kind = IsMissing(error) ? Kind::kNotFound : Kind::kFailed;
    return {kind, text + ": " + strerror_r(error, buffer, sizeof buffer), error};
}

}  // namespace kro_err
