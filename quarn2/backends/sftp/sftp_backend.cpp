#include "sftp_backend.h"

#include <algorithm>
#include <type_traits>
#include <utility>

#include "connection.h"
#include "download.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "place.h"
#include "session.h"
#include "token/sftp_scheme.h"
#include "tree.h"
#include "upload.h"

namespace quarn2 {

namespace {

using kro_err::Error;
using kro_err::Kind;

constexpr std::uint16_t kDefaultPort = 22;
constexpr int kDefaultTimeout = 60;
// The timeout in seconds for the removal of a failed upload's temporary file. It is short, because
// the next upload of the same name also removes the file.
constexpr int kCleanUpTimeout = 10;
sftp::Account AccountOf(const BackupToken& token) {
    sftp::Account account;
    account.host = token.host();
    account.port = token.port() == 0 ? kDefaultPort : token.port();
    account.user = token.user();
    account.password = token.password();
    account.key_file = token.Param("key");
    account.known_hosts_file = token.Param("known_hosts");
    const std::string timeout = token.Param("timeout");
    account.timeout = timeout.empty() ? kDefaultTimeout : str::Int(timeout);
    return account;
}

class SftpBackend final : public StorageBackend {
  public:
    SftpBackend(sftp::Account account, std::string root)
        : account_(std::move(account)),
          place_(std::move(root),
                 account_.user + "@" + account_.host + ":" + std::to_string(account_.port)) {}

    bool Put(const std::string& name, ByteSource& source) override {
        sftp::UploadState state;
        try {
            const bool stored = Run(state.started, [&](sftp::Session& session) {
                return sftp::Upload(session, place_, name, source, state);
            });
            CleanUp(state.temporary);
            return stored;
        } catch (...) {
            CleanUp(state.temporary);
            throw;
        }
    }

    void Get(const std::string& name, ByteSink& sink) override {
        bool started = false;
        Run(started,
            [&](sftp::Session& session) { sftp::Download(session, place_, name, sink, started); });
    }

    void Remove(const std::string& name) override {
        Repeatable([&](sftp::Session& session) { sftp::Remove(session, place_, name); });
    }

    void RemoveDir(const std::string& name) override {
        Repeatable([&](sftp::Session& session) { sftp::RemoveDir(session, place_, name); });
    }

    void MakeDir(const std::string& name) override {
        Repeatable([&](sftp::Session& session) { sftp::MakeDir(session, place_, name); });
    }

    std::vector<std::string> List(const std::string& name) override {
        return NamesOf(ListSizes(name));
    }

    std::vector<ListedEntry> ListSizes(const std::string& name) override {
        return Repeatable(
            [&](sftp::Session& session) { return sftp::ListSizes(session, place_, name); });
    }

    void Clear() override {
        Repeatable([&](sftp::Session& session) { sftp::Clear(session, place_); });
    }

  private:
    template <class Action>
    using Result = std::invoke_result_t<const Action&, sftp::Session&>;

    // Runs `action` with a connected session. If the server has closed the connection since its
    // last use, connects again and repeats the action. Does not repeat the action after it has set
    // `started`.
    template <class Action>
    Result<Action> Run(const bool& started, const Action& action) {
        const bool used_before = DropBroken() != nullptr;
        try {
            return action(Connected());
        } catch (const Error& error) {
            const bool stale = used_before && !started && error.kind() == Kind::kUnavailable;
            if (DropBroken() != nullptr || !stale) throw;
        } catch (...) {
            DropBroken();
            throw;
        }
        return action(Connected());
    }

    template <class Action>
    Result<Action> Repeatable(const Action& action) {
        const bool nothing_started = false;
        return Run(nothing_started, action);
    }

    sftp::Session* DropBroken() noexcept {
        if (session_ != nullptr && session_->broken()) session_.reset();
        return session_.get();
    }

    sftp::Session& Connected() {
        if (session_ != nullptr) {
            try {
                session_->CheckAlive();
            } catch (const Error&) {
                session_.reset();
            }
        }
        if (session_ == nullptr) {
            session_ = std::make_unique<sftp::Session>(sftp::Connect(account_));
        }
        return *session_;
    }

    // Removes the temporary file of an upload after a connection error, over a new connection.
    void CleanUp(const std::string& temporary) noexcept {
        if (temporary.empty()) return;
        try {
            DropBroken();
            sftp::Account account = account_;
            account.timeout = std::min(account.timeout, kCleanUpTimeout);
            sftp::Session session(sftp::Connect(account));
            session.WaitStatus(
                session.Send(std::move(sftp::Request(sftp::Type::kRemove).Text(temporary))));
        } catch (const std::exception&) {
            // Ignore the error, because the next upload of this name removes the file.
            return;
        }
    }

    sftp::Account account_;
    sftp::Place place_;
    std::unique_ptr<sftp::Session> session_;
};

}  // namespace

BackendScheme SftpScheme() {
    BackendScheme scheme{*FindTokenScheme("sftp")};
    scheme.open = [](const BackupToken& token) {
        return std::make_unique<SftpBackend>(AccountOf(token), SftpRootOf(token));
    };
    scheme.keeps_connections = true;
    return scheme;
}

}  // namespace quarn2
