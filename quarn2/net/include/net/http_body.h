// Bodies of HTTP requests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "quarn2_backend/storage_backend.h"

namespace quarn2::net {

// The body of one request, read sequentially. If the server has closed the kept connection, the
// client sends the request again on a new connection and reads the body again from its start.
class HttpBody {
  public:
    virtual ~HttpBody() = default;
    virtual std::int64_t size() const = 0;
    // Reads the next bytes of the body into the buffer and returns their number. The number is
    // smaller than the buffer only at the end of the body, and 0 after the end.
    virtual std::size_t Read(std::span<std::byte> buffer) = 0;
    virtual void Rewind() = 0;
};

class TextBody final : public HttpBody {
  public:
    explicit TextBody(std::string text) : text_(std::move(text)) {}
    std::int64_t size() const override { return static_cast<std::int64_t>(text_.size()); }
    std::size_t Read(std::span<std::byte> buffer) override;
    void Rewind() override { done_ = 0; }

  private:
    std::string text_;
    std::size_t done_ = 0;
};

// A body in memory that the object does not own. The memory must outlive the request.
class MemoryBody final : public HttpBody {
  public:
    explicit MemoryBody(std::span<const std::byte> bytes) : bytes_(bytes) {}
    std::int64_t size() const override { return static_cast<std::int64_t>(bytes_.size()); }
    std::size_t Read(std::span<std::byte> buffer) override;
    void Rewind() override { done_ = 0; }

  private:
    std::span<const std::byte> bytes_;
    std::size_t done_ = 0;
};

// A body that consists of the complete source of an upload. The source must outlive the request.
class SourceBody final : public HttpBody {
  public:
    explicit SourceBody(ByteSource& source) : source_(source) {}
    std::int64_t size() const override { return source_.size(); }
    std::size_t Read(std::span<std::byte> buffer) override;
    void Rewind() override { done_ = 0; }

  private:
    ByteSource& source_;
    std::int64_t done_ = 0;
};

}  // namespace quarn2::net
