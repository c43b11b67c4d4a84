#include "quarn2_cp2_put_marks.h"

#include <unistd.h>

#include <stdexcept>
#include <vector>

#include "kro/kro_err.h"
#include "kro/kro_log.h"
#include "kro/str.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr mode_t kDirectoryMode = 0700;

// A job does not outlive the machine's start: what it left is nobody's any more.
const std::string& ThisBoot() {
    static const std::string id = [] {
        std::string text = kro_file::ReadE("/proc/sys/kernel/random/boot_id");
        return str::GetWord(text, "\n");
    }();
    return id;
}

std::string TextOf(const std::string& key, const std::string& remote) {
    return ThisBoot() + "\n" + key + "\n" + remote;
}

// Another user's directory in this one's place would have files made, or waited for, at will.
std::vector<std::string> PathsIn(const std::string& directory) {
    std::vector<std::string> paths;
    if (!kro_file::Exists(directory)) return paths;
    kro_file::CheckOurDirectory(directory);
    kro_file::Dir entries(directory, 2);
    while (entries.Read()) paths.push_back(entries.FullName());
    return paths;
}

// The text of a mark once nobody holds it; empty when its upload has come to its end meanwhile.
std::string Await(const std::string& path) {
    kro_file::Lock lock;
    try {
        lock.DoLock(path, false);
    } catch (const kro_err::Error& error) {
        if (error.type() == "not_found") return {};
        throw;
    }
    return lock.Read();
}

}  // namespace

UploadMark::UploadMark(const std::string& path, const std::string& text) : path_(path) {
    lock_.DoLock(path, true);
    // It has to outlast a process, not the machine.
    if (ftruncate(lock_.fd(), 0) != 0 ||
        pwrite(lock_.fd(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        throw kro_err::FromErrno("Failed to write '" + path + "'");
    }
}

void UploadMark::Remove() {
    if (lock_.fd() < 0) return;
    kro_file::RemoveFile(path_);
    lock_.Release();
}

UploadMarks::UploadMarks(const std::string& storage)
    : directory_(str::Append("tmp/quarn2_cp.uploads", storage, "#")) {}

std::unique_ptr<UploadMark> UploadMarks::Begin(const std::string& key,
                                               const std::string& remote) const {
    kro_file::MkDir(directory_, kDirectoryMode);
    kro_file::CheckOurDirectory(directory_);
    return std::make_unique<UploadMark>(kro_file::ConcatPath(directory_, kro_file::Name(remote)),
                                        TextOf(key, remote));
}

void UploadMarks::CheckWhole(const std::string& key) const {
    for (const std::string& path : PathsIn(directory_)) {
        // Other backups' marks are not waited for.
        std::string text = kro_file::ReadE(path);
        const bool of_this_boot = str::GetWord(text, "\n") == ThisBoot();
        if (!of_this_boot || str::GetWord(text, "\n") != key || Await(path).empty()) continue;
        KRO_LOG(kLog, 3, "Upload of '%s' was broken off", text.c_str());
        throw std::runtime_error("Failed upload");
    }
}
