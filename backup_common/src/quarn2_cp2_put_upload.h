// The upload of one file from this node to the storage.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kro/kro_err.h"
#include "kro/kro_thread.h"
#include "quarn2/storage.h"
#include "quarn2_cp2_put_ledger.h"
#include "quarn2_cp2_put_source.h"

class NodeSide;

// Run starts the upload in a separate thread, PutLast uploads in the calling thread. The object
// must not be moved while its thread runs.
class Upload {
  public:
    Upload() = default;
    // Opens a separate connection to the storage and creates the file's directory there. Throws the
    // storage's error when this fails.
    Upload(NodeSide* node, const std::string& remote_name, const std::string& local_path);

    using Record = std::unique_ptr<SliceRecord>;

    // Takes the upload lock (see SliceRecord::Hold) and starts a thread, which uploads the file and
    // records the result.
    void Run(Record record);

    // Waits until the upload thread has ended. When the upload failed, throws the exception of the
    // thread or std::runtime_error "Failed upload".
    void Join();

    // Uploads in the calling thread. When that fails, throws std::runtime_error "Failed upload" or
    // the exception of the upload. `record` is null for an info file.
    void PutLast(Record record);

    // Uploads in up to three attempts. Requests evictions from the server when the storage is full.
    // If the source is rewritten during the upload, or replaced between two attempts, the upload
    // fails without another attempt and the source file is not removed.
    void Put();

    // The thread's body: calls Put, and then records in the ledger that the slice is stored,
    // refused or abandoned.
    void operator()();

    // True when the storage has the file. False after the server has refused to free space, even
    // though the upload then ends without an error.
    bool stored() const noexcept { return stored_; }

  private:
    using Source = std::optional<SourceFile>;

    void Hold(Record record);
    void Store(Source& source);
    // Transfers the file once. Returns false when the storage is full. The first call opens the
    // source file.
    bool Send(Source& source);
    void OpenAgain();
    // Prepares another attempt. Returns false when the source file has changed.
    bool MayTryAgain(const kro_err::Error& error, const Source& source);
    void Release(const std::string& reason, const Source& source);
    // Removes the source file, unless it was modified or its path refers to another file now.
    void RemoveSource(const Source& source) const;

    NodeSide* node_ = nullptr;
    std::string remote_name_;
    std::string local_path_;
    std::shared_ptr<quarn2::Storage> storage_;
    bool delete_after_ = false;
    std::int64_t size_ = 0;  // bytes on the storage
    bool failed_ = false;
    bool stored_ = false;
    Record record_;
    std::shared_ptr<kro_thread::Handle> thread_;
};
