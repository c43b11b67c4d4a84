// Writes the events of this process into the events file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quarn2/info.h"
#include "quarn2_cp2_event.h"

// Appends the event, with the current time and the storage that this process works for. An event
// that cannot be written is lost. Any thread may call this function.
void WriteEvent(Event event) noexcept;

// Closes the events file. Must be called before the process closes all of its descriptors.
void CloseEvents() noexcept;

// An event with the user and the date of the backup to which this archive, index or info file
// belongs.
Event EventOfFile(EventKind kind, const std::string& path);

// Like EventOfFile, and adds the type and the size from the backup's info file.
Event EventOfBackup(EventKind kind, const std::string& info_path, const quarn2::InfoMap& info);

// The events `deleted` with this reason for the backups whose info files are at or below the path.
// Skips info files that cannot be read.
std::vector<Event> DeletedEvents(const std::string& path, RemovalReason reason);

// The reason of a deletion, and the used space and limit of the storage after it.
struct DeletionCause {
    RemovalReason reason = RemovalReason::kAsked;
    std::optional<std::int64_t> used = {};   // in bytes
    std::optional<std::int64_t> limit = {};  // in bytes
    bool is_part = false;  // the deletion is a part of another one, which writes the events
};

// The events of the deletion of one backup.
class DeletionEvents {
  public:
    // `info_path`: the path of the backup's info file, or a file name of the backup.
    DeletionEvents(const std::string& info_path, const DeletionCause& cause);

    // Adds the type and the size from the backup's info file to the events.
    void SetInfo(const quarn2::InfoMap& info);

    void SetSize(std::int64_t size) { event_.size = size; }

    // Call it after the start of the deletion has been recorded.
    void Begun() const;
    // Call it when the last file of the backup is removed.
    void Deleted() const;
    // Call it when the deletion has failed, with the text of the error.
    void Failed(std::string_view error) const;

  private:
    void Write(EventKind kind, std::string_view detail) const;

    DeletionCause cause_;
    Event event_;
};
