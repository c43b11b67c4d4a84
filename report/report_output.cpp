#include "report_output.h"

#include <cstdio>

#include "kro/kro_err.h"
#include "report_text.h"

namespace {

constexpr int kFine = 0;
constexpr int kFindings = 3;

void Write(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size()) return;
    throw kro_err::FromErrno("cannot write the report to standard output");
}

}  // namespace

kro_json::Value OrNull(const std::string& text) {
    return text.empty() ? kro_json::Value() : kro_json::Value(text);
}

kro_json::Value OrNull(std::optional<std::int64_t> number) {
    return number ? kro_json::Value(*number) : kro_json::Value();
}

void Output::Text(const std::string& text) { Write(text); }

void Output::Json(kro_json::Object object) {
    Write(Format(kro_json::Value(std::move(object))) + "\n");
}

void Output::Find(const std::string& text) { findings_.push_back(Escaped(text)); }

int Output::Finish() const {
    if (std::fflush(stdout) != 0) {
        throw kro_err::FromErrno("cannot write the report to standard output");
    }
    for (const std::string& finding : findings_) {
        std::fprintf(stderr, "quarn2_report: finding: %s\n", finding.c_str());
    }
    return status_.value_or(findings_.empty() ? kFine : kFindings);
}
