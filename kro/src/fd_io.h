// What the sources that work on descriptors share.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <string_view>

namespace kro_file {

// Repeats a system call that a signal interrupted.
template <class Call>
auto NoEintr(Call call) noexcept(noexcept(call())) {
    auto result = call();
    while (result < 0 && errno == EINTR) result = call();
    return result;
}

// open(2), close-on-exec; -1 with errno.
int OpenFd(const std::string& path, int flags, mode_t mode = 0) noexcept;

// Everything from the descriptor's beginning; throws with the path in the text.
std::string ReadAll(int fd, const std::string& path);

// The whole text at the descriptor's beginning; false with errno.
bool WriteAll(int fd, std::string_view text) noexcept;

// True when the path itself (not what a link points to) is the open file.
bool IsSameFile(int fd, const std::string& path) noexcept;

}  // namespace kro_file
