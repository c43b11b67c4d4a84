#include "upload.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "base/stored_name.h"
#include "dir_sync.h"
#include "free_space.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_proc.h"
#include "kro/str.h"
#include "tree.h"

namespace quarn2::sftp {

namespace {

using kro_err::Error;
using kro_err::Kind;

constexpr std::uint32_t kFileMode = 0640;
constexpr std::uint32_t kExclusive = kOpenWrite | kOpenCreate | kOpenExclusive;
// The number of bytes that are read from the source at a time.
constexpr std::size_t kBlock = 1024UL * 1024;
// Maximum number of bytes that are sent and not yet confirmed. This is more than the window of any
// server allows, so the limit does not slow down uploads. Unconfirmed bytes are not kept in memory.
constexpr std::size_t kMaxInFlight = 8UL * 1024 * 1024;
// The maximum size of a file that is sent before the server has opened the temporary file. The
// saved round trip matters only for small files. If the server refuses the data, at most this
// number of bytes was sent in vain.
constexpr std::int64_t kMaxEarly = 256L * 1024;
// The time that an existing temporary file is watched. A running upload writes several times a
// second, so a file that does not change during this time was left by an interrupted upload.
constexpr int kWatchMilliseconds = 3000;
// How often the program watches a temporary file that still changes. After a connection is lost,
// the server still writes the data that it has received, so the file of an interrupted upload can
// change at first.
constexpr int kMaxWatches = 3;
// In bytes per second. The timeout of a sync assumes that the server's disk is at least this fast.
constexpr std::int64_t kMinSyncRate = 4LL * 1024 * 1024;
constexpr int kRenameAttempts = 5;
constexpr int kOpenAttempts = 3;

const char* const kSync = "fsync@openssh.com";
const char* const kPosixRename = "posix-rename@openssh.com";

// Thrown if the storage has no space for the file.
struct NoRoom {};
// Thrown if the server has refused a request that was sent before the temporary file was open.
struct EarlyRefused {};

class Uploader {
  public:
    Uploader(Session& session, const Place& place, const std::string& name, ByteSource& source,
             UploadState& state)
        : session_(session),
          place_(place),
          name_(name),
          path_(place.PathOf(name)),
          directory_(kro_file::Path(path_)),
          directories_{directory_},
          source_(source),
          state_(state) {}

    bool Run() {
        try {
            ReadEarly();
            try {
                Write();
            } catch (const EarlyRefused&) {
                UndoEarlyOpen();
                Write();
            }
            Rename();
            state_.temporary.clear();
            sync_.Finish();
        } catch (const NoRoom&) {
            Discard();
            return false;
        } catch (...) {
            Discard();
            throw;
        }
        return true;
    }

  private:
    // Writes the temporary file and syncs it.
    void Write() {
        Open();
        state_.started = true;
        if (!is_early_) {
            SendAll();
            SendFinish(state_.temporary);
        }
        Finish();
        is_early_ = false;
        session_.handle_guess().Opened(directory_, opened_as_);
    }

    std::uint32_t SendPath(Type type, const std::string& path) {
        return session_.Send(std::move(Request(type).Text(path)));
    }
    std::uint32_t SendHandle(Type type) { return SendPath(type, handle_); }

    // --- The temporary file ---

    void Open() {
        state_.lock.Release();
        const std::uint32_t root = SendRootQuery(session_, place_);
        for (const std::string& path : TemporaryPaths(path_)) {
            if (!state_.lock.TryLock(place_.server() + path)) continue;
            std::uint32_t opened = SendOpen(path, kExclusive);
            SendEarly(path);
            CheckRootOnce(root, opened);
            if (TryOpen(path, opened)) return;
        }
        CheckRootOnce(root, 0);
        throw Error(Kind::kUnavailable, "too many concurrent uploads of " + Quoted(path_));
    }

    void CheckRootOnce(std::uint32_t root, std::uint32_t opened) {
        if (std::exchange(root_checked_, true)) return;
        Reply answer = session_.Wait(root);
        try {
            CheckRoot(place_, answer);
        } catch (...) {
            session_.Forget(opened);
            throw;
        }
    }

    std::uint32_t SendOpen(const std::string& path, std::uint32_t flags) {
        return session_.Send(std::move(Request(Type::kOpen).Text(path).U32(flags).Mode(kFileMode)));
    }

    // Creates the temporary file at `path`. `id` is the id of the first request to open it. Returns
    // false if another machine is writing to an existing file at this path, or if the file of an
    // interrupted upload cannot be removed.
    bool TryOpen(const std::string& path, std::uint32_t id) {
        std::uint32_t flags = kExclusive;
        for (int failures = 0;; id = SendOpen(path, flags)) {
            Reply reply = session_.Wait(id);
            if (reply.type == Type::kHandle) {
                opened_as_ = reply.fields.Text();
                state_.temporary = path;
                CheckGuess();
                if (!is_early_) handle_ = opened_as_;
                return true;
            }
            const Status status = reply.AsStatus();
            DropEarly();
            if (status.code == Code::kNoSuchFile && !made_directories_) {
                MakeDirectories();
            } else if (const auto there = ReadAttributes(session_, path)) {
                flags = kExclusive;
                if (!IsLeftover(path, *there)) return false;
                session_.WaitStatus(SendPath(Type::kRemove, path));
                if (++failures == kOpenAttempts) return false;
            } else if (flags == kExclusive && MayWantTruncate(status)) {
                flags = kExclusive | kOpenTruncate;
            } else if (++failures == kOpenAttempts || status.code != Code::kFailure) {
                // Retry after the first kFailure replies, because another upload may have renamed
                // its temporary file in the meantime.
                ThrowFailed("create a temporary file for", status);
            }
        }
    }

    // Returns true if the server may require the flag kOpenTruncate to create a file. The flag is
    // added only if no file exists at the path, because a server that ignores kOpenExclusive would
    // truncate the file of another machine.
    bool MayWantTruncate(const Status& status) const {
        const Failure failure = FailureOf(status, path_);
        return failure == Failure::kFailed || failure == Failure::kNotFound;
    }

    bool IsLeftover(const std::string& path, Attributes before) {
        for (int watch = 0; watch < kMaxWatches; ++watch) {
            kro_proc::Sleep(kWatchMilliseconds);
            const std::optional<Attributes> now = ReadAttributes(session_, path);
            if (!now || (now->size == before.size && now->mtime == before.mtime)) return true;
            before = *now;
        }
        return false;
    }

    void MakeDirectories() {
        made_directories_ = true;
        session_.handle_guess().Forget(directory_);
        MadeDirs made = MakeDirs(session_, place_, kro_file::Path(name_));
        if (made.parents.empty() && made.refusal.code != Code::kOk) {
            const std::string directory = kro_file::Path(path_);
            const auto there = ReadAttributes(session_, directory);
            if (!there) ThrowFailed("create the directory of", made.refusal);
            if (there->IsFile()) {
                throw Error(Kind::kFailed,
                            Quoted(directory) + " on the storage is not a directory");
            }
        }
        directories_.insert(directories_.end(), made.parents.begin(), made.parents.end());
    }

    // --- Data sent before the file is open ---

    // Reads a small file before the upload begins, if the handle of its temporary file is
    // predictable. No read error can then occur while the server opens the file.
    void ReadEarly() {
        if (source_.size() > kMaxEarly || !session_.handle_guess().For(directory_)) return;
        const auto size = static_cast<std::size_t>(source_.size());
        early_data_.resize(Session::kHeadroom + size);
        const std::span<std::byte> data = std::span(early_data_).subspan(Session::kHeadroom);
        if (source_.ReadAt(0, data) != size) ThrowEndedEarly();
        guess_ = session_.handle_guess().For(directory_);
    }

    // Sends all requests of the upload except for the rename, with the predicted handle. The rename
    // must wait for the replies, because the server may have refused the data.
    void SendEarly(const std::string& path) {
        if (!guess_) return;
        handle_ = *std::exchange(guess_, std::nullopt);
        is_early_ = true;
        std::span<std::byte> rest = early_data_;
        for (std::int64_t offset = 0; rest.size() > Session::kHeadroom;) {
            offset += static_cast<std::int64_t>(SendWrite(rest, offset));
        }
        SendFinish(path);
    }

    void CheckGuess() {
        if (!is_early_ || opened_as_ == sent_handle_) return;
        session_.handle_guess().SetWrong();
        DropEarly();
    }

    // Waits until the server has refused all requests with the predicted handle. Then the server
    // cannot apply any of them to the file that it opens next.
    void DropEarly() {
        if (!std::exchange(is_early_, false)) return;
        SettleAll();
        sync_.Abandon();
    }

    void SettleAll() {
        for (const std::uint32_t id : std::exchange(writes_, {})) session_.WaitAndDiscard(id);
        for (const std::uint32_t id : std::exchange(later_, {})) session_.WaitAndDiscard(id);
    }

    // Removes the temporary file after the server has opened it with the predicted handle and has
    // refused to write to it. A server that executes requests in parallel refuses a write if it has
    // not opened the file yet. The upload is then repeated without a prediction. If the storage is
    // full, the repeated upload detects this.
    void UndoEarlyOpen() {
        session_.handle_guess().SetWrong();
        DropEarly();
        session_.WaitStatus(SendPath(Type::kClose, opened_as_));
        session_.WaitStatus(SendPath(Type::kRemove, state_.temporary));
        state_.temporary.clear();
        root_checked_ = false;
    }

    // --- Transfer of the data ---

    [[noreturn]] static void ThrowEndedEarly() {
        throw Error(Kind::kFailed, "the source became shorter while it was uploaded");
    }

    void SendAll() {
        constexpr std::size_t kRoom = Session::kHeadroom;
        const auto buffer = std::make_unique_for_overwrite<std::byte[]>(kRoom + kBlock);
        for (std::int64_t offset = 0; offset < source_.size();) {
            const std::size_t got = source_.ReadAt(offset, {buffer.get() + kRoom, kBlock});
            if (got == 0) ThrowEndedEarly();
            SendBlock({buffer.get(), kRoom + got}, offset);
            offset += static_cast<std::int64_t>(got);
        }
    }

    // Sends the data, and processes replies to earlier requests in between.
    void SendBlock(std::span<std::byte> room_and_data, std::int64_t offset) {
        while (room_and_data.size() > Session::kHeadroom) {
            while ((writes_.size() + 1) * session_.write_size() > kMaxInFlight) ReadAnswer();
            offset += static_cast<std::int64_t>(SendWrite(room_and_data, offset));
            while (session_.HasNext()) ReadAnswer();
        }
    }

    // Sends up to write_size() bytes from the front of the data in one write request, removes these
    // bytes from `room_and_data` and returns their number. The header of the next request
    // overwrites the last of these bytes.
    std::size_t SendWrite(std::span<std::byte>& room_and_data, std::int64_t offset) {
        const std::size_t size =
            std::min(room_and_data.size() - Session::kHeadroom, session_.write_size());
        Request request(Type::kWrite);
        request.Text(handle_).U64(static_cast<std::uint64_t>(offset));
        writes_.insert(session_.SendWithData(std::move(request),
                                             room_and_data.first(Session::kHeadroom + size)));
        room_and_data = room_and_data.subspan(size);
        return size;
    }

    void ReadAnswer() {
        Reply reply = session_.Next();
        if (writes_.erase(reply.id) > 0) CheckDone("write", reply.AsStatus());
    }

    void CheckDone(const std::string& what, const Status& status) {
        if (status.code == Code::kOk) return;
        if (is_early_) throw EarlyRefused();
        ThrowFailed(what, status);
    }

    // --- Completion ---

    // Returns the number of seconds that the server may need to sync the file.
    int SyncPatience() const {
        return static_cast<int>(std::min<std::int64_t>(source_.size() / kMinSyncRate, 1'000'000));
    }

    // Sends the requests that follow the data. `temporary` is the path of the temporary file.
    void SendFinish(const std::string& temporary) {
        synced_.reset();
        if (session_.Supports(kSync)) {
            synced_ = session_.Send(std::move(Request(Type::kExtended).Text(kSync).Text(handle_)));
            later_.push_back(*synced_);
        }
        measured_ = SendHandle(Type::kFstat);
        closed_ = SendHandle(Type::kClose);
        seen_ = SendPath(Type::kLstat, temporary);
        sent_handle_ = std::exchange(handle_, {});
        sync_.Open(directories_);
        later_.insert(later_.end(), {measured_, closed_, seen_});
    }

    void Finish() {
        while (!writes_.empty()) {
            const std::uint32_t id = *writes_.begin();
            writes_.erase(writes_.begin());
            CheckDone("write", session_.WaitStatus(id));
        }
        if (synced_) CheckSynced(session_.WaitStatus(*synced_, SyncPatience()));
        const Attributes own = AttributesIn(session_.Wait(measured_));
        CheckDone("close", session_.WaitStatus(closed_, SyncPatience()));
        CheckSame(own, Named());
        sync_.WaitForHandles();
        source_.CheckUnchanged();
    }

    void CheckSynced(const Status& status) {
        if (status.code != Code::kUnsupported) CheckDone("sync", status);
    }

    // Returns the attributes in a reply, or empty attributes if the server replied with an error
    // status.
    static Attributes AttributesIn(Reply reply) {
        return reply.type == Type::kAttrs ? reply.fields.Attrs() : Attributes();
    }

    // Returns the attributes of the file at the temporary path. A server that executes requests in
    // parallel may read the attributes before it has written early data, so they are then queried
    // again.
    Attributes Named() {
        Attributes named = AttributesIn(session_.Wait(seen_));
        if (!is_early_ || named.size == static_cast<std::uint64_t>(source_.size())) return named;
        return ReadAttributes(session_, state_.temporary).value_or(Attributes());
    }

    // Checks that the file at the temporary path is the file that this upload has written. Another
    // machine may have removed the file, because it seemed abandoned, and created its own file
    // there. Only the size can show this. The modification time cannot, because a server with
    // delayed writes changes it when the file is closed.
    void CheckSame(const Attributes& own, const Attributes& named) {
        const auto expected = static_cast<std::uint64_t>(source_.size());
        if (named.size == expected && named.IsFile()) return;
        if (own.size != expected && named.size) {
            throw Error(Kind::kFailed, "the size of " + Quoted(path_) +
                                           " on the storage differs from the size of the source");
        }
        state_.temporary.clear();
        throw Error(Kind::kUnavailable,
                    "the temporary file of " + Quoted(path_) +
                        " was removed or replaced during the upload, probably by another machine");
    }

    void Rename() {
        if (!session_.Supports(kPosixRename)) {
            RenameWithoutReplacing();
            sync_.Sync();
            return;
        }
        Request request(Type::kExtended);
        request.Text(kPosixRename).Text(state_.temporary).Text(path_);
        const std::uint32_t renamed = session_.Send(std::move(request));
        sync_.Sync();
        CheckDone("rename the temporary file to", session_.WaitStatus(renamed));
    }

    Status PlainRename(const std::string& from, const std::string& to) {
        return session_.WaitStatus(
            session_.Send(std::move(Request(Type::kRename).Text(from).Text(to))));
    }

    // Replaces a file on a server that cannot rename over an existing file. Renames the old file to
    // its displaced path, renames the new file, and then removes the old file. If this is
    // interrupted, downloads, listings and the next upload find the old file at its displaced path.
    void RenameWithoutReplacing() {
        const std::string aside = DisplacedPath(path_);
        Status status;
        for (int attempt = 0; attempt < kRenameAttempts; ++attempt) {
            status = PlainRename(state_.temporary, path_);
            if (status.code == Code::kOk) {
                session_.WaitStatus(SendPath(Type::kRemove, aside));
                return;
            }
            const std::optional<Attributes> there = ReadAttributes(session_, path_);
            if (there && there->IsDirectory()) break;
            if (!there) continue;
            session_.WaitStatus(SendPath(Type::kRemove, aside));
            PlainRename(path_, aside);
        }
        PlainRename(aside, path_);
        ThrowFailed("rename the temporary file to", status);
    }

    // --- Errors ---

    // Throws NoRoom if the storage is full, else the error of the status. Most servers report a
    // full disk only as kFailure, so the free space is queried after a kFailure.
    [[noreturn]] void ThrowFailed(const std::string& what, const Status& status) {
        const Failure failure = FailureOf(status, path_);
        if (failure == Failure::kNoRoom) throw NoRoom();
        if (status.code == Code::kFailure && IsFull(session_, place_)) throw NoRoom();
        if (failure == Failure::kNotFound) ThrowRemoved(what, status);
        ThrowRefused(what, path_, status);
    }

    // Throws kUnavailable because another process has removed the temporary file or its directory.
    // The next attempt creates both again.
    [[noreturn]] void ThrowRemoved(const std::string& what, const Status& status) const {
        throw Error(Kind::kUnavailable,
                    "Failed to " + what + " " + Quoted(path_) +
                        " on the storage: " + Describe(status) +
                        "; the temporary file or its directory was removed during the upload");
    }

    // Removes the temporary file of a failed upload. Ignores errors, because the next upload of the
    // same name removes a remaining temporary file.
    void Discard() noexcept {
        try {
            for (const std::uint32_t id : writes_) session_.Forget(id);
            for (const std::uint32_t id : later_) session_.Forget(id);
            if (session_.broken()) return;
            if (!handle_.empty()) session_.Forget(SendHandle(Type::kClose));
            if (state_.temporary.empty()) return;
            session_.WaitStatus(SendPath(Type::kRemove, state_.temporary));
            state_.temporary.clear();
        } catch (const std::exception&) {
            return;
        }
    }

    Session& session_;
    const Place& place_;
    const std::string& name_;
    std::string path_;
    std::string directory_;
    std::vector<std::string> directories_;  // the directories to sync after the rename
    ByteSource& source_;
    UploadState& state_;
    // The handle of the open temporary file. Empty if no file is open or its close request was
    // sent.
    std::string handle_;
    std::string opened_as_;  // the handle that the server has assigned
    std::vector<std::byte> early_data_;
    std::optional<std::string> guess_;  // the predicted handle, until it is used
    std::string sent_handle_;           // the handle of the requests that SendFinish() has sent
    bool is_early_ = false;  // true if the requests were sent before the temporary file was open
    std::optional<std::uint32_t> synced_;
    std::uint32_t measured_ = 0;
    std::uint32_t closed_ = 0;
    std::uint32_t seen_ = 0;
    bool root_checked_ = false;
    bool made_directories_ = false;
    std::set<std::uint32_t> writes_;
    std::vector<std::uint32_t> later_;
    DirSync sync_{session_};
};

}  // namespace

bool Upload(Session& session, const Place& place, const std::string& name, ByteSource& source,
            UploadState& state) {
    return Uploader(session, place, name, source, state).Run();
}

}  // namespace quarn2::sftp
