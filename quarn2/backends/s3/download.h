// The download of one file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "quarn2_backend/storage_backend.h"
#include "service.h"

namespace quarn2::s3 {

// The header that contains the SHA-256 of a file. It is set only for files that were uploaded in
// one request.
inline constexpr const char* kChecksumHeader = "x-amz-meta-quarn2-sha256";

// Downloads a file. A large file is downloaded in several ranges in parallel. Ranges that arrive
// out of order are kept in memory until the sink has received the previous ranges.
class Download {
  public:
    Download(Service& service, const std::string& name, ByteSink& sink);
    ~Download();
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    // Downloads the file to the sink. Must be called only once per object.
    void Run();

  private:
    class Piece;

    Call PieceCall(Piece& piece) const;
    void Start(std::int64_t offset, std::int64_t length);
    void StartMore();
    // Reads size, ETag and checksum from the headers of the first response. Throws if a later
    // response does not contain the requested range or reports another size.
    void Begin(Piece& piece, const net::HttpReply& reply);
    void Take(Piece& piece, std::span<const std::byte> bytes);
    void Deliver(std::span<const std::byte> bytes);
    void End(Piece& piece, const net::HttpResult& result);
    // Removes finished ranges from the front of the queue. Then writes the received bytes of the
    // first unfinished range to the sink.
    void WriteInOrder();
    // Returns true if the first request must be sent again after a response with this status.
    bool MustSendAgain(int status);
    void CheckComplete();
    [[noreturn]] void ThrowRefused(const net::HttpReply& reply) const;
    [[noreturn]] void ThrowCannotFetch(const std::string& why) const;

    Service& service_;
    std::string name_;
    std::string key_;
    ByteSink& sink_;
    std::deque<std::unique_ptr<Piece>> pieces_;
    std::vector<std::unique_ptr<Piece>> idle_;
    std::optional<std::int64_t> size_;
    std::int64_t next_ = 0;
    std::int64_t delivered_ = 0;
    std::string etag_;
    std::string checksum_;
    std::optional<Digest> digest_;
    std::exception_ptr error_;
    bool has_ranges_ = true;
    bool again_ = false;
    int failures_ = 0;
};

}  // namespace quarn2::s3
