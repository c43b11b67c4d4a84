#include "storage/backend_storage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "base/stored_name.h"
#include "kro/kro_err.h"
#include "kro/kro_new_file.h"
#include "kro/res_handle.h"
#include "kro/str.h"
#include "storage/encrypted_backend.h"

namespace quarn2 {

namespace {

using kro_err::Error;
using kro_err::Kind;

// The file mode of downloaded files. A backup contains all data of a user, so other users must not
// be able to read the file.
constexpr mode_t kDownloadMode = 0640;

struct stat Status(int fd, const std::string& path) {
    struct stat status = {};
    if (fstat(fd, &status) != 0) throw kro_err::FromErrno("Failed to examine " + Quoted(path));
    return status;
}

// The local file that an upload reads.
class FileSource final : public ByteSource {
  public:
    FileSource(const std::string& path, TransferObserver* observer)
        // Without O_NONBLOCK, opening a named pipe would block until a writer opens it.
        : path_(path),
          observer_(observer),
          handle_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {
        if (!handle_) throw kro_err::FromErrno("Failed to open " + Quoted(path));
        const struct stat status = Status(handle_, path);
        if (!S_ISREG(status.st_mode)) {
            throw Error(Kind::kFailed, Quoted(path) + " is not a plain file");
        }
        size_ = status.st_size;
        modified_ = status.st_mtim;
        if (observer_ != nullptr) observer_->Begin(size_);
    }

    std::int64_t size() const override { return size_; }

    std::size_t ReadAt(std::int64_t offset, std::span<std::byte> buffer) override {
        if (offset < 0 || offset > size_) {
            throw Error(Kind::kFailed, "read past the end of " + Quoted(path_));
        }
        const std::size_t wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), Left(offset)));
        std::size_t done = 0;
        while (done < wanted) {
            const ssize_t got = pread(handle_, buffer.data() + done, wanted - done,
                                      offset + static_cast<std::int64_t>(done));
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) throw kro_err::FromErrno("Failed to read " + Quoted(path_));
            if (got == 0) ThrowChanged();
            done += static_cast<std::size_t>(got);
        }
        Advance(static_cast<std::int64_t>(done));
        return done;
    }

    int Descriptor() const override { return handle_; }

    void Advance(std::int64_t bytes) override {
        if (observer_ != nullptr) observer_->Advance(bytes);
    }

    void CheckUnchanged() override {
        const struct stat now = Status(handle_, path_);
        if (now.st_size != size_) ThrowChanged();
        if (now.st_mtim.tv_sec == modified_.tv_sec && now.st_mtim.tv_nsec == modified_.tv_nsec) {
            return;
        }
        throw Error(Kind::kFailed, Quoted(path_) + " was rewritten while it was uploaded");
    }

  private:
    std::uint64_t Left(std::int64_t offset) const {
        return static_cast<std::uint64_t>(size_ - offset);
    }

    [[noreturn]] void ThrowChanged() const {
        throw Error(Kind::kFailed, Quoted(path_) + " changed its size while it was uploaded");
    }

    std::string path_;
    TransferObserver* observer_;
    ResHandle handle_;
    std::int64_t size_ = 0;
    timespec modified_ = {};
};

// The new local file that a download writes.
class FileSink final : public ByteSink {
  public:
    FileSink(int fd, const std::string& path, TransferObserver* observer, bool refuse_encrypted)
        : fd_(fd), path_(path), observer_(observer), refuse_encrypted_(refuse_encrypted) {}

    void Expect(std::int64_t size) override {
        if (observer_ != nullptr) observer_->Begin(size);
        expected_ = true;
    }

    void Advance(std::int64_t bytes) override {
        RefuseEncrypted();
        Begin();
        if (observer_ != nullptr) observer_->Advance(bytes);
    }

    // Throws kUnauthorized when the downloaded file begins with the magic bytes of encrypted files.
    // Reads the first bytes back from the local file, because a backend that writes through the
    // descriptor does not pass the bytes to Write. Each Advance calls this function, so that the
    // download of a large encrypted file stops early.
    void RefuseEncrypted() {
        if (!refuse_encrypted_) return;
        std::array<std::byte, kEncryptedMarkSize> first{};
        const ssize_t count = pread(fd_, first.data(), first.size(), 0);
        if (count < 0) throw kro_err::FromErrno("Failed to read " + Quoted(path_));
        if (static_cast<std::size_t>(count) < first.size()) return;
        if (IsEncrypted(first)) {
            throw Error(
                Kind::kUnauthorized,
                "the file is encrypted, but the storage token has no arch_password; add the "
                "password that the file was encrypted with; " +
                    Quoted(path_) + " was not written");
        }
        refuse_encrypted_ = false;
    }

    // Reports the start of a transfer of unknown size unless the backend has called Expect.
    // Download also calls this function, so that a transfer of zero bytes is reported.
    void Begin() {
        if (!std::exchange(expected_, true) && observer_ != nullptr) observer_->Begin(-1);
    }

    void Write(std::span<const std::byte> bytes) override {
        while (!bytes.empty()) {
            const ssize_t done = write(fd_, bytes.data(), bytes.size());
            if (done < 0 && errno == EINTR) continue;
            if (done < 0) throw kro_err::FromErrno("Failed to write " + Quoted(path_));
            bytes = bytes.subspan(static_cast<std::size_t>(done));
            Advance(done);
        }
    }

    int Descriptor() const override { return fd_; }

  private:
    int fd_;
    std::string path_;
    TransferObserver* observer_;
    bool refuse_encrypted_;
    bool expected_ = false;
};

// Throws kFailed when the local file cannot be created, because all other error kinds of a download
// refer to the storage.
std::unique_ptr<kro_file::NewFile> NewLocalFile(const std::string& local) {
    try {
        return std::make_unique<kro_file::NewFile>(local, kDownloadMode);
    } catch (const Error& error) {
        throw Error(Kind::kFailed, error.what());
    }
}

void RemoveBy(StorageBackend& backend, const std::string& name) {
    if (name.empty()) return;
    CheckStoredName(name);
    backend.Remove(name);
}

std::vector<std::string> ListBy(StorageBackend& backend, const std::string& directory) {
    if (!directory.empty()) CheckStoredName(directory);
    std::vector<std::string> names = backend.List(directory);
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<ListedEntry> SortedByName(std::vector<ListedEntry> entries) {
    std::sort(entries.begin(), entries.end(),
              [](const ListedEntry& a, const ListedEntry& b) { return a.name < b.name; });
    return entries;
}

template <class Action>
FileError ErrorOf(const Action& action) {
    try {
        action();
        return std::nullopt;
    } catch (const Error& error) {
        return error;
    }
}

bool HasAnswered(const FileError& error) { return !error || error->kind() != Kind::kUnavailable; }

}  // namespace

BackendStorage::BackendStorage(std::unique_ptr<StorageBackend> backend, BackupToken token,
                               OpenMore open_more)
    : backend_(std::move(backend)), token_(std::move(token)), open_more_(std::move(open_more)) {}

void BackendStorage::Download(const std::string& remote, const std::string& local) {
    DownloadBy(*backend_, {remote, local}, observer());
}

void BackendStorage::DownloadBy(StorageBackend& backend, const FileDownload& download,
                                TransferObserver* observer) const {
    CheckStoredName(download.remote);
    const std::unique_ptr<kro_file::NewFile> file = NewLocalFile(download.local);
    const bool refuse_encrypted = token_.Param("arch_password").empty() && !ciphertext_allowed();
    FileSink sink(file->fd(), download.local, observer, refuse_encrypted);
    backend.Get(download.remote, sink);
    sink.RefuseEncrypted();
    sink.Begin();
    using Durability = kro_file::NewFile::Durability;
    file->Commit(sync_deferred() ? Durability::kLater : Durability::kNow);
}

bool BackendStorage::Upload(const std::string& remote, const std::string& local) {
    CheckStoredName(remote);
    FileSource source(local, observer());
    return backend_->Put(remote, source);
}

void BackendStorage::Clear() { backend_->Clear(); }

void BackendStorage::RemoveFile(const std::string& remote) { RemoveBy(*backend_, remote); }

void BackendStorage::SyncRemovals(const std::string& directory) {
    if (!directory.empty()) CheckStoredName(directory);
    backend_->SyncRemovals(directory);
}

void BackendStorage::List(std::vector<std::string>& names, const std::string& directory) {
    names = ListBy(*backend_, directory);
}

std::vector<ListedEntry> BackendStorage::ListSizes(const std::string& directory) {
    if (!directory.empty()) CheckStoredName(directory);
    return SortedByName(backend_->ListSizes(directory));
}

std::optional<std::vector<ListedEntry>> BackendStorage::ListAllFiles() {
    std::optional<std::vector<ListedEntry>> files = backend_->ListAllFiles();
    if (files) files = SortedByName(std::move(*files));
    return files;
}

void BackendStorage::RemoveDir(const std::string& remote) {
    // CheckStoredName also refuses the empty name, which refers to the storage's root.
    CheckStoredName(remote);
    backend_->RemoveDir(remote);
}

// --- Operations on many names ---

void BackendStorage::DownloadMany(const NextDownload& next, const DownloadDone& done) {
    const auto next_task = [this, &next, &done]() -> std::optional<ManyTask> {
        std::optional<FileDownload> file = next();
        if (!file) return std::nullopt;
        const auto shared = std::make_shared<const FileDownload>(std::move(*file));
        return ManyTask{[this, shared](StorageBackend& backend, TransferObserver* watcher) {
                            DownloadBy(backend, *shared, watcher);
                        },
                        [&done, shared](const FileError& error) { done(*shared, error); }};
    };
    RunMany(next_task, observer(), str::Int64(token_.Param("limit_rate")));
}

void BackendStorage::ListMany(const NextName& next, const ListingDone& done) {
    struct Listing {
        std::string directory;
        std::vector<std::string> names;
    };
    const auto next_task = [&next, &done]() -> std::optional<ManyTask> {
        std::optional<std::string> directory = next();
        if (!directory) return std::nullopt;
        const auto shared = std::make_shared<Listing>(Listing{std::move(*directory), {}});
        return ManyTask{[shared](StorageBackend& backend, TransferObserver* /*watcher*/) {
                            shared->names = ListBy(backend, shared->directory);
                        },
                        [&done, shared](const FileError& error) {
                            done(shared->directory, shared->names, error);
                        }};
    };
    RunMany(next_task, nullptr, 0);
}

void BackendStorage::RemoveMany(const NextName& next, const RemovalDone& done) {
    if (backend_->RemovalBatch() > 1) return RemoveInBatches(next, done);
    const auto next_task = [&next, &done]() -> std::optional<ManyTask> {
        std::optional<std::string> name = next();
        if (!name) return std::nullopt;
        const auto shared = std::make_shared<const std::string>(std::move(*name));
        return ManyTask{[shared](StorageBackend& backend, TransferObserver* /*watcher*/) {
                            RemoveBy(backend, *shared);
                        },
                        [&done, shared](const FileError& error) { done(*shared, error); }};
    };
    RunMany(next_task, nullptr, 0);
}

// `rate` is the limit of bytes per second for all tasks together; 0 is no limit.
void BackendStorage::RunMany(ManyTasks::Next next, TransferObserver* observer, std::int64_t rate) {
    const auto pace = rate > 0 ? std::make_shared<Pace>(rate) : nullptr;
    ManyTasks tasks({.own = *backend_,
                     .open = [this, pace] { return open_more_(pace); },
                     .max = ParallelOf(token_),
                     // backend_ was opened without `pace`, so it would exceed the limit.
                     .share_own = pace == nullptr},
                    observer, std::move(next));
    tasks.Run();
}

// The backend removes several files with one request and sends its requests in parallel, so one
// backend is enough.
void BackendStorage::RemoveInBatches(const NextName& next, const RemovalDone& done) {
    Outage outage;
    for (;;) {
        std::vector<std::string> names;
        while (names.size() < backend_->RemovalBatch()) {
            std::optional<std::string> name = next();
            if (!name) break;
            names.push_back(std::move(*name));
        }
        if (names.empty()) return;
        StorageBackend::Errors errors(names.size(), outage.ErrorOfRest());
        if (!outage.is_certain()) {
            errors = RemoveBatch(names);
            // If the server does not respond, all names of the batch fail. Such a batch counts as
            // one failed operation.
            const bool any_good = std::any_of(errors.begin(), errors.end(), HasAnswered);
            outage.Count(any_good ? FileError() : errors.front(), 1);
        }
        for (std::size_t i = 0; i < names.size(); ++i) done(names[i], errors[i]);
    }
}

StorageBackend::Errors BackendStorage::RemoveBatch(const std::vector<std::string>& names) {
    if (names.size() == 1) return {ErrorOf([&] { RemoveBy(*backend_, names.front()); })};
    StorageBackend::Errors errors(names.size());
    std::vector<std::string> checked;
    std::vector<std::size_t> positions;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (names[i].empty()) continue;
        errors[i] = ErrorOf([&] { CheckStoredName(names[i]); });
        if (errors[i]) continue;
        checked.push_back(names[i]);
        positions.push_back(i);
    }
    if (checked.empty()) return errors;
    StorageBackend::Errors results = backend_->RemoveMany(checked);
    for (std::size_t i = 0; i < results.size(); ++i) errors[positions[i]] = std::move(results[i]);
    return errors;
}

void BackendStorage::DoMkDir(const std::string& directory) {
    CheckStoredName(directory);
    backend_->MakeDir(directory);
}

std::string BackendStorage::KeyHash() { return token_.Hash(); }

std::int64_t BackendStorage::StoredSize(const std::string& local, std::int64_t size) {
    return token_.Param("arch_password").empty() ? size : SizeEncrypted(local, size);
}

}  // namespace quarn2
