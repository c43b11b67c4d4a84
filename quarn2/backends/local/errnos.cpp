#include "errnos.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace quarn2::local {

namespace {

struct Row {
    int error;
    Failure failure;
};

constexpr Row kRows[] = {
    {ENOSPC, Failure::kNoRoom},
    {EDQUOT, Failure::kNoRoom},

    {ENOENT, Failure::kNotFound},
    {ENOTDIR, Failure::kNotFound},

    // The disk is broken or missing, or its file system became read-only after an error.
    {EIO, Failure::kUnavailable},
    {EREMOTEIO, Failure::kUnavailable},
    {EROFS, Failure::kUnavailable},
    {EUCLEAN, Failure::kUnavailable},
    {ENODEV, Failure::kUnavailable},
    {ENXIO, Failure::kUnavailable},
    {ENOMEDIUM, Failure::kUnavailable},
    // The storage is on a network file system whose server is unreachable or was restarted.
    {ESTALE, Failure::kUnavailable},
    {ENOTCONN, Failure::kUnavailable},
    {ETIMEDOUT, Failure::kUnavailable},
    {EHOSTDOWN, Failure::kUnavailable},
    {EHOSTUNREACH, Failure::kUnavailable},
    {ENETDOWN, Failure::kUnavailable},
    {ENETUNREACH, Failure::kUnavailable},
    {ECONNABORTED, Failure::kUnavailable},
    {ECONNREFUSED, Failure::kUnavailable},
    {ECONNRESET, Failure::kUnavailable},
    {ENOLCK, Failure::kUnavailable},
    // This machine temporarily has too little memory or too few descriptors.
    {EAGAIN, Failure::kUnavailable},
    {EINTR, Failure::kUnavailable},
    {EMFILE, Failure::kUnavailable},
    {ENFILE, Failure::kUnavailable},
    {ENOMEM, Failure::kUnavailable},
};

}  // namespace

Failure FailureOf(int error) noexcept {
    const auto* const row = std::find_if(std::begin(kRows), std::end(kRows),
                                         [error](const Row& each) { return each.error == error; });
    return row == std::end(kRows) ? Failure::kFailed : row->failure;
}

}  // namespace quarn2::local
