// Finds and aborts unfinished multipart uploads, which remain on an S3 server when a process is
// killed.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kro/kro_clock.h"
#include "kro/kro_err.h"
#include "service.h"

namespace quarn2::s3 {

// Registers a multipart upload that this process is running. While the object exists, Unfinished
// does not abort the upload.
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
// upload is still running, so Unfinished also aborts uploads of running processes. Such a process
// then starts its upload again (see kMaxStarts in s3_backend.cpp).
class Unfinished {
  public:
    explicit Unfinished(Service& service) : service_(service) {}

    // Both functions abort the unfinished uploads of one key. AbortOf() requests their list from
    // the server. AbortKnownOf() is cheaper and meant for small files: it uses a cached list of all
    // unfinished uploads, which is at most kListingAge old.
    void AbortOf(const std::string& key);
    void AbortKnownOf(const std::string& key);
    // Aborts the unfinished uploads of all these keys, which begin with `prefix`, after one
    // listing. Returns the error for each key with an upload that could not be aborted. Throws if
    // the uploads cannot be listed.
    std::map<std::string, kro_err::Error> AbortOfAll(const std::set<std::string>& keys,
                                                     const std::string& prefix);
    // Aborts all unfinished uploads whose key begins with `prefix`.
    void AbortBelow(const std::string& prefix);

    // Adds an upload that could not be aborted to the cached list of AbortKnownOf(), so that a
    // later upload of the same key aborts it.
    void Remember(const UnfinishedUpload& upload) { known_[upload.key].push_back(upload.id); }

    // Returns the request for a page of the unfinished uploads whose keys begin with `prefix`. The
    // page begins after the upload `last`; the first page has an empty `last`.
    Call PageCall(const std::string& prefix, const UnfinishedUpload& last) const;
    // Parses a page of unfinished uploads. Returns an empty page if the server does not support
    // listing them.
    Uploads PageOf(const net::HttpReply& reply) const;

  private:
    void Abort(const std::vector<UnfinishedUpload>& uploads);
    std::vector<UnfinishedUpload> List(const std::string& prefix) const;
    void Refresh();

    Service& service_;
    std::map<std::string, std::vector<std::string>> known_;
    std::optional<kro_date::SteadyClock::time_point> listed_;
};

// Aborts a failed upload over a new connection, with up to two attempts. Returns false if both
// attempts fail.
bool TryToAbort(Service& service, const UnfinishedUpload& upload) noexcept;

}  // namespace quarn2::s3
