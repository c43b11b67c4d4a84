#include "report_server.h"

#include <sys/stat.h>

#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/str.h"
#include "quarn2_cp2_server_running.h"
#include "quarn2_cp2_server_state.h"

namespace {

std::string ModificationTime(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return {};
    return kro_date::DateTime(status.st_mtim.tv_sec).AsDateTime();
}

void ReadState(ServerFacts& facts, const std::string& storage) {
    try {
        facts.state = StateFile(storage).Read();
    } catch (const kro_err::Error& error) {
        if (error.kind() != kro_err::Kind::kNotFound) facts.state_fault = error.what();
    }
}

std::string ValueOf(const std::map<std::string, std::string>& lines, const std::string& key) {
    const auto found = lines.find(key);
    return found == lines.end() ? "" : found->second;
}

ServerStatus StatusOf(const ServerFacts& facts) {
    if (facts.holder && facts.pid_file.pid == str::Str(*facts.holder)) return ServerStatus::kRuns;
    // When a signal terminates the server, it truncates its pid file but keeps its locks until it
    // exits.
    return facts.holder || facts.is_locked ? ServerStatus::kChanging : ServerStatus::kNone;
}

std::optional<std::int64_t> NumberOf(const std::string& text) {
    if (text.empty()) return std::nullopt;
    try {
        return str::Int64(text);
    } catch (const kro_err::Error&) {
        return std::nullopt;
    }
}

}  // namespace

ServerFacts ReadServerFacts(const std::string& storage) {
    const ServerFiles files(storage);
    ServerFacts facts;
    ReadState(facts, storage);
    facts.holder = FindServer(files.pid);
    facts.is_locked = IsPidFileLocked(files.pid);
    facts.pid_file = ReadPidFile(files.pid);
    facts.pid_file_time = ModificationTime(files.pid);
    return facts;
}

ServerReport Conclude(const ServerFacts& facts) {
    ServerReport report;
    report.status = StatusOf(facts);
    const bool is_current = report.status != ServerStatus::kNone &&
                            ValueOf(facts.state, "pid") == facts.pid_file.pid &&
                            ValueOf(facts.state, "key") == facts.pid_file.key;
    if (!facts.state.empty() && !is_current) {
        report.stale = "of process " + ValueOf(facts.state, "pid") + ", written " +
                       ValueOf(facts.state, "time") + ", for " + ValueOf(facts.state, "storage");
    }
    if (report.status == ServerStatus::kNone) return report;
    report.pid = facts.pid_file.pid;
    report.since = facts.pid_file_time;
    report.date = facts.pid_file.date;
    if (is_current) {
        report.storage = ValueOf(facts.state, "storage");
        report.reserved = NumberOf(ValueOf(facts.state, "reserved"));
    }
    std::string params = facts.pid_file.params;
    report.size_limit = str::GetWord(params, "\n");
    report.count_limit = str::GetWord(params, "\n");
    return report;
}
