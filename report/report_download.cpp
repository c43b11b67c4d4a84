#include "report_download.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"

namespace {

constexpr const char* kParent = "tmp";
constexpr std::string_view kBegin = "quarn2_report.";

bool IsRunning(const std::string& pid) {
    try {
        return kill(str::Int(pid), 0) == 0 || errno != ESRCH;
    } catch (const kro_err::Error&) {
        return true;
    }
}

void RemoveLeftovers() {
    for (const std::string& name : kro_file::NamesIn(kParent)) {
        if (!str::StartsWith(name, kBegin) || IsRunning(name.substr(kBegin.size()))) continue;
        kro_file::Remove(kro_file::ConcatPath(kParent, name));
    }
}

}  // namespace

DownloadDirectory::DownloadDirectory()
    : path_(kro_file::ConcatPath(kParent, std::string(kBegin) + str::Str(getpid()))) {
    constexpr mode_t kMode = 0700;
    RemoveLeftovers();
    kro_file::Remove(path_);
    kro_file::MkDir(path_, kMode);
}

DownloadDirectory::~DownloadDirectory() {
    try {
        kro_file::Remove(path_);
    } catch (const std::exception&) {
        // The error can be ignored, because the constructor of the next DownloadDirectory removes
        // the directory.
        return;
    }
}

std::string DownloadDirectory::PathOf(const std::string& local_name) const {
    return kro_file::ConcatPath(path_, local_name);
}

void DownloadDirectory::Drop() {
    if (!local_.empty()) kro_file::RemoveFile(local_);
    local_.clear();
}

std::int64_t DownloadDirectory::Fetch(quarn2::Storage& storage, const std::string& name,
                                      const std::string& local_name, bool is_encrypted) {
    Drop();
    const std::string local = PathOf(local_name);
    storage.DeferSync(true);
    storage.Download(name, local);
    local_ = local;
    return is_encrypted ? storage.Size(local) : kro_file::Size(local);
}
