// Unfinished multipart uploads, which a killed process leaves on an S3 server.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "backends/s3/service.h"
#include "kro/kro_clock.h"

namespace quarn2::s3 {

// A multipart upload that this process is working on. While the object exists, Unfinished does not
// abort the upload.
class RunningUpload {
  public:
    explicit RunningUpload(std::string id);
    ~RunningUpload();
    RunningUpload(const RunningUpload&) = delete;
    RunningUpload& operator=(const RunningUpload&) = delete;

    const std::string& id() const noexcept { return id_; }

    static bool IsRunning(const std::string& id);

  private:
    std::string id_;
};

// Finds unfinished uploads and aborts them. S3 does not show whether the process that started an
// upload is alive, so uploads of live processes are aborted, too. Such a process starts its upload
// again (see kMaxStarts in s3_backend.cpp).
class Unfinished {
  public:
    explicit Unfinished(Service& service) : service_(service) {}

    // AbortOf() aborts the unfinished uploads of one key. AbortKnownOf() is its cheaper form for
    // small files: it uses a list of all unfinished uploads that is requested only from time to
    // time.
    void AbortOf(const std::string& key);
    void AbortKnownOf(const std::string& key);
    // Aborts all unfinished uploads whose key begins with `prefix`.
    void AbortBelow(const std::string& prefix);

    // Adds an upload that could not be aborted to the list of AbortKnownOf().
    void Remember(const UnfinishedUpload& upload) { known_[upload.key].push_back(upload.id); }

    // Returns the request for the page of unfinished uploads after `last` whose key begins with
    // `prefix`.
    Call PageCall(const std::string& prefix, const UnfinishedUpload& last) const;
    // Parses a page. A server that does not support this listing counts as one without uploads.
    Uploads PageOf(const net::HttpReply& reply) const;

  private:
    void Abort(const std::vector<UnfinishedUpload>& uploads);
    std::vector<UnfinishedUpload> List(const std::string& prefix) const;
    void Refresh();

    Service& service_;
    std::map<std::string, std::vector<std::string>> known_;
    std::optional<kro_date::SteadyClock::time_point> listed_;
};

// Aborts a failed upload over a new connection, with up to two attempts. Returns false if that
// fails.
bool TryToAbort(Service& service, const UnfinishedUpload& upload) noexcept;

}  // namespace quarn2::s3
