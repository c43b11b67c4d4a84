// Helpers for file descriptors that several sources of this layer share.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "kro/kro_err.h"

namespace kro_file {

// Calls a system call again as long as a signal interrupts it.
template <class Call>
auto NoEintr(Call call) noexcept(noexcept(call())) {
    auto result = call();
    while (result < 0 && errno == EINTR) result = call();
    return result;
}

// open(2) with close-on-exec. Returns -1 and sets errno on failure.
int OpenFd(const std::string& path, int flags, mode_t mode = 0) noexcept;

// Reads the file from its beginning to its end. Throws kro_err::Error, which contains `path`, when
// a read fails.
std::string ReadAll(int fd, const std::string& path);

// Writes the complete text at the beginning of the file. Returns false and sets errno on failure.
bool WriteAll(int fd, std::string_view text) noexcept;

// True when the open file is a plain file.
bool IsPlainFile(int fd) noexcept;

// The error for a path that is not a regular file.
kro_err::Error NotPlain(const std::string& path);

}  // namespace kro_file
