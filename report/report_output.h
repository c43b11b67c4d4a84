// The output of all modes: lines on standard output, findings on standard error.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kro/kro_json.h"

// The text as a value of JSON, or null when it is empty.
kro_json::Value OrNull(const std::string& text);

// The number as a value of JSON, or null when it is not set.
kro_json::Value OrNull(std::optional<std::int64_t> number);

class Output {
  public:
    // Writes a text that is already escaped for the terminal.
    static void Text(const std::string& text);

    // Writes one JSON object as a line.
    static void Json(kro_json::Object object);

    // Records a finding: a fault to report to the administrator. The rest of the report stays
    // valid. Escapes `text`.
    void Find(const std::string& text);

    const std::vector<std::string>& findings() const noexcept { return findings_; }

    // Sets the exit status, which otherwise depends on the findings.
    void SetStatus(int status) noexcept { status_ = status; }

    // Flushes standard output and then writes the findings to standard error. Returns the exit
    // status: the value of SetStatus, else 3 with findings and 0 without. Throws kro_err::Error
    // when standard output cannot be written.
    int Finish() const;

  private:
    std::vector<std::string> findings_;
    std::optional<int> status_;
};
