// A wrapper that limits the transfer rate of a backend.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "kro/kro_clock.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2 {

// Limits the rate of one transfer, or of several transfers together: counts their bytes and sleeps
// while they are faster than the rate. Thread-safe.
class Pace {
  public:
    explicit Pace(std::int64_t bytes_per_second) : rate_(bytes_per_second) {}

    // Returns the maximum number of bytes to transfer in one step: the number that the rate allows
    // in 0.1 seconds. Small steps avoid bursts.
    std::size_t Piece() const;

    // Counts transferred bytes and sleeps if the transfers are faster than the rate.
    void Carried(std::size_t bytes);

  private:
    // Counts the bytes and returns the number of milliseconds to sleep.
    int Count(std::size_t bytes);

    const std::int64_t rate_;
    std::mutex mutex_;
    std::int64_t carried_ = 0;
    kro_date::SteadyClock::time_point start_ = kro_date::SteadyClock::now();
};

// Wraps a backend. The wrapper limits the rate of each upload and each download to
// `bytes_per_second`, averaged over about a second.
std::unique_ptr<StorageBackend> RateLimited(std::unique_ptr<StorageBackend> backend,
                                            std::int64_t bytes_per_second);

// Wraps a backend. The rate of `pace` limits the total of all transfers of all backends that share
// this object.
std::unique_ptr<StorageBackend> RateLimited(std::unique_ptr<StorageBackend> backend,
                                            std::shared_ptr<Pace> pace);

}  // namespace quarn2
