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
    // A proxy sends a temporary redirection, for example to a login or maintenance page, so a later
    // attempt may succeed.
    {302, Failure::kUnavailable},
    {303, Failure::kUnavailable},
    {307, Failure::kUnavailable},
    {kUnauthorizedStatus, Failure::kUnauthorized},
    {kForbidden, Failure::kUnavailable},
    {kNotFoundStatus, Failure::kNotFound},
    // A proxy requires credentials. The program has none for it: those of the token are for the
    // WebDAV server.
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
            return " (wrong user name or password, or the server requires another 'auth' "
                   "parameter)";
        case kForbidden:
            return " (the server or a proxy denies permission)";
        case kNotAllowed:
        case 501:
            return " (check that WebDAV is enabled for this directory)";
        case kTooLarge:
            return " (the file is too large; raise the server's size limit for request bodies)";
        case 502:
            return method == "MOVE" ? " (a reverse proxy that changes the scheme or host must "
                                      "also change the Destination header)"
                                    : "";
        case kLocked:
            return " (locked by another client)";
        default:
            return status >= 300 && status < 400
                       ? " (a redirection; use the final address in the storage token)"
                       : "";
    }
}

}  // namespace quarn2::webdav
