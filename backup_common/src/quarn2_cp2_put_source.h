// The local file of an upload. After the upload, the file may be removed only if its path still
// refers to the uploaded content.
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
    kRewritten,  // the opened file was modified: the uploaded data may mix old and new content
    kReplaced,   // the path refers to another file now, or to none
};

// `opened`: the identity of the open file when the upload began; `now`: the current identity of the
// open file; `at_path`: the current identity of the file at the path.
SourceState CompareSource(const FileIdentity& opened, const FileIdentity& now,
                          const std::optional<FileIdentity>& at_path);

class SourceFile {
  public:
    // Opens the file and keeps it open, so that no other file gets its inode. Throws kro_err::Error
    // when the file cannot be opened.
    explicit SourceFile(const std::string& path);

    // Returns how the file differs from its state when it was opened. Throws kro_err::Error when
    // the file's state cannot be read.
    SourceState Compare() const;

  private:
    std::string path_;
    ResHandle handle_;
    FileIdentity opened_;
};
