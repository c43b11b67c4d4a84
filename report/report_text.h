// Texts for terminals: escaped names, sizes with units, aligned columns.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Replaces every character that could change the output of a terminal: control characters,
// bidirectional control characters, line separators, and bytes that are not valid UTF-8. A byte
// becomes "\x1b", another character "\u202e". A backslash is doubled, so that the result is
// unambiguous.
std::string Escaped(std::string_view text);

// A size in bytes with three significant digits and a decimal unit: "999 B", "1.23 GB".
std::string SizeText(std::int64_t bytes);

// Rows of escaped cells as lines with aligned columns, two blanks between the columns. A cell that
// is longer than kMaxWidth does not widen its column.
class Table {
  public:
    static constexpr std::size_t kMaxWidth = 56;

    // `right`: the columns that are aligned to the right.
    explicit Table(std::vector<std::size_t> right) : right_(std::move(right)) {}

    void Add(std::vector<std::string> cells);
    // The lines, each with `indent` blanks before it.
    std::string Text(std::size_t indent) const;

  private:
    bool IsRight(std::size_t column) const;

    std::vector<std::size_t> right_;
    std::vector<std::vector<std::string>> rows_;
    std::vector<std::size_t> widths_;
};
