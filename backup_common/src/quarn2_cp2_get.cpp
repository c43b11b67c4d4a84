#include "quarn2_cp2_get.h"

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2/names.h"
#include "quarn2_cp2_misc_attempts.h"
#include "quarn2_cp2_misc_progress.h"
#include "quarn2_cp2_misc_storage.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr std::size_t kCustomHead = 12;  // "C", a date and a dot

bool IsListedAtRoot(quarn2::Storage& storage, const std::string& remote) {
    std::vector<std::string> names;
    storage.List(names, "");
    return std::find(names.begin(), names.end(), remote) != names.end();
}

// The file that a restore job requests: its local path and its directory on the storage.
struct Target {
    std::shared_ptr<quarn2::Storage> storage;
    std::string remote_dir;
    std::string local;

    std::string local_dir() const { return kro_file::Path(local); }
    std::string Remote(const std::string& name) const {
        return kro_file::ConcatPath(remote_dir, name);
    }
};

// If the argument of --get has no "//", it names a file at the storage's root.
std::string RemoteDirectory(std::string argument) {
    return quarn2::GetPath(kro_file::Path(str::RGetWord(argument, "//")));
}

std::string WithoutHead(const std::string& name) {
    return name.substr(std::min(kCustomHead, name.size()));
}

// The name of the info file of the backup that an archive file belongs to.
std::string InfoName(const std::string& name) {
    if (str::StartsWith(name, "custom")) {
        return quarn2::GetInfoFile("", WithoutHead(name), "custom");
    }
    const std::string stem = quarn2::StripSliceNumber(name);
    if (str::StartsWith(name, "C")) return quarn2::GetInfoFile("", WithoutHead(stem), "custom");
    return stem.substr(std::min<std::size_t>(1, stem.size())) + ".info";
}

bool AsksForZeroSlice(const std::string& local) {
    return str::EndsWith(local, "part0") || str::EndsWith(local, "0.dar");
}

bool BeginsWithDigit(const std::string& text) {
    return !text.empty() && str::IsDigit(text.front());
}

// The first call of a restore requests slice 0, which does not exist. Returns the path of the index
// archive, or of the slice that the backup's info file names as the last.
std::string ResolveZeroSlice(const Target& target) {
    const std::string name = kro_file::Name(target.local);
    if (BeginsWithDigit(name)) {
        return quarn2::StripSliceNumber(target.local) +
               (quarn2::IsEncrypted(target.local) ? ".tgz.aes" : ".tgz");
    }
    const std::string info_name = InfoName(name);
    const std::string info = kro_file::ConcatPath(target.local_dir(), info_name);
    if (!kro_file::Exists(info)) Get(target.storage, target.Remote(info_name), info);
    const std::string last = kro_file::Name(quarn2::GetLastSliceLocalPath(info));
    if (last.empty()) {
        throw std::runtime_error(
            "info file '" + info +
            "' does not contain the name of the last slice: this backup cannot be restored");
    }
    return kro_file::ConcatPath(target.local_dir(), last);
}

// Reads the path of the previously downloaded file from the tmp-file. Throws when another user can
// write the tmp-file, because its content decides which file is removed.
std::string PreviousIn(const std::string& tmp_file) {
    try {
        return kro_file::ReadOurs(tmp_file);
    } catch (const kro_err::Error& error) {
        if (error.kind() == kro_err::Kind::kNotFound) return {};
        throw std::runtime_error(
            std::string("--tmp-file: ") + error.what() +
            "; nothing was removed or fetched. Name a file that no other user can change");
    }
}

// Removes the file that an earlier call fetched. Throws when that is not a regular file.
void RemovePrevious(const std::string& tmp_file, const std::string& local) {
    if (kro_file::TypeOf(tmp_file) == kro_file::FileType::kDirectory) {
        throw std::runtime_error("--tmp-file '" + tmp_file + "' is a directory: name a file");
    }
    const std::string previous = PreviousIn(tmp_file);
    // Refuses a NUL byte in the path: the system would end the path there and remove another file.
    if (previous.find('\0') != std::string::npos) {
        throw std::runtime_error("--tmp-file '" + tmp_file +
                                 "' contains a NUL byte instead of a path; nothing was removed or "
                                 "fetched. Name another file");
    }
    if (previous.empty() || previous == local || !kro_file::Exists(previous)) return;
    if (kro_file::TypeOf(previous) != kro_file::FileType::kPlain) {
        throw std::runtime_error(
            "--tmp-file '" + tmp_file + "' names '" + previous +
            "', which is not a regular file; nothing was removed or fetched. Remove "
            "the tmp-file to start again");
    }
    kro_file::RemoveFile(previous);
}

}  // namespace

void Get(std::shared_ptr<quarn2::Storage> storage, const std::string& remote,
         const std::string& local) {
    const auto failed = RunAttempts(
        "Failed download : " + remote, [&] { storage->Download(remote, local); },
        [&](const kro_err::Error&) { return IsListedAtRoot(*storage, remote); });
    if (!failed) return;
    if (failed->kind != kro_err::Kind::kUnauthorized) {
        quarn2::CreateAttemptsFile(local, failed->reason);
    }
    std::rethrow_exception(failed->error);
}

void CommandGet(kro_args::ResultPtr result) {
    Target target;
    target.storage = GetStorageByEnv();
    target.local = GetArgPath(result->Args(0));
    KRO_LOG(kLog, 5, "Get '%s'", target.local.c_str());
    if (kro_file::Exists(target.local)) return;
    target.remote_dir = RemoteDirectory(result->Args(0));
    // A path without a directory refers to the install root, so no directory is created.
    if (!target.local_dir().empty()) kro_file::MkDirSynced(target.local_dir());
    ProgressLine progress(1);
    target.storage->SetObserver(&progress);

    if (result->Has("init") && AsksForZeroSlice(target.local)) {
        target.local = ResolveZeroSlice(target);
    }
    KRO_LOG(kLog, 7, "Download %s", target.local.c_str());
    const std::string tmp_file = result->Param("tmp-file", -1);
    if (!tmp_file.empty()) RemovePrevious(tmp_file, target.local);
    Get(target.storage, target.Remote(kro_file::Name(target.local)), target.local);
    if (!tmp_file.empty()) kro_file::Write(tmp_file, target.local);
}
