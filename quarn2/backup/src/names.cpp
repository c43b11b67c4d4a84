#include "quarn2/names.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "base/stored_name.h"
#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/res_handle.h"
#include "kro/str.h"

namespace quarn2 {

namespace {

constexpr kro_log::Module kLog("names");

// The extensions of archive files. ArchiveExtension returns the first match, so an extension that
// ends with another extension of this list must come before it.
constexpr std::array<std::string_view, 7> kArchiveExtensions = {
    ".tar.gz", ".tar.bz2", ".tar.xz", ".tar.zst", ".tgz", ".tar", ".zip"};
constexpr std::string_view kEncrypted = ".aes";
constexpr std::string_view kInfo = ".info";
constexpr std::string_view kCustom = "custom";
constexpr std::size_t kDateSize = std::string_view("YYYY-MM-DD").size();

// Returns `name` without ".partN", or unchanged when it has none.
std::string_view WithoutPart(std::string_view name) {
    static constexpr std::string_view kPart = ".part";
    const std::size_t found = name.rfind(kPart);
    const bool part =
        found != std::string_view::npos && str::HasDigitsOnly(name.substr(found + kPart.size()));
    return part ? name.substr(0, found) : name;
}

// Returns `name` without ".N.dar", or unchanged when it has none.
std::string_view WithoutSlice(std::string_view name) {
    static constexpr std::string_view kDar = ".dar";
    if (!str::EndsWith(name, kDar)) return name;
    const std::string_view numbered = name.substr(0, name.size() - kDar.size());
    const std::size_t dot = numbered.rfind('.');
    const bool slice =
        dot != std::string_view::npos && str::HasDigitsOnly(numbered.substr(dot + 1));
    return slice ? numbered.substr(0, dot) : name;
}

// Returns the archive extension at the end of `name`, including ".aes". Returns an empty text when
// `name` has no archive extension.
std::string_view ArchiveExtension(std::string_view name) {
    std::string_view plain = name;
    if (str::EndsWith(plain, kEncrypted)) plain.remove_suffix(kEncrypted.size());
    for (const std::string_view extension : kArchiveExtensions) {
        if (str::EndsWith(plain, extension)) return name.substr(plain.size() - extension.size());
    }
    return {};
}

// Returns true when `name` begins with a date and ".".
bool BeginsWithDate(std::string_view name) {
    return name.size() > kDateSize && name[kDateSize] == '.' &&
           kro_date::IsDate(name.substr(0, kDateSize));
}

// Strips ".partN" if present, then ".N.dar" or an archive extension.
std::string_view WithoutEnding(std::string_view name) {
    const std::string_view part = WithoutPart(name);
    std::string_view stem = WithoutSlice(part);
    if (stem.size() == part.size()) stem.remove_suffix(ArchiveExtension(part).size());
    return stem;
}

bool BeginsWithTypeLetter(std::string_view name) {
    return !name.empty() && (name.front() == 'F' || name.front() == 'I' || name.front() == 'C');
}

// The date and user of a backup, parsed from the name of one of its files. Both are views of that
// file name.
struct Backup {
    std::string_view date;
    std::string_view user;
};

Backup BackupOf(const std::string& path) {
    std::string_view name = path;
    name.remove_prefix(name.rfind('/') + 1);
    if (str::EndsWith(name, kInfo)) {
        name.remove_suffix(kInfo.size());
    } else {
        name = WithoutEnding(name);
    }
    bool custom = false;
    if (BeginsWithTypeLetter(name) && BeginsWithDate(name.substr(1))) {
        custom = name.front() == 'C';
        name.remove_prefix(1);
    }
    const std::size_t dot = std::min(name.find('.'), name.size());
    const std::string_view user = name.substr(std::min(dot + 1, name.size()));
    return {custom ? kCustom : name.substr(0, dot), user};
}

void CheckSafe(const std::string& name) {
    if (IsSafeName(name)) return;
    throw kro_err::Error(kro_err::Kind::kFailed,
                         Quoted(name) + " is not a valid name for a local directory");
}

bool ListsIndex(const std::string& list, const std::string& index) {
    if (!kro_file::Exists(list)) return false;
    kro_file::Lock lock;
    lock.DoLock(list, false);
    return str::Split(lock.Read(), "\n").contains(index);
}

void AppendLine(const std::string& path, const std::string& line) {
    // Refuse a link or a named pipe, because another user who can write to the directory could
    // create a link or a pipe at this path.
    constexpr int kFlags =
        O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    const ResHandle handle(open(path.c_str(), kFlags, 0640));
    if (!handle) throw kro_err::FromErrno("Failed to open " + Quoted(path));
    struct stat status = {};
    if (fstat(handle, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1) {
        throw kro_err::Error(kro_err::Kind::kFailed, Quoted(path) + " is not a plain file");
    }
    const ssize_t done = write(handle, line.data(), line.size());
    if (done != static_cast<ssize_t>(line.size())) {
        throw kro_err::FromErrno("Failed to write " + Quoted(path));
    }
}

}  // namespace

std::string StripSliceNumber(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
    return path.substr(0, begin + WithoutEnding(std::string_view(path).substr(begin)).size());
}

std::string GetExtByInfo(const std::map<std::string, std::string>& info) {
    const auto last = info.find("last-slice");
    std::string slice = last == info.end() ? std::string() : last->second;
    const std::string word = str::GetWord(slice);
    const std::string_view extension = ArchiveExtension(WithoutPart(word));
    return extension.empty() ? ".tgz" : std::string(extension);
}

std::string GetDate(const std::string& name) { return std::string(BackupOf(name).date); }

std::string GetUserName(const std::string& name) { return std::string(BackupOf(name).user); }

bool IsBackupFile(const std::string& name) {
    static constexpr std::string_view kAttempts = ".attempts";
    if (!IsSafeName(name)) return false;
    std::string_view stem = name;
    if (str::EndsWith(stem, kAttempts)) stem.remove_suffix(kAttempts.size());
    const std::size_t whole = stem.size();
    if (str::EndsWith(stem, kInfo)) {
        stem.remove_suffix(kInfo.size());
    } else {
        stem = WithoutEnding(stem);
    }
    if (stem.size() == whole) return false;
    if (str::StartsWith(stem, "custom.")) return stem.size() > std::string_view("custom.").size();
    if (BeginsWithTypeLetter(stem)) stem.remove_prefix(1);
    return BeginsWithDate(stem) && stem.size() > kDateSize + 1;
}

std::string GetPath(const std::string& name) {
    const std::string path = kro_file::GoodPath(name);
    return path.substr(std::min(path.find_first_not_of('/'), path.size()));
}

std::string GetStoredName(const std::string& local) {
    const auto [directory, name] = kro_file::SplitPath(kro_file::GoodPath(local));
    const auto [above, date] = kro_file::SplitPath(directory);
    const std::string user = kro_file::Name(above);

    std::string stored = name;
    if (!user.empty() && (date == "custom" || kro_date::IsDate(date))) {
        stored = kro_file::ConcatPath(user, kro_file::ConcatPath(date, name));
    }
    CheckStoredName(stored);
    // Refuse a space, because the program sends the name as a field of a space-separated line.
    if (stored.find(' ') != std::string::npos)
        ThrowInvalidStoredName(stored, "it contains a space; rename the file");
    return stored;
}

bool IsAdminData(const std::string& directory) {
    const std::string path = kro_file::GoodPath(directory);
    const auto is_data = [](std::string_view text) {
        static constexpr std::string_view kData = "var/backup";
        return text == kData || str::EndsWith(text, std::string("/") + std::string(kData));
    };
    if (is_data(path)) return false;
    const auto [above, name] = kro_file::SplitPath(path);
    return name == "tovarn" || name == "tovarn.private" || !is_data(above);
}

bool IsSafeName(const std::string& name) {
    return !name.empty() && name.size() <= NAME_MAX && name != "." && name != ".." &&
           name.find('/') == std::string::npos && !HasControl(name);
}

std::string MkLocalDir(const std::string& root, const std::string& user, const std::string& date) {
    CheckSafe(user);
    CheckSafe(date);
    const std::string base = IsAdminData(root) ? root : kro_file::Path(root);
    const std::string above = kro_file::ConcatPath(base, user);
    std::string directory = kro_file::ConcatPath(above, date);
    for (const std::string& path : {above, directory}) {
        if (kro_file::IsForeignLink(path)) {
            throw kro_err::Error(
                kro_err::Kind::kFailed,
                Quoted(path) + " is a symbolic link that belongs to another user; remove it");
        }
    }
    kro_file::MkDir(directory);
    return directory;
}

bool IsEncrypted(const std::string& path) {
    const Backup backup = BackupOf(path);
    const std::string index = str::Append(std::string(backup.date), backup.user, ".") + ".tgz.aes";
    const std::string directory = kro_file::Path(path);
    return kro_file::Exists(kro_file::ConcatPath(directory, index)) ||
           ListsIndex(kro_file::ConcatPath(directory, ".encrypted_indexes"), index);
}

void CreateAttemptsFile(const std::string& local, const std::string& reason) {
    try {
        const std::string time = kro_date::DateTime::Now().AsDateTime();
        const std::string text = str::badchars::Escape(reason, '\\');
        AppendLine(local + ".attempts", str::Append(time, text, " ") + "\n");
    } catch (const kro_err::Error& error) {
        KRO_LOG(kLog, 4, "Cant write attempts file. What: '%s'", error.what());
    }
}

}  // namespace quarn2
