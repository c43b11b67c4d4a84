// An owning handle of a file descriptor that can be shared.
#pragma once

#include <memory>

// Copies share one descriptor; it is closed when the last copy goes. The copies may live on
// different threads, one copy may not be used by two threads at once.
class ResHandle {
  public:
    ResHandle() = default;

    // Takes over `fd`; a negative value makes a handle that is not open.
    explicit ResHandle(int fd);

    // The descriptor's number, -1 when not open.
    operator int() const noexcept;
    explicit operator bool() const noexcept { return static_cast<int>(*this) >= 0; }

    // Lets go of this copy's share.
    void Reset() noexcept { shared_.reset(); }

    // Closes the descriptor now, for every copy.
    void Close() noexcept;

  private:
    struct Descriptor;
    std::shared_ptr<Descriptor> shared_;
};
