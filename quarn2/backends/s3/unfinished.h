// Unfinished uploads in parts: what a killed upload leaves on an S3 server.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "backends/s3/service.h"

namespace quarn2::s3 {

// An upload in parts that this process works on. While it lives no object of the process takes it
// for a leftover.
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

// Finds leftovers and aborts them. Whether the writer of an upload that another process began is
// alive cannot be told: it is aborted, and a writer that lives begins anew (see multipart.h).
class Unfinished {
  public:
    explicit Unfinished(Service& service) : service_(service) {}

    // Aborts those of one key. For a small file the list of all is asked for once in a while, not
    // each time.
    void AbortOf(const std::string& key);
    void AbortKnownOf(const std::string& key);
    // Aborts all whose key begins so.
    void AbortBelow(const std::string& prefix);

    // To be told of an upload that could not be aborted.
    void Remember(const Upload& upload) { known_[upload.key].push_back(upload.id); }

    // One page of those whose key begins so, behind `last`.
    Call PageCall(const std::string& prefix, const Upload& last) const;
    // What a page says; a server that knows no such listing has nothing to list.
    Uploads PageOf(const net::HttpReply& reply) const;

  private:
    void Abort(const std::vector<Upload>& uploads);
    std::vector<Upload> List(const std::string& prefix) const;
    void Refresh();

    Service& service_;
    std::map<std::string, std::vector<std::string>> known_;
    std::optional<std::chrono::steady_clock::time_point> listed_;
};

// Aborts an upload that is given up, over a new connection if the old one is no good. False when
// it could not be done.
bool TryToAbort(Service& service, const Upload& upload) noexcept;

}  // namespace quarn2::s3
