// The output of all modes: lines on standard output, findings on standard error.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kro/kro_json.h"

class Output {
  public:
    // Writes a text that is ready for the terminal.
    static void Text(const std::string& text);

    // Writes one JSON object as a line.
    static void Json(kro_json::Object object);

    // Records a finding: a fault that the administrator must know, while the rest of the report is
    // right. `text` is escaped here.
    void Find(const std::string& text);

    const std::vector<std::string>& findings() const noexcept { return findings_; }

    // Replaces the exit status that depends on the findings.
    void SetStatus(int status) noexcept { status_ = status; }

    // Flushes standard output and then writes the findings to standard error. Returns the exit
    // status: that of SetStatus, else 3 with findings and 0 without. Throws kro_err::Error when
    // standard output cannot be written.
    int Finish() const;

  private:
    std::vector<std::string> findings_;
    std::optional<int> status_;
};
