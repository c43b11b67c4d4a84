// One download.
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

#include "backends/s3/service.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2::s3 {

// The header with the SHA-256 of a file that was stored in one request.
inline constexpr const char* kChecksumHeader = "x-amz-meta-quarn2-sha256";

// Downloads a large file in ranges, several in parallel. Ranges that arrive before their turn wait
// in memory.
class Download {
  public:
    Download(Service& service, const std::string& name, ByteSink& sink);
    ~Download();
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    // To be called once per object.
    void Run();

  private:
    class Piece;

    Call PieceCall(Piece& piece) const;
    void Start(std::int64_t offset, std::int64_t length);
    void StartMore();
    // Takes size, ETag and checksum from the first response. Every later response must have the
    // requested range and the same size.
    void Begin(Piece& piece, const net::HttpReply& reply);
    void Take(Piece& piece, std::span<const std::byte> bytes);
    void Deliver(std::span<const std::byte> bytes);
    void End(Piece& piece, const net::HttpResult& result);
    // Removes finished ranges from the front of the queue and delivers the held bytes of the next
    // one.
    void TakeTurns();
    // True if the first request is to be sent again.
    bool IsWorthAnother(int status);
    void CheckWhole();
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
