// Fast reading of many info files in sequence.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quarn2 {

// Provides the entries of one info file at a time as views of the file's text. A start-up scan uses
// one reader for all its files: unlike GetInfo, it builds no map and copies no entries.
class InfoReader {
  public:
    using Entry = std::pair<std::string_view, std::string_view>;

    // Reads the file and invalidates all entries and views of the previous file. Throws
    // kro_err::Error when the file cannot be read, is larger than 1 MiB or contains a NUL byte.
    void Read(const std::string& path);

    // The entries in file order, valid until the next Read. If a key occurs more than once, its
    // last entry counts.
    const std::vector<Entry>& entries() const noexcept { return entries_; }

    // Returns the value of a key, or nullopt when the file does not contain the key.
    std::optional<std::string_view> Find(std::string_view key) const noexcept;

  private:
    void ReadText(const std::string& path);
    void ParseLine(std::string_view line);

    std::string text_;  // the buffer; the file is in its first size_ bytes
    std::size_t size_ = 0;
    std::vector<Entry> entries_;
};

}  // namespace quarn2
