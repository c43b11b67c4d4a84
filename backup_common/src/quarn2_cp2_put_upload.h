// One file on its way from this node to the storage.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "kro/kro_err.h"
#include "kro/kro_thread.h"
#include "quarn2/storage.h"
#include "quarn2_cp2_put_ledger.h"
#include "quarn2_cp2_put_source.h"

class NodeSide;

// Lives idle until Run (in a thread of its own) or PutLast (in the caller's). Must stay where it is
// while its thread runs.
class Upload {
  public:
    Upload() = default;
    // Opens a storage of its own and makes the file's directory there; failures pass out.
    Upload(NodeSide* node, const std::string& remote_name, const std::string& local_path);

    using Record = std::unique_ptr<SliceRecord>;

    // In a thread, which ends the record.
    void Run(Record record);

    // Waits for the thread. std::runtime_error "Failed upload", or what left the thread, when the
    // file was not stored.
    void Join();

    // The whole upload in the calling thread; "Failed upload" when it failed. `record` is null for
    // an info file.
    void PutLast(Record record);

    // Up to three attempts; asks the server for space when the storage has none. A source that is
    // rewritten meanwhile, or replaced between two attempts, fails the upload for good and stays.
    void Put();

    // The thread's body: Put, and the end of the record.
    void operator()();

    // True when the storage has the file. An upload can end without an error and without this,
    // when the server refuses to make room.
    bool stored() const noexcept { return stored_; }

  private:
    using Source = std::optional<SourceFile>;

    void Hold(Record record);
    void Store(Source& source);
    // One transfer; false when the storage has no room. Opens the source if that was not done yet.
    bool Send(Source& source);
    void OpenAgain();
    bool MayTryAgain(const kro_err::Error& error, int attempt, const Source& source);
    void Release(const std::string& reason, const Source& source);
    // Another file that has taken the source's name stays.
    void RemoveSource(const Source& source) const;

    NodeSide* node_ = nullptr;
    std::string remote_name_;
    std::string local_path_;
    std::shared_ptr<quarn2::Storage> storage_;
    bool delete_after_ = false;
    bool failed_ = false;
    bool stored_ = false;
    Record record_;
    std::shared_ptr<kro_thread::Handle> thread_;
};
