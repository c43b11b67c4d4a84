#include "net/http_body.h"

#include <algorithm>
#include <cstring>

namespace quarn2::net {

namespace {

std::size_t CopyFrom(std::span<const std::byte> bytes, std::size_t& done,
                     std::span<std::byte> buffer) {
    const std::size_t count = std::min(buffer.size(), bytes.size() - done);
    if (count > 0) std::memcpy(buffer.data(), bytes.data() + done, count);
    done += count;
    return count;
}

}  // namespace

std::size_t TextBody::Read(std::span<std::byte> buffer) {
    return CopyFrom(std::as_bytes(std::span(text_)), done_, buffer);
}

std::size_t MemoryBody::Read(std::span<std::byte> buffer) {
    return CopyFrom(bytes_, done_, buffer);
}

std::size_t SourceBody::Read(std::span<std::byte> buffer) {
    const std::size_t got = source_.ReadAt(done_, buffer);
    done_ += static_cast<std::int64_t>(got);
    return got;
}

}  // namespace quarn2::net
