#include "status.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

#include "base/stored_name.h"
#include "kro/kro_err.h"

namespace quarn2::sftp {

namespace {

struct Row {
    Code code;
    Failure failure;
};

// The failure classes of SFTP status codes. None is kUnauthorized, because servers refuse a login
// before the SFTP session begins.
constexpr Row kRows[] = {
    {Code::kNoSpace, Failure::kNoRoom},
    {Code::kQuotaExceeded, Failure::kNoRoom},

    {Code::kNoSuchFile, Failure::kNotFound},
    {Code::kNoSuchPath, Failure::kNotFound},

    {Code::kNoConnection, Failure::kUnavailable},
    {Code::kConnectionLost, Failure::kUnavailable},
    {Code::kInvalidHandle, Failure::kUnavailable},
    // A file system becomes read-only after a disk error, and writable again when the disk has been
    // repaired, so a later attempt may succeed.
    {Code::kWriteProtected, Failure::kUnavailable},
    {Code::kNoMedia, Failure::kUnavailable},
    {Code::kLockConflict, Failure::kUnavailable},

    {Code::kEof, Failure::kFailed},
    {Code::kPermissionDenied, Failure::kFailed},
    {Code::kFailure, Failure::kFailed},
    {Code::kBadMessage, Failure::kFailed},
    {Code::kUnsupported, Failure::kFailed},
    {Code::kFileAlreadyExists, Failure::kFailed},
};

// Returns true for the general status codes that servers also use for a full disk or quota. Only
// the text of the status shows the cause.
bool NeedsItsText(Code code) { return code == Code::kFailure || code == Code::kPermissionDenied; }

bool TellsOfNoRoom(const Status& status, const std::string& path) {
    constexpr std::array<std::string_view, 5> kWords = {"no space", "not enough space", "disk full",
                                                        "disk is full", "quota"};
    const std::string text = SearchableText(status.text, path);
    return std::any_of(kWords.begin(), kWords.end(), [&text](std::string_view word) {
        return text.find(word) != std::string::npos;
    });
}

}  // namespace

Failure FailureOf(const Status& status, const std::string& path) {
    if (NeedsItsText(status.code) && TellsOfNoRoom(status, path)) return Failure::kNoRoom;
    const auto* const row =
        std::find_if(std::begin(kRows), std::end(kRows),
                     [&status](const Row& each) { return each.code == status.code; });
    return row == std::end(kRows) ? Failure::kFailed : row->failure;
}

std::string Describe(const Status& status) {
    switch (status.code) {
        case Code::kOk:
            return "success";
        case Code::kEof:
            return "end of file";
        case Code::kNoSuchFile:
            return "no such file or directory";
        case Code::kPermissionDenied:
            return "permission denied";
        case Code::kBadMessage:
            return "the server rejected the request; the name may be too long";
        case Code::kNoConnection:
        case Code::kConnectionLost:
            return "the server reported a lost connection";
        case Code::kUnsupported:
            return "the server does not support this operation";
        case Code::kInvalidHandle:
            return "the file handle is no longer valid on the server";
        case Code::kNoSuchPath:
            return "no such directory";
        case Code::kFileAlreadyExists:
            return "a file or directory of this name already exists";
        case Code::kWriteProtected:
            return "the file system is read-only";
        case Code::kNoMedia:
            return "the disk is missing";
        case Code::kNoSpace:
            return "no space left";
        case Code::kQuotaExceeded:
            return "the quota is exceeded";
        case Code::kLockConflict:
            return "the file is locked";
        case Code::kFailure:
            break;
    }
    const bool telling = !status.text.empty() && status.text != "Failure";
    return telling ? "the server reported " + Quoted(status.text)
                   : "the server gave no reason (code " +
                         std::to_string(static_cast<std::uint32_t>(status.code)) + ")";
}

void ThrowRefused(const std::string& what, const std::string& path, const Status& status) {
    throw kro_err::Error(
        KindOf(FailureOf(status, path)),
        "Failed to " + what + " " + Quoted(path) + " on the storage: " + Describe(status));
}

}  // namespace quarn2::sftp
