// Bodies of HTTP requests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "quarn2_backend/storage_backend.h"

namespace quarn2::net {

// The bytes of one request, read forward. If the request's connection was stale, the request is
// sent again and the body is read again from the start.
class HttpBody {
  public:
    virtual ~HttpBody() = default;
    virtual std::int64_t size() const = 0;
    // Fills the buffer. Returns fewer bytes only at the end, and 0 after the last one.
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

// A range of memory, which must outlive the request.
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

// The complete source of an upload, which must outlive the request.
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
