#include "kro/kro_stream.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "fd_io.h"
#include "kro/kro_err.h"
#include "kro/str.h"

namespace kro_stream {

namespace {

constexpr std::size_t kBufferSize = 64UL * 1024;

}  // namespace

Input::Input(const std::string& path)
    : path_(path), handle_(kro_file::OpenFd(path, O_RDONLY)), buffer_(kBufferSize) {
    if (!handle_ && !kro_err::IsMissing()) {
        throw kro_err::FromErrno("Failed to open " + str::Quoted(path));
    }
}

bool Input::Fill() {
    if (!handle_) return false;
    const ssize_t got =
        kro_file::NoEintr([this] { return ::read(handle_, buffer_.data(), buffer_.size()); });
    if (got < 0) throw kro_err::FromErrno("Failed to read " + str::Quoted(path_));
    begin_ = 0;
    end_ = static_cast<std::size_t>(got);
    return got > 0;
}

bool GetLine(Input& input, std::string& line, char separator) {
    line.clear();
    bool any = false;
    while (input.begin_ < input.end_ || input.Fill()) {
        any = true;
        const char* begin = input.buffer_.data() + input.begin_;
        const char* end = input.buffer_.data() + input.end_;
        const char* stop = std::find(begin, end, separator);
        line.append(begin, stop);
        input.begin_ += static_cast<std::size_t>(stop - begin);
        if (stop != end) {
            ++input.begin_;
            return true;
        }
    }
    return any;
}

}  // namespace kro_stream
