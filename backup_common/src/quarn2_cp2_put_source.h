// The local file of an upload, which must still be the same file when it is removed.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

#include "kro/res_handle.h"

struct FileIdentity {
    explicit FileIdentity(const struct stat& status);
    bool operator==(const FileIdentity&) const = default;

    std::uint64_t device;
    std::uint64_t inode;
    std::int64_t size;
    std::int64_t modified_seconds;
    std::int64_t modified_nanoseconds;
};

enum class SourceState {
    kUnchanged,
    kRewritten,  // the file that was opened has other content now: what was sent is a mixture
    kReplaced,   // its path names another file, or none
};

// `opened`: of the descriptor when the upload began; `now`: of the descriptor now; `at_path`: of
// the file that the path names now.
SourceState CompareSource(const FileIdentity& opened, const FileIdentity& now,
                          const std::optional<FileIdentity>& at_path);

class SourceFile {
  public:
    // Opens the file for as long as the object lives, so that no other file gets its inode. Throws
    // kro_err::Error.
    explicit SourceFile(const std::string& path);

    // What has become of the file since it was opened. Throws kro_err::Error.
    SourceState Compare() const;

  private:
    std::string path_;
    ResHandle handle_;
    FileIdentity opened_;
};
