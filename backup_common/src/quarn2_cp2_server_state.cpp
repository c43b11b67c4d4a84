#include "quarn2_cp2_server_state.h"

#include <unistd.h>

#include <cerrno>
#include <map>

#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/kro_new_file.h"
#include "kro/str.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr mode_t kMode = 0600;

}  // namespace

StateFile::StateFile(const std::string& storage)
    : path_(str::Append("tmp/quarn2_cp.state", storage, "#")) {}

// The file describes a running process and is useless after a power failure, so a write needs no
// sync.
void StateFile::Replace(const std::string& text) const {
    kro_file::NewFile file(path_, kMode);
    ssize_t written = ::write(file.fd(), text.data(), text.size());
    while (written < 0 && errno == EINTR) written = ::write(file.fd(), text.data(), text.size());
    if (written != static_cast<ssize_t>(text.size())) {
        throw kro_err::FromErrno("Failed to write '" + path_ + "'", written < 0 ? errno : ENOSPC);
    }
    file.Commit(kro_file::NewFile::Durability::kLater);
}

bool StateFile::Write(const PidFile& server, const std::string& identity,
                      const StateFigures& figures) {
    std::map<std::string, std::string> state = {{"date", server.date},
                                                {"key", server.key},
                                                {"max_count", str::Str(figures.max_count)},
                                                {"pid", server.pid},
                                                {"reserved", str::Str(figures.reserved)},
                                                {"storage", identity},
                                                {"time", kro_date::DateTime::Now().AsDateTime()},
                                                {"unfinished", str::Str(figures.unfinished)},
                                                {"used", str::Str(figures.used)}};
    if (figures.limit) state["limit"] = str::Str(*figures.limit);
    last_write_ = kro_date::SteadyClock::now();
    written_.reset();
    try {
        Replace(str::Join(state, "\n"));
        written_ = figures;
        return true;
    } catch (const std::exception& error) {
        if (!has_failed_) {
            KRO_LOG(kLog, 4,
                    "Cant write '%s', so jobs with the token of another storage are not refused. "
                    "What: %s",
                    path_.c_str(), error.what());
        }
        has_failed_ = true;
        return false;
    }
}

void StateFile::Update(const PidFile& server, const std::string& identity,
                       const StateFigures& figures) {
    if (written_ == figures) return;
    if (written_ && kro_date::SteadyClock::now() - last_write_ < kPause) return;
    Write(server, identity, figures);
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
