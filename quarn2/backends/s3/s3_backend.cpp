#include "s3_backend.h"

#include <cstddef>
#include <memory>
#include <utility>

#include "base/hex.h"
#include "base/stored_name.h"
#include "bulk_removal.h"
#include "delete_objects.h"
#include "directory.h"
#include "download.h"
#include "kro/kro_err.h"
#include "kro/str.h"
#include "parts_upload.h"
#include "service.h"
#include "unfinished.h"

namespace quarn2 {

namespace s3 {

namespace {

using kro_err::Error;
using kro_err::Kind;

// Maximum number of times that an upload is started again because other processes abort it. Another
// process aborts the upload only once, at the start of its own upload of the same name.
constexpr int kMaxStarts = 8;

// A listing of all files is in memory at once, so it is limited to about 500,000 files.
constexpr std::size_t kMaxPagesOfAllFiles = 500;

class S3Backend final : public StorageBackend {
  public:
    explicit S3Backend(const BackupToken& token)
        : service_(token), unfinished_(service_), parallel_(ParallelOf(token)) {}

    bool Put(const std::string& name, ByteSource& source) override;
    void Get(const std::string& name, ByteSink& sink) override {
        Download(service_, name, sink).Run();
    }
    void Remove(const std::string& name) override { RemoveOne(service_, unfinished_, name); }
    Errors RemoveMany(std::span<const std::string> names) override {
        return BulkRemoval(service_, unfinished_, parallel_, removes_together_).Run(names);
    }
    std::size_t RemovalBatch() const override { return parallel_ * kMaxKeysOfDelete; }
    void RemoveDir(const std::string& name) override { Sweep(service_.KeyOfDirectory(name)); }
    void MakeDir(const std::string& /*name*/) override { CheckBucket(service_); }
    std::vector<std::string> List(const std::string& name) override {
        return NamesOf(ListDirectory(service_, name));
    }
    std::vector<ListedEntry> ListSizes(const std::string& name) override {
        return ListDirectory(service_, name);
    }
    std::optional<std::vector<ListedEntry>> ListAllFiles() override {
        return ListAll(service_, kMaxPagesOfAllFiles);
    }
    void Clear() override { Sweep(service_.address().prefix); }

  private:
    bool PutWhole(const std::string& name, ByteSource& source);
    bool PutParts(const std::string& name, ByteSource& source);
    bool IsStored(const std::string& key, std::int64_t size, const std::string& hash);
    // Removes all objects below a prefix. Aborts the unfinished uploads first, because they take
    // space and List() does not show them. If the abort fails, the files remain and List() still
    // shows that the directory exists.
    void Sweep(const std::string& prefix) {
        unfinished_.AbortBelow(prefix);
        RemoveBelow(service_, prefix, parallel_, removes_together_);
    }

    Service service_;
    Unfinished unfinished_;
    std::size_t parallel_;
    bool removes_together_ = true;
};

bool S3Backend::Put(const std::string& name, ByteSource& source) {
    return source.size() <= service_.address().part_size ? PutWhole(name, source)
                                                         : PutParts(name, source);
}

std::string OperationText(const std::string& name) { return "cannot store " + Quoted(name); }

bool S3Backend::PutWhole(const std::string& name, ByteSource& source) {
    const auto size = static_cast<std::size_t>(source.size());
    const auto bytes = std::make_unique_for_overwrite<std::byte[]>(size);
    const std::span<std::byte> all(bytes.get(), size);
    const std::string key = service_.KeyOf(name);
    unfinished_.AbortKnownOf(key);
    if (source.ReadAt(0, all) != size) {
        throw Error(Kind::kFailed, "the source became shorter while it was uploaded");
    }
    source.CheckUnchanged();

    Call call = CreationCall(service_, "PUT", key);
    const std::string hash = Hex(Sha256({reinterpret_cast<const char*>(bytes.get()), size}));
    call.payload_hash = hash;
    call.headers.emplace_back(kChecksumHeader, hash);
    call.body = std::make_unique<net::MemoryBody>(all);
    net::HttpReply reply;
    try {
        reply = service_.Ask(std::move(call));
    } catch (const Error& error) {
        // Checks whether the file is stored, because the server may have stored it although its
        // response was lost.
        if (error.kind() != Kind::kUnavailable || !IsStored(key, source.size(), hash)) throw;
        return true;
    }
    if (reply.IsSuccess()) return true;
    const Refusal refusal = service_.RefusalOfKey(reply, key);
    if (refusal.IsNoRoom()) return false;
    service_.ThrowRefused(refusal, OperationText(name));
}

bool S3Backend::IsStored(const std::string& key, std::int64_t size, const std::string& hash) {
    Call call;
    call.method = "HEAD";
    call.key = key;
    try {
        const net::HttpReply reply = service_.AskOnNewConnection(std::move(call));
        return reply.IsSuccess() && reply.Header("content-length") == str::Str(size) &&
               reply.Header(kChecksumHeader) == hash;
    } catch (const Error&) {
        return false;
    }
}

bool S3Backend::PutParts(const std::string& name, ByteSource& source) {
    const std::string key = service_.KeyOf(name);
    const Plan plan = PlanParts(source.size(), service_.address().part_size);
    unfinished_.AbortOf(key);
    PartsUpload upload(service_, unfinished_, OperationText(name));
    for (int i = 0; i < kMaxStarts; ++i) {
        const PartsUpload::Outcome outcome = upload.Run(key, source, plan);
        if (outcome != PartsUpload::Outcome::kGone) {
            return outcome == PartsUpload::Outcome::kStored;
        }
    }
    throw Error(Kind::kUnavailable, service_.what() + ": " + OperationText(name) +
                                        ": other processes aborted the upload repeatedly");
}

BackendScheme Scheme(const char* name) {
    BackendScheme scheme{*FindTokenScheme(name)};
    scheme.open = [](const BackupToken& token) { return std::make_unique<S3Backend>(token); };
    scheme.keeps_connections = true;
    return scheme;
}

}  // namespace

}  // namespace s3

BackendScheme S3Scheme() { return s3::Scheme("s3"); }
BackendScheme S3PlainScheme() { return s3::Scheme("s3+http"); }

}  // namespace quarn2
