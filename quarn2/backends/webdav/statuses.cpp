#include "statuses.h"

#include <algorithm>
#include <iterator>

namespace quarn2::webdav {

namespace {

struct Row {
    int status;
    Failure failure;
};

constexpr Row kRows[] = {
    // A temporary redirection comes from a proxy, for example to a login or maintenance page.
    {302, Failure::kUnavailable},
    {303, Failure::kUnavailable},
    {307, Failure::kUnavailable},
    {kUnauthorizedStatus, Failure::kUnauthorized},
    {kForbidden, Failure::kUnavailable},
    {kNotFoundStatus, Failure::kNotFound},
    // A proxy requires credentials. The credentials of the token are only for the WebDAV server.
    {407, Failure::kUnavailable},
    {408, Failure::kUnavailable},
    {kGone, Failure::kNotFound},
    {kLocked, Failure::kUnavailable},
    {425, Failure::kUnavailable},
    {429, Failure::kUnavailable},
    {kNoRoom, Failure::kNoRoom},
};

}  // namespace

Failure FailureOf(int status, bool accepted) noexcept {
    if (status == kForbidden && accepted) return Failure::kFailed;
    const auto* const row =
        std::find_if(std::begin(kRows), std::end(kRows),
                     [status](const Row& each) { return each.status == status; });
    if (row != std::end(kRows)) return row->failure;
    return status >= kServerError ? Failure::kUnavailable : Failure::kFailed;
}

std::string Hint(const std::string& method, int status) {
    switch (status) {
        case kUnauthorizedStatus:
            return " (user or password refused, or another 'auth' wanted)";
        case kForbidden:
            return " (the server's user has no right to do this)";
        case kNotAllowed:
        case 501:
            return " (is WebDAV switched on for this directory?)";
        case kTooLarge:
            return " (larger than the server takes; raise its limit of a request's body)";
        case 502:
            return method == "MOVE" ? " (a proxy in front that changes the scheme or host must "
                                      "change the Destination header too)"
                                    : "";
        case kLocked:
            return " (locked by somebody)";
        default:
            return status >= 300 && status < 400
                       ? " (a redirection; give the storage's own address)"
                       : "";
    }
}

}  // namespace quarn2::webdav
