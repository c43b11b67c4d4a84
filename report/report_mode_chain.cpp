// --chain USER DATE: the files to restore one day.

#include <stdexcept>
#include <utility>

#include "kro/kro_file.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2/names.h"
#include "report_chain.h"
#include "report_files.h"
#include "report_modes.h"
#include "report_text.h"

namespace {

// One backup of the chain with its files.
struct Part {
    Backup backup;
    std::vector<StoredFile> files;
};

[[noreturn]] void ThrowFault(const Site& site, const std::string& fault) {
    const std::string& user = site.options.user;
    throw std::runtime_error("user '" + site.names.User(user) + "': " + site.names.In(fault, user));
}

Part ReadPart(const Backup& backup) {
    const quarn2::InfoMap info = quarn2::GetInfo(backup.info_path);
    return {backup, FilesOf(info, backup.user, backup.date, FindLocalFiles(backup.info_path))};
}

std::vector<Part> ReadParts(const Site& site, std::vector<Backup> backups) {
    const Restore restore = FindRestore(std::move(backups), site.options.chain_date);
    if (!restore.fault.empty()) ThrowFault(site, restore.fault);
    std::vector<Part> parts;
    try {
        for (const Backup& backup : restore.backups) parts.push_back(ReadPart(backup));
    } catch (const std::exception& error) {
        ThrowFault(site, error.what());
    }
    return parts;
}

const char* TypeOf(const Backup& backup) {
    if (backup.state == State::kCustom) return "custom";
    return backup.is_full ? "full" : "daily";
}

std::string SizeOf(const StoredFile& file) { return file.size ? SizeText(*file.size) : "?"; }

void WriteText(const Site& site, const std::vector<Part>& parts) {
    constexpr std::size_t kNumberColumn = 0;
    constexpr std::size_t kSizeColumn = 4;
    Table table({kNumberColumn, kSizeColumn});
    table.Add({"", "date", "type", "file", "size", "name on the storage"});
    int number = 0;
    for (const Part& part : parts) {
        for (const StoredFile& file : part.files) {
            table.Add({str::Str(++number), Escaped(part.backup.date), TypeOf(part.backup),
                       file.kind, SizeOf(file),
                       Escaped(site.names.In(file.name, part.backup.user))});
        }
        table.Add({"", Escaped(part.backup.date), TypeOf(part.backup), "all",
                   SizeText(part.backup.size)});
    }
    Output::Text(table.Text(0));
}

void WriteJson(const Site& site, const std::vector<Part>& parts) {
    int number = 0;
    for (const Part& part : parts) {
        for (const StoredFile& file : part.files) {
            Output::Json({{"number", ++number},
                          {"user", site.names.User(part.backup.user)},
                          {"date", part.backup.date},
                          {"type", TypeOf(part.backup)},
                          {"kind", file.kind},
                          {"name", site.names.In(file.name, part.backup.user)},
                          {"size", file.size ? kro_json::Value(*file.size) : kro_json::Value()},
                          {"backup_size", part.backup.size}});
        }
    }
}

}  // namespace

void RunChain(Site& site) {
    ReadServerAndLedger(site);
    std::vector<Backup> backups;
    ScanSite(site, [&](Backup&& backup) { backups.push_back(std::move(backup)); });
    const std::vector<Part> parts = ReadParts(site, std::move(backups));
    if (site.options.is_json) {
        WriteJson(site, parts);
    } else {
        WriteText(site, parts);
    }
}
