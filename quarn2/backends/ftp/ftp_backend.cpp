#include "ftp_backend.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "base/stored_name.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_new_file.h"
#include "meaning.h"
#include "session.h"
#include "temporary.h"
#include "tree.h"

namespace quarn2 {

namespace {

using ftp::Found;
using ftp::Outcome;
using ftp::Reply;
using kro_err::Error;
using kro_err::Kind;

// The content of the probe file: zeros. The backend uploads a probe file to find out whether the
// storage is full.
class Zeros final : public ByteSource {
  public:
    explicit Zeros(std::int64_t size) : size_(size) {}
    std::int64_t size() const override { return size_; }
    std::size_t ReadAt(std::int64_t offset, std::span<std::byte> buffer) override {
        const auto count = std::min(buffer.size(), static_cast<std::size_t>(size_ - offset));
        std::fill_n(buffer.begin(), count, std::byte{0});
        return count;
    }
    void CheckUnchanged() override {}

  private:
    std::int64_t size_;
};

constexpr std::int64_t kProbeSize = 64L * 1024;

class FtpBackend final : public StorageBackend {
  public:
    FtpBackend(const BackupToken& token, bool tls)
        : session_(token, tls),
          tree_(session_, kro_file::GoodPath(token.path())),
          user_(token.user()) {}

    bool Put(const std::string& name, ByteSource& source) override;
    void Get(const std::string& name, ByteSink& sink) override;
    void Remove(const std::string& name) override;
    void RemoveDir(const std::string& name) override;
    void MakeDir(const std::string& name) override;
    std::vector<std::string> List(const std::string& name) override {
        return NamesOf(ListSizes(name));
    }
    std::vector<ListedEntry> ListSizes(const std::string& name) override;
    void Clear() override;

  private:
    bool PutAs(const ftp::TemporaryName& temporary, const std::string& name, ByteSource& source);
    Outcome Store(const std::string& path, const std::string& name, ByteSource& source);
    void CheckStored(const Outcome& outcome, ByteSource& source) const;
    bool IsFull(const Outcome& outcome, const ftp::TemporaryName& temporary, std::int64_t size);
    bool IsRoomShort(const ftp::TemporaryName& temporary, std::int64_t size);
    bool IsRoomFreedByRemoval(const ftp::TemporaryName& temporary, std::int64_t partial);
    // The result of uploading a probe file. kUnclear: the upload failed, and the server gave no
    // reason.
    enum class Probe { kStored, kFull, kUnclear };
    Probe StoreProbe(const ftp::TemporaryName& temporary, std::int64_t size);
    void Discard(const std::string& path) noexcept;
    void Rename(const ftp::TemporaryName& temporary, const std::string& name, std::int64_t size);
    bool IsRenamed(const std::string& from, const std::string& to, std::int64_t size);
    void RenameOver(const ftp::TemporaryName& temporary, const std::string& name,
                    const Reply& refusal);
    void FinishRenameOver(const ftp::TemporaryName& temporary, const std::string& target);
    ftp::TemporaryName TemporaryOf(const std::string& name) const {
        return {user_, tree_.PathOf(name)};
    }

    ftp::Session session_;
    ftp::Tree tree_;
    std::string user_;
};

std::exception_ptr ErrorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

// --- Put ---

bool FtpBackend::Put(const std::string& name, ByteSource& source) {
    if (!tree_.MakeDirectories(kro_file::Path(name))) return false;
    const ftp::TemporaryName temporary = TemporaryOf(name);
    const Outcome outcome = Store(temporary.path(), name, source);
    if (outcome.code != CURLE_OK || outcome.thrown) {
        const std::exception_ptr error = ErrorOf([&] { session_.Throw(outcome); });
        const bool full = IsFull(outcome, temporary, source.size());
        Discard(temporary.path());
        if (!full) std::rethrow_exception(error);
        return false;
    }
    const std::exception_ptr error = ErrorOf([&] {
        CheckStored(outcome, source);
        source.CheckUnchanged();
        Rename(temporary, name, source.size());
    });
    if (!error) return true;
    Discard(temporary.path());
    std::rethrow_exception(error);
}

// Uploads the source to `path`. If the server refuses the upload, creates the directories again and
// retries once, because another process may have removed a directory that tree_ has cached.
Outcome FtpBackend::Store(const std::string& path, const std::string& name, ByteSource& source) {
    Outcome outcome = session_.Store(path, source);
    const Reply* const reply = session_.transcript().Find("STOR");
    constexpr int kNotTaken = 550;
    const bool refused = outcome.code != CURLE_OK && reply != nullptr && reply->code >= kNotTaken &&
                         !ftp::IsFull(*reply);
    if (!refused) return outcome;
    const std::exception_ptr error = ErrorOf([&] { session_.Throw(outcome); });
    tree_.Forget();
    const bool made = tree_.MakeDirectories(kro_file::Path(name));
    if (made) return session_.Store(path, source);
    outcome.thrown = error;
    return outcome;
}

// Throws kUnavailable unless the server reports the size of the source as the size of the uploaded
// file. If the server does not support SIZE, its confirmation of the transfer and libcurl's count
// of the sent bytes are sufficient.
void FtpBackend::CheckStored(const Outcome& outcome, ByteSource& source) const {
    const Reply* const reply = session_.transcript().Find("SIZE");
    const bool unknown = reply != nullptr && ftp::IsUnknownCommand(*reply);
    if (outcome.size == source.size() || unknown) return;
    const std::string stored =
        outcome.size < 0 ? "no size" : "a size of " + std::to_string(outcome.size) + " bytes";
    throw Error(Kind::kUnavailable, session_.what() + " reports " + stored +
                                        " after an upload of " + std::to_string(source.size()) +
                                        " bytes");
}

// --- Detection of a full storage ---

// Returns true if an upload failed because the storage is full. Only some servers report this
// reason. Other servers report no reason, or close the data connection before libcurl has read
// their reply; the cause can then also be a broken disk. A failure without a reason counts as a
// full storage only if further queries confirm that there is no free space, because the program
// deletes old backups when a storage is full.
bool FtpBackend::IsFull(const Outcome& outcome, const ftp::TemporaryName& temporary,
                        std::int64_t size) {
    const Reply* const reply = session_.transcript().Find("STOR");
    if (reply == nullptr || outcome.thrown || outcome.code == CURLE_OPERATION_TIMEDOUT)
        return false;
    const ftp::Meaning meaning = ftp::MeaningOf(*reply);
    if (meaning == ftp::Meaning::kNoRoom) return true;
    const bool is_unclear = meaning == ftp::Meaning::kUnavailable ||
                            (!reply->IsRefusal() && outcome.code == CURLE_SEND_ERROR);
    if (!is_unclear) return false;
    bool full = false;
    const std::exception_ptr error = ErrorOf([&] { full = IsRoomShort(temporary, size); });
    return full && !error;
}

// Returns true if the storage has too little free space for an upload of `size` bytes. Queries the
// free space with AVBL, which few servers support. On other servers, uploads a small probe file
// while the unfinished upload still occupies its space. If the server has already removed the
// unfinished upload, the function uses the server's reply to ALLO instead.
bool FtpBackend::IsRoomShort(const ftp::TemporaryName& temporary, std::int64_t size) {
    const std::vector<Reply> replies = session_.Commands(
        {"TYPE I", "SIZE " + temporary.path(), "AVBL " + kro_file::Path(temporary.path()),
         "ALLO " + std::to_string(size)});
    const std::int64_t partial = std::max<std::int64_t>(0, ftp::NumberIn(replies[1]));
    const std::int64_t available = ftp::NumberIn(replies[2]);
    if (available >= 0) return available < size - partial;
    if (replies[1].IsRefusal()) return ftp::IsFull(replies[3]);
    const Probe probe = StoreProbe(temporary, kProbeSize);
    if (probe != Probe::kUnclear) return probe == Probe::kFull;
    return IsRoomFreedByRemoval(temporary, partial);
}

// Finds out whether the storage is full when the server gives no reason for the failure of an
// upload and of a probe file. Removes the unfinished upload of `partial` bytes and uploads a probe
// file. If the probe succeeds now, the unfinished upload had used up the free space, and the
// function returns true. On a broken disk the probe fails again.
bool FtpBackend::IsRoomFreedByRemoval(const ftp::TemporaryName& temporary, std::int64_t partial) {
    if (partial == 0) return false;
    if (!session_.Command("DELE " + temporary.path()).IsDone()) return false;
    return StoreProbe(temporary, std::min(partial, kProbeSize)) == Probe::kStored;
}

FtpBackend::Probe FtpBackend::StoreProbe(const ftp::TemporaryName& temporary, std::int64_t size) {
    Zeros zeros(size);
    const std::string path = temporary.ProbePath();
    const Outcome outcome = session_.Store(path, zeros);
    const Reply* const reply = session_.transcript().Find("STOR");
    const bool full = reply != nullptr && ftp::IsFull(*reply);
    Discard(path);
    if (outcome.code == CURLE_OK && outcome.size == size) return Probe::kStored;
    return full ? Probe::kFull : Probe::kUnclear;
}

// Removes a temporary file. Ignores failures, because the next upload or removal of the same name
// also removes this file.
void FtpBackend::Discard(const std::string& path) noexcept {
    const std::exception_ptr ignored = ErrorOf([&] { session_.Command("DELE " + path); });
}

// --- Renaming ---

void FtpBackend::Rename(const ftp::TemporaryName& temporary, const std::string& name,
                        std::int64_t size) {
    const std::string target = tree_.PathOf(name);
    std::vector<Reply> replies;
    const std::exception_ptr error = ErrorOf([&] {
        replies = session_.Commands({"RNFR " + temporary.path(), "RNTO " + target});
    });
    if (error) {
        if (IsRenamed(temporary.path(), target, size)) return;
        std::rethrow_exception(error);
    }
    if (replies[0].IsRefusal()) session_.ThrowRefused(replies[0], "rename to " + Quoted(name));
    if (!replies[1].IsDone()) RenameOver(temporary, name, replies[1]);
}

// Finds out whether the server has renamed `from` to `to` when the connection was lost before its
// reply.
bool FtpBackend::IsRenamed(const std::string& from, const std::string& to, std::int64_t size) {
    const std::vector<Reply> replies = session_.Commands({"TYPE I", "SIZE " + from, "SIZE " + to});
    return replies[1].code >= 500 && replies[2].IsDone() && replies[2].text == std::to_string(size);
}

// Replaces a file on servers that cannot rename over an existing file. Renames the old file to a
// temporary name, renames the new file to the target, and then removes the old file. If the second
// rename fails, renames the old file back.
void FtpBackend::RenameOver(const ftp::TemporaryName& temporary, const std::string& name,
                            const Reply& refusal) {
    const std::string target = tree_.PathOf(name);
    const Found found = tree_.FindType(name);
    if (found == Found::kDirectory) {
        throw Error(Kind::kFailed, Quoted(name) + " on the storage is a directory");
    }
    if (found == Found::kNothing) session_.ThrowRefused(refusal, "rename to " + Quoted(name));
    const std::string old = temporary.OldPath();
    std::vector<Reply> replies;
    const std::exception_ptr error = ErrorOf([&] {
        replies = session_.Commands({"DELE " + old, "RNFR " + target, "RNTO " + old,
                                     "RNFR " + temporary.path(), "RNTO " + target});
    });
    if (error || !replies.back().IsDone()) FinishRenameOver(temporary, target);
    if (error) std::rethrow_exception(error);
    if (!replies.back().IsDone()) session_.ThrowRefused(refusal, "rename to " + Quoted(name));
    Discard(old);
}

// Tries to rename the old file from its temporary name back to the target. The server refuses this
// if the target exists, because the old file was never renamed or the new file has already replaced
// it.
void FtpBackend::FinishRenameOver(const ftp::TemporaryName& temporary, const std::string& target) {
    session_.Commands({"RNFR " + temporary.OldPath(), "RNTO " + target});
}

// --- Get, Remove and directories ---

void FtpBackend::Get(const std::string& name, ByteSink& sink) {
    const Outcome outcome = session_.Retrieve(tree_.PathOf(name), sink);
    if (outcome.code == CURLE_OK && !outcome.thrown) return;
    const Reply* const reply = session_.transcript().Refusal();
    const bool refused =
        outcome.code == CURLE_REMOTE_FILE_NOT_FOUND || outcome.code == CURLE_FTP_COULDNT_RETR_FILE;
    if (outcome.thrown || reply == nullptr || !refused) session_.Throw(outcome);
    const Reply refusal = *reply;
    tree_.ThrowMissing(refusal, name, "download " + Quoted(name));
}

void FtpBackend::Remove(const std::string& name) {
    tree_.RemoveFile(name);
    const ftp::TemporaryName temporary = TemporaryOf(name);
    // Another upload of this name is running, so its temporary files must not be removed.
    if (temporary.is_additional()) return;
    session_.Commands({"DELE " + temporary.path(), "DELE " + temporary.OldPath()});
}

void FtpBackend::RemoveDir(const std::string& name) { tree_.RemoveDirectory(name); }

void FtpBackend::MakeDir(const std::string& name) {
    tree_.Forget();
    if (!tree_.MakeDirectories(name)) {
        throw Error(Kind::kFailed, session_.what() + " has no space for directory " + Quoted(name));
    }
}

std::vector<ListedEntry> FtpBackend::ListSizes(const std::string& name) {
    std::vector<ftp::Entry> entries;
    try {
        entries = tree_.Entries(name);
    } catch (const Error& error) {
        const bool maybe_file = error.kind() == Kind::kNotFound && !name.empty();
        if (!maybe_file || tree_.FindType(name) != Found::kFile) throw;
        return {{name, std::nullopt}};
    }
    std::vector<ListedEntry> listed;
    for (ftp::Entry& entry : entries) {
        if (kro_file::IsTemporaryName(entry.name)) continue;
        listed.push_back({std::move(entry.name), entry.size});
    }
    return listed;
}

void FtpBackend::Clear() {
    tree_.CheckRoot();
    tree_.Empty("");
}

BackendScheme Scheme(const std::string& name, bool tls) {
    BackendScheme scheme{*FindTokenScheme(name)};
    scheme.keeps_connections = true;
    scheme.open = [tls](const BackupToken& token) {
        return std::make_unique<FtpBackend>(token, tls);
    };
    return scheme;
}

}  // namespace

BackendScheme FtpsScheme() { return Scheme("ftps", true); }

BackendScheme FtpScheme() { return Scheme("ftp", false); }

}  // namespace quarn2
