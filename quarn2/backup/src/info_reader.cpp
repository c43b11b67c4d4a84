#include "quarn2/info_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/stored_name.h"
#include "kro/kro_err.h"
#include "kro/str.h"

namespace quarn2 {

namespace {

// The maximum size of an info file. Info files have a few hundred bytes. The limit prevents the
// reader from loading a misnamed archive into memory.
constexpr std::size_t kMaxInfoBytes = 1024UL * 1024;
// The initial size of the read buffer. Nearly every info file fits, so two read calls suffice: the
// first returns the content, the second detects the end of the file.
constexpr std::size_t kInitialBufferSize = 8UL * 1024;

std::size_t ReadSome(int fd, char* buffer, std::size_t size, const std::string& path) {
    for (;;) {
        const ssize_t got = read(fd, buffer, size);
        if (got >= 0) return static_cast<std::size_t>(got);
        if (errno != EINTR) throw kro_err::FromErrno("Failed to read info file " + Quoted(path));
    }
}

// The descriptor of an open info file. Unlike ResHandle, this class allocates no memory.
class OpenInfo {
  public:
    explicit OpenInfo(const std::string& path)
        : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {
        if (fd_ < 0) throw kro_err::FromErrno("Failed to open info file " + Quoted(path));
    }
    ~OpenInfo() { close(fd_); }
    OpenInfo(const OpenInfo&) = delete;
    OpenInfo& operator=(const OpenInfo&) = delete;

    operator int() const noexcept { return fd_; }

  private:
    int fd_;
};

}  // namespace

void InfoReader::ReadText(const std::string& path) {
    const OpenInfo file(path);
    if (text_.empty()) text_.resize(kInitialBufferSize);
    size_ = 0;
    for (;;) {
        const std::size_t got = ReadSome(file, text_.data() + size_, text_.size() - size_, path);
        size_ += got;
        if (got == 0) return;
        if (size_ > kMaxInfoBytes) {
            throw kro_err::Error(kro_err::Kind::kFailed,
                                 Quoted(path) + " is too large for an info file");
        }
        if (size_ == text_.size()) text_.resize(text_.size() * 2);
    }
}

void InfoReader::ParseLine(std::string_view line) {
    if (str::EndsWith(line, "\r")) line.remove_suffix(1);
    if (line.empty()) return;
    const std::size_t equals = std::min(line.find('='), line.size());
    entries_.emplace_back(line.substr(0, equals), line.substr(std::min(equals + 1, line.size())));
}

void InfoReader::Read(const std::string& path) {
    entries_.clear();
    ReadText(path);
    std::string_view text = std::string_view(text_).substr(0, size_);
    if (text.find('\0') != std::string_view::npos) {
        throw kro_err::Error(kro_err::Kind::kFailed,
                             Quoted(path) + " is not an info file: it contains a NUL byte");
    }
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        ParseLine(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

std::optional<std::string_view> InfoReader::Find(std::string_view key) const noexcept {
    const auto found = std::find_if(entries_.rbegin(), entries_.rend(),
                                    [key](const Entry& entry) { return entry.first == key; });
    if (found == entries_.rend()) return std::nullopt;
    return found->second;
}

}  // namespace quarn2
