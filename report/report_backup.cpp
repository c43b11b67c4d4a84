#include "report_backup.h"

#include <map>

#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "quarn2/names.h"
#include "quarn2_cp2_misc_slices.h"

namespace {

constexpr std::size_t kDateSize = std::string_view("YYYY-MM-DD").size();

State StateOf(ScanResult result) {
    switch (result) {
        case ScanResult::kFuture:
            return State::kFuture;
        case ScanResult::kCustom:
            return State::kCustom;
        case ScanResult::kMisnamed:
            return State::kMisnamed;
        case ScanResult::kUnfinished:
        case ScanResult::kNotFinished:
            return State::kUnfinished;
        case ScanResult::kBeingDeleted:
            return State::kBeingDeleted;
        case ScanResult::kCounted:
        case ScanResult::kOtherNode:
            break;
    }
    return State::kComplete;
}

std::int64_t SizeOf(const std::string& text) {
    try {
        return str::Int64(text);
    } catch (const kro_err::Error&) {
        return 0;
    }
}

std::string FirstWord(std::string text) { return str::GetWord(text); }

}  // namespace

const char* NameOf(State state) {
    static const std::map<State, const char*> names = {
        {State::kComplete, "complete"},       {State::kFuture, "future"},
        {State::kCustom, "custom"},           {State::kMisnamed, "misnamed"},
        {State::kUnfinished, "unfinished"},   {State::kBeingDeleted, "deletion interrupted"},
        {State::kLeftover, "leftover slices"}};
    return names.at(state);
}

Backup FromInfo(const std::string& path, const quarn2::InfoReader& info, ScanResult result) {
    const auto value = [&info](std::string_view key) {
        return std::string(info.Find(key).value_or(std::string_view()));
    };
    const std::string name = kro_file::Name(path);
    Backup backup;
    backup.user = quarn2::GetUserName(name);
    backup.date = quarn2::GetDate(name);
    backup.archive = quarn2::StripSliceNumber(kro_file::Name(FirstWord(value("last-slice"))));
    backup.state = StateOf(result);
    backup.is_full = value("type") == "full";
    backup.is_marked_deleted = info.Find("deleted").has_value();
    backup.size = SizeOf(value("size"));
    backup.created = value("created");
    backup.finished = value("finished");
    backup.node = value("node");
    backup.base = FirstWord(value("base"));
    backup.info_path = path;
    return backup;
}

Backup FromEntry(const LedgerEntry& entry) {
    const std::string key = LedgerKey(entry.name);
    Backup backup;
    // The key is DATE.USER. Append ".info", so that the functions of names.h do not mistake the end
    // of a user name for the suffix of an archive.
    backup.user = quarn2::GetUserName(key + ".info");
    backup.date = quarn2::GetDate(key + ".info");
    backup.archive = entry.name;
    backup.state = entry.completed.empty() ? State::kUnfinished : State::kLeftover;
    backup.is_full = str::StartsWith(entry.name, "F");
    backup.size = entry.Bytes();
    backup.created = entry.started;
    return backup;
}

std::optional<std::int64_t> AgeInDays(const Backup& backup, const std::string& reference) {
    constexpr std::int64_t kDay = 86400;
    const std::string date =
        backup.date == "custom" ? backup.created.substr(0, kDateSize) : backup.date;
    if (!kro_date::IsDate(date) || !kro_date::IsDate(reference)) return std::nullopt;
    const std::int64_t seconds =
        kro_date::DateTime(reference + " 12:00:00") - kro_date::DateTime(date + " 12:00:00");
    // A day has 23 or 25 hours when summer time begins or ends.
    const std::int64_t half = seconds < 0 ? -kDay / 2 : kDay / 2;
    return (seconds + half) / kDay;
}
