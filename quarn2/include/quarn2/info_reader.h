// Reading very many info files, one after the other.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quarn2 {

// The entries of one info file at a time, in the file's own text: unlike GetInfo, a start-up scan
// with one reader makes no map and no copies for each of its files.
class InfoReader {
  public:
    using Entry = std::pair<std::string_view, std::string_view>;

    // Reads the file; what was read before, and pieces of it handed out, are gone. A file that
    // cannot be read, or is none, is a kro_err::Error.
    void Read(const std::string& path);

    // In the file's order; of a key given twice the last entry counts. Valid until the next Read.
    const std::vector<Entry>& entries() const noexcept { return entries_; }

    // The value of a key, nothing when the file does not have it.
    std::optional<std::string_view> Find(std::string_view key) const noexcept;

  private:
    void ReadText(const std::string& path);
    void ParseLine(std::string_view line);

    std::string text_;  // a buffer; only its first size_ bytes are the file's
    std::size_t size_ = 0;
    std::vector<Entry> entries_;
};

}  // namespace quarn2
