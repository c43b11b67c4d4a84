// An owning handle of a file descriptor. Copies share the descriptor.
#pragma once

#include <memory>

// Copies share one descriptor, which is closed when the last copy is destroyed. Copies may be used
// on different threads. Two threads must not use the same copy at once.
class ResHandle {
  public:
    ResHandle() = default;

    // Takes ownership of `fd`. A negative value makes a handle that is not open.
    explicit ResHandle(int fd);

    // The descriptor, -1 when not open.
    operator int() const noexcept;
    explicit operator bool() const noexcept { return static_cast<int>(*this) >= 0; }

    // Releases this copy's share of the descriptor.
    void Reset() noexcept { shared_.reset(); }

    // Closes the descriptor now, for every copy.
    void Close() noexcept;

  private:
    struct Descriptor;
    std::shared_ptr<Descriptor> shared_;
};
