#include "report_verification.h"

#include <map>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"

namespace {

constexpr mode_t kMode = 0600;

std::string PathOf(const std::string& storage) {
    return str::Append("var/quarn2_cp.verified", storage, "#");
}

// Throws when the line is missing, because a missing count is not 0.
const std::string& LineOf(const std::map<std::string, std::string>& lines, const std::string& key) {
    const auto found = lines.find(key);
    if (found != lines.end()) return found->second;
    throw kro_err::Error(kro_err::Kind::kFailed, "the line '" + key + "' is missing");
}

VerificationResult Parse(const std::map<std::string, std::string>& lines) {
    const auto number = [&lines](const char* key) { return str::Int64(LineOf(lines, key)); };
    return {.time = LineOf(lines, "time"),
            .storage = LineOf(lines, "storage"),
            .backups = number("backups"),
            .files = number("files"),
            .content = number("content"),
            .problems = number("problems")};
}

}  // namespace

void KeepVerification(const std::string& storage, const VerificationResult& result) {
    const std::map<std::string, std::string> lines = {
        {"backups", str::Str(result.backups)}, {"content", str::Str(result.content)},
        {"files", str::Str(result.files)},     {"problems", str::Str(result.problems)},
        {"storage", result.storage},           {"time", result.time}};
    kro_file::Write(PathOf(storage), str::Join(lines, "\n"), kMode);
}

std::optional<VerificationResult> LastVerification(const std::string& storage) {
    const std::string path = PathOf(storage);
    std::string text;
    try {
        text = kro_file::ReadOurs(path);
    } catch (const kro_err::Error& error) {
        if (error.kind() == kro_err::Kind::kNotFound) return std::nullopt;
        throw;
    }
    try {
        return Parse(str::Split(text, "\n"));
    } catch (const kro_err::Error& error) {
        throw kro_err::Error(error.kind(), "'" + path + "' is damaged: " + error.what() +
                                               ". The next --verify replaces it");
    }
}
