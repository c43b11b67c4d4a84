// Copies the data of a file in the fastest way that the file systems support.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "fd_io.h"
#include "kro/kro_file.h"

namespace kro_file {

namespace {

constexpr std::int64_t kBlockSize = 16LL * 1024 * 1024;
constexpr std::size_t kBufferSize = 1024UL * 1024;
// For smaller files, preallocation costs more than it saves.
constexpr std::int64_t kWorthAllocating = 4LL * 1024 * 1024;

std::int64_t SizeOf(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) throw CopyError("Failed to examine the source file", errno);
    return status.st_size;
}

Copied Compare(std::int64_t real, std::int64_t said) noexcept {
    if (real == said) return Copied::kAll;
    return real < said ? Copied::kSourceShorter : Copied::kSourceLonger;
}

bool IsSparse(int fd) noexcept {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && status.st_blocks * 512 < status.st_size;
}

// Preallocates the space of the target file. This detects a full disk before the first write and
// lets the file system allocate contiguous space. If the file system cannot preallocate, a later
// write reports a full disk.
void Allocate(int fd, std::int64_t size) {
    if (size < kWorthAllocating) return;
    const int result = NoEintr([&]() noexcept { return ::fallocate(fd, 0, 0, size); });
    if (result == 0 || (errno != ENOSPC && errno != EDQUOT)) return;
    throw CopyError("Failed to allocate space for a copy", errno);
}

// True for file systems whose server may copy the data itself, so that copy_file_range can avoid a
// transfer through this machine. On other file systems, large reads and writes are faster than
// copy_file_range, because the kernel copies page by page.
bool CopiesRemotely(int fd) noexcept {
    constexpr std::array<unsigned, 6> kRemote = {
        0x6969,      // NFS
        0xff534d42,  // CIFS
        0xfe534d42,  // SMB2
        0x00c36400,  // Ceph
        0x65735546,  // FUSE
        0x0bd00bd0,  // Lustre
    };
    struct statfs status {};
    if (::fstatfs(fd, &status) != 0) return false;
    return std::find(kRemote.begin(), kRemote.end(), static_cast<unsigned>(status.f_type)) !=
           kRemote.end();
}

// Copies the data of one file.
class Copy {
  public:
    Copy(int from, int to, const CopyProgress& progress) noexcept
        : from_(from), to_(to), progress_(progress), in_kernel_(CopiesRemotely(to)) {}

    // Copies the bytes from `begin` to `end`. Stops early at the end of the source.
    void Range(std::int64_t begin, std::int64_t end) {
        offset_ = begin;
        while (offset_ < end) {
            const std::int64_t start = offset_;
            if (!Piece(std::min(end, start + kBlockSize))) return;
            // Starts the write-back now, so that it runs in parallel with the rest of the copy and
            // the final sync is short. A failure is ignored here, because the final sync reports
            // it.
            ::sync_file_range(to_, start, offset_ - start, SYNC_FILE_RANGE_WRITE);
            Report(offset_ - start);
        }
    }

    // Copies only the data of a sparse file. The holes of the source stay holes in the target.
    void Data(std::int64_t size) {
        if (::ftruncate(to_, size) != 0) throw CopyError("Failed to set a file's size", errno);
        std::int64_t end = 0;
        while (end < size) {
            const std::int64_t begin = ::lseek(from_, end, SEEK_DATA);
            if (begin < 0 && errno == ENXIO) return Report(size - end);
            if (begin < 0) return Range(end, size);
            // When the source grows during the copy, its next data may begin beyond `size`.
            Report(std::min(begin, size) - end);
            end = std::min<std::int64_t>(::lseek(from_, begin, SEEK_HOLE), size);
            if (end <= begin) return Range(begin, size);
            Range(begin, end);
        }
    }

  private:
    void Report(std::int64_t bytes) const {
        if (progress_ && bytes > 0) progress_(bytes);
    }

    bool Piece(std::int64_t end) {
        while (offset_ < end) {
            if (in_kernel_ && InKernel(end)) continue;
            // If the in-kernel copy fails, fall back to read and write, which report the real
            // error.
            in_kernel_ = false;
            if (!Plain(end)) return false;
        }
        return true;
    }

    bool InKernel(std::int64_t end) noexcept {
        off_t from = offset_;
        off_t to = offset_;
        const auto size = static_cast<std::size_t>(end - offset_);
        const ssize_t done =
            NoEintr([&]() noexcept { return ::copy_file_range(from_, &from, to_, &to, size, 0); });
        if (done > 0) offset_ += done;
        return done > 0;
    }

    bool Plain(std::int64_t end) {
        const auto size = std::min(kBufferSize, static_cast<std::size_t>(end - offset_));
        if (buffer_size_ < size) {
            buffer_ = std::make_unique_for_overwrite<char[]>(size);
            buffer_size_ = size;
        }
        const ssize_t got = NoEintr([&] { return ::pread(from_, buffer_.get(), size, offset_); });
        if (got < 0) throw CopyError("Failed to read the source of a copy", errno);
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = NoEintr([&] {
                return ::pwrite(to_, buffer_.get() + done, static_cast<std::size_t>(got - done),
                                offset_ + done);
            });
            if (put < 0) throw CopyError("Failed to write a copy", errno);
            done += put;
        }
        offset_ += got;
        return got > 0;
    }

    int from_;
    int to_;
    const CopyProgress& progress_;
    std::int64_t offset_ = 0;
    bool in_kernel_;
    std::size_t buffer_size_ = 0;
    std::unique_ptr<char[]> buffer_;
};

}  // namespace

CopyError::CopyError(const std::string& text, int error)
    : kro_err::SystemError(kro_err::FromErrno(text, error)) {}

bool CopyError::IsFull() const noexcept { return error() == ENOSPC || error() == EDQUOT; }

Copied CopyData(int from, int to, std::int64_t size, const CopyProgress& progress) {
    const Copied before = Compare(SizeOf(from), size);
    if (before != Copied::kAll || size == 0) return before;
    // The clone is a snapshot, and the source may change after it was made. So the size of the
    // clone is compared, not that of the source.
    if (::ioctl(to, FICLONE, from) == 0) {
        if (progress) progress(size);
        return Compare(SizeOf(to), size);
    }
    // Requests a longer read-ahead. A failure of this hint is ignored.
    ::posix_fadvise(from, 0, 0, POSIX_FADV_SEQUENTIAL);
    Copy copy(from, to, progress);
    if (IsSparse(from)) {
        copy.Data(size);
    } else {
        Allocate(to, size);
        copy.Range(0, size);
    }
    return Compare(SizeOf(from), size);
}

}  // namespace kro_file
