#include "kro/res_handle.h"

#include <unistd.h>

#include <atomic>

struct ResHandle::Descriptor {
    explicit Descriptor(int number) noexcept : fd(number) {}
    ~Descriptor() { Close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    // Never repeats close(2): on Linux the number is free even after EINTR, and another thread may
    // have reused it.
    void Close() noexcept {
        const int number = fd.exchange(-1);
        if (number >= 0) ::close(number);
    }

    std::atomic<int> fd;
};

ResHandle::ResHandle(int fd) {
    if (fd < 0) return;
    try {
        shared_ = std::make_shared<Descriptor>(fd);
    } catch (...) {
        ::close(fd);
        throw;
    }
}

ResHandle::operator int() const noexcept { return shared_ ? shared_->fd.load() : -1; }

void ResHandle::Close() noexcept {
    if (shared_) shared_->Close();
    shared_.reset();
}
