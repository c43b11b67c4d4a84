#include "storage/rate_limit.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "kro/kro_clock.h"
#include "storage/forwarding_backend.h"

namespace quarn2 {

namespace {

// Limits the rate of one transfer: counts its bytes and sleeps while the transfer is faster than
// the rate.
class Pace {
  public:
    explicit Pace(std::int64_t bytes_per_second) : rate_(bytes_per_second) {}

    // Returns the maximum number of bytes to transfer in one step, which is the amount for a tenth
    // of a second. Small steps avoid bursts.
    std::size_t Piece() const {
        constexpr std::int64_t kPiecesPerSecond = 10;
        return static_cast<std::size_t>(std::max<std::int64_t>(1, rate_ / kPiecesPerSecond));
    }

    void Carried(std::size_t bytes) {
        carried_ += static_cast<std::int64_t>(bytes);
        const double due = static_cast<double>(carried_) / static_cast<double>(rate_);
        const double passed =
            std::chrono::duration<double>(kro_date::SteadyClock::now() - start_).count();
        constexpr double kMilliseconds = 1000;
        const int wait = static_cast<int>((due - passed) * kMilliseconds);
        if (wait > 0) kro_proc::Sleep(wait);
        // After a stall the transfer must not catch up, because it would send the missed bytes at
        // full speed.
        if (passed - due > kMaxArrears) Restart();
    }

  private:
    // Maximum delay of a transfer, in seconds, that is caught up. A longer delay counts as a stall.
    static constexpr double kMaxArrears = 1;

    void Restart() {
        start_ = kro_date::SteadyClock::now();
        carried_ = 0;
    }

    std::int64_t rate_;
    std::int64_t carried_ = 0;
    kro_date::SteadyClock::time_point start_ = kro_date::SteadyClock::now();
};

class SlowSource final : public ByteSource {
  public:
    SlowSource(ByteSource& source, std::int64_t rate) : source_(source), pace_(rate) {}

    std::int64_t size() const override { return source_.size(); }

    std::size_t ReadAt(std::int64_t offset, std::span<std::byte> buffer) override {
        std::size_t done = 0;
        while (done < buffer.size()) {
            const std::span<std::byte> piece =
                buffer.subspan(done, std::min(pace_.Piece(), buffer.size() - done));
            const std::size_t got = source_.ReadAt(offset + static_cast<std::int64_t>(done), piece);
            pace_.Carried(got);
            done += got;
            if (got < piece.size()) break;
        }
        return done;
    }

    void CheckUnchanged() override { source_.CheckUnchanged(); }

  private:
    ByteSource& source_;
    Pace pace_;
};

class SlowSink final : public ByteSink {
  public:
    SlowSink(ByteSink& sink, std::int64_t rate) : sink_(sink), pace_(rate) {}

    void Expect(std::int64_t size) override { sink_.Expect(size); }

    void Write(std::span<const std::byte> bytes) override {
        while (!bytes.empty()) {
            const auto piece = bytes.first(std::min(pace_.Piece(), bytes.size()));
            sink_.Write(piece);
            pace_.Carried(piece.size());
            bytes = bytes.subspan(piece.size());
        }
    }

  private:
    ByteSink& sink_;
    Pace pace_;
};

class RateLimitedBackend final : public ForwardingBackend {
  public:
    RateLimitedBackend(std::unique_ptr<StorageBackend> backend, std::int64_t rate)
        : ForwardingBackend(std::move(backend)), rate_(rate) {}

    bool Put(const std::string& name, ByteSource& source) override {
        SlowSource slow(source, rate_);
        return backend().Put(name, slow);
    }

    void Get(const std::string& name, ByteSink& sink) override {
        SlowSink slow(sink, rate_);
        backend().Get(name, slow);
    }

  private:
    std::int64_t rate_;
};

}  // namespace

std::unique_ptr<StorageBackend> RateLimited(std::unique_ptr<StorageBackend> backend,
                                            std::int64_t bytes_per_second) {
    return std::make_unique<RateLimitedBackend>(std::move(backend), bytes_per_second);
}

}  // namespace quarn2
