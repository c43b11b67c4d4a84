// A fast reader for many info files in sequence.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quarn2 {

// Parses one info file at a time and provides its KEY=VALUE entries as views of the file's text.
// The scan at program start uses one reader for all info files. Unlike GetInfo, the reader builds
// no map and copies no entries.
class InfoReader {
  public:
    using Entry = std::pair<std::string_view, std::string_view>;

    // Reads an info file and invalidates all entries and views of the previously read file. Throws
    // kro_err::Error when the file cannot be read, is larger than 1 MiB or contains a NUL byte.
    void Read(const std::string& path);

    // Returns the KEY=VALUE entries in the order of the file, valid until the next Read. If a key
    // occurs more than once, the last entry of this key counts.
    const std::vector<Entry>& entries() const noexcept { return entries_; }

    // Returns the value of a key, or nullopt when the info file does not contain the key.
    std::optional<std::string_view> Find(std::string_view key) const noexcept;

  private:
    void ReadText(const std::string& path);
    void ParseLine(std::string_view line);

    std::string text_;  // the buffer; its first size_ bytes contain the file
    std::size_t size_ = 0;
    std::vector<Entry> entries_;
};

}  // namespace quarn2
