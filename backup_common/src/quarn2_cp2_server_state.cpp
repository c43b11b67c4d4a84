#include "quarn2_cp2_server_state.h"

#include <map>

#include "kro/kro_date.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr mode_t kMode = 0600;

}  // namespace

StateFile::StateFile(const std::string& storage)
    : path_(str::Append("tmp/quarn2_cp.state", storage, "#")) {}

bool StateFile::Write(const PidFile& server, const std::string& identity) {
    const std::map<std::string, std::string> state = {
        {"date", server.date},
        {"key", server.key},
        {"pid", server.pid},
        {"storage", identity},
        {"time", kro_date::DateTime::Now().AsDateTime()}};
    try {
        kro_file::Write(path_, str::Join(state, "\n"), kMode);
        return true;
    } catch (const std::exception& error) {
        if (!has_failed_) {
            KRO_LOG(kLog, 4,
                    "Cant write '%s', so jobs with another storage's token are not refused. "
                    "What: %s",
                    path_.c_str(), error.what());
        }
        has_failed_ = true;
        return false;
    }
}

std::map<std::string, std::string> StateFile::Read() const {
    return str::Split(kro_file::ReadOurs(path_), "\n");
}

std::string StateFile::IdentityOf(const PidFile& server) const {
    try {
        std::map<std::string, std::string> state = Read();
        return state["pid"] == server.pid && state["key"] == server.key ? state["storage"] : "";
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 6, "%s", error.what());
        return {};
    }
}

void StateFile::Remove() const { kro_file::RemoveFile(path_); }
