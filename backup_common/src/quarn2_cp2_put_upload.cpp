#include "quarn2_cp2_put_upload.h"

#include <functional>
#include <stdexcept>
#include <utility>

#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/names.h"
#include "quarn2/token.h"
#include "quarn2_cp2_misc_attempts.h"
#include "quarn2_cp2_misc_events.h"
#include "quarn2_cp2_misc_link.h"
#include "quarn2_cp2_misc_storage.h"
#include "quarn2_cp2_put_node.h"

namespace {

constexpr kro_log::Module kLog("main");

void LogAbandoned(const std::string& path, const std::exception& error) {
    KRO_LOG(kLog, 3, "Upload abandoned: %s. What: %s", kro_file::Name(path).c_str(), error.what());
}

// The event's detail is the stored name of the file, followed by the reason if there is one.
void WriteUploadEvent(EventKind kind, const std::string& name, std::int64_t size,
                      const std::string& reason = "") {
    Event event = EventOfFile(kind, name);
    event.size = size;
    event.detail = reason.empty() ? name : name + ": " + reason;
    WriteEvent(std::move(event));
}

[[noreturn]] void ThrowChanged(const std::string& path) {
    throw kro_err::Error(
        kro_err::Kind::kFailed,
        str::Quoted(path) + " was rewritten or replaced while it was uploaded; upload it again");
}

}  // namespace

Upload::Upload(NodeSide* node, const std::string& remote_name, const std::string& local_path)
    : node_(node),
      remote_name_(remote_name),
      local_path_(local_path),
      storage_(OpenStorage(node->token())),
      delete_after_(node->delete_after()),
      size_(node->size()) {
    storage_->MkDir(kro_file::Path(remote_name));
}

void Upload::Run(Record record) {
    Hold(std::move(record));
    thread_ = std::make_shared<kro_thread::Handle>(std::ref(*this));
}

void Upload::Hold(Record record) {
    record_ = std::move(record);
    if (record_) record_->Hold();
}

void Upload::operator()() {
    try {
        Put();
    } catch (const std::exception&) {
        record_.reset();
        throw;
    }
    record_.reset();
}

void Upload::Join() {
    if (!thread_) return;
    thread_->Join();
    if (failed_) throw std::runtime_error("Failed upload");
}

void Upload::PutLast(Record record) {
    Hold(std::move(record));
    (*this)();
    if (failed_) throw std::runtime_error("Failed upload");
}

void Upload::Put() {
    Source source;
    std::optional<CommandError> refusal;
    const auto transfer = [&] {
        try {
            Store(source);
        } catch (const CommandError& error) {
            refusal = error;
        }
    };
    const auto failed =
        RunAttempts("Cant upload: " + kro_file::Name(local_path_), transfer,
                    [&](const kro_err::Error& error) { return MayTryAgain(error, source); });
    if (failed) {
        failed_ = true;
        return Release(failed->reason, source);
    }
    if (refusal) {
        // The job gets no error. Only this log message and the attempts file report the failure.
        LogAbandoned(local_path_, *refusal);
        return Release(refusal->what(), source);
    }
    failed_ = false;
    stored_ = true;
    if (record_) record_->Stored();
    WriteUploadEvent(EventKind::kStored, remote_name_, size_);
    if (delete_after_) RemoveSource(source);
}

// Transfers the file. As long as the storage is full, requests an eviction from the server and
// transfers the file again. Throws when no eviction is left.
void Upload::Store(Source& source) {
    while (!Send(source)) {
        const std::int32_t left = node_->UseOneEviction();
        if (left < 0) {
            WriteUploadEvent(EventKind::kRefused, remote_name_, size_, "the storage is full");
            throw std::runtime_error("Upload failed");
        }
        node_->DoCommand(FormatDropOne(left));
    }
}

bool Upload::Send(Source& source) {
    if (!source) {
        source.emplace(local_path_);
    } else if (source->Compare() != SourceState::kUnchanged) {
        ThrowChanged(local_path_);
    }
    const bool stored = storage_->Upload(remote_name_, local_path_);
    if (stored && source->Compare() == SourceState::kRewritten) ThrowChanged(local_path_);
    return stored;
}

// Opens the storage again. If the storage cannot be opened, for example because its disk is
// missing, keeps the previous storage, so that the next attempt reports the failure.
void Upload::OpenAgain() {
    try {
        storage_ = OpenStorage(node_->token());
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 6, "%s", error.what());
    }
}

bool Upload::MayTryAgain(const kro_err::Error& error, const Source& source) {
    failed_ = true;
    // The file was removed or changed. Another attempt would fail, or would store content of
    // another size than the node client has reported to the job.
    if (source ? source->Compare() != SourceState::kUnchanged : !kro_file::Exists(local_path_)) {
        LogAbandoned(local_path_, error);
        return false;
    }
    OpenAgain();
    return true;
}

void Upload::RemoveSource(const Source& source) const {
    // Keeps a source file that could not be opened, because it was not uploaded.
    if (!source) return;
    if (source->Compare() == SourceState::kUnchanged) {
        kro_file::RemoveFile(local_path_);
    } else if (kro_file::Exists(local_path_)) {
        KRO_LOG(kLog, 4, "'%s' is not removed: it is not the file that was uploaded",
                local_path_.c_str());
    }
}

void Upload::Release(const std::string& reason, const Source& source) {
    quarn2::CreateAttemptsFile(local_path_, reason);
    RemoveSource(source);
    WriteUploadEvent(EventKind::kAbandoned, remote_name_, size_, reason);
    // Releases the size of the file in the node client's latest PUT, which may be another file. The
    // server's next completion corrects the difference, because it resets all reservations.
    node_->DoCommand(FormatRelease(node_->size()));
}
