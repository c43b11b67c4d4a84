#include "storage/rate_limit.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <utility>

#include "storage/forwarding_backend.h"

namespace quarn2 {

namespace {

class SlowSource final : public ByteSource {
  public:
    SlowSource(ByteSource& source, Pace& pace) : source_(source), pace_(pace) {}

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
    Pace& pace_;
};

class SlowSink final : public ByteSink {
  public:
    SlowSink(ByteSink& sink, Pace& pace) : sink_(sink), pace_(pace) {}

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
    Pace& pace_;
};

class RateLimitedBackend final : public ForwardingBackend {
  public:
    // Returns the Pace for a new transfer.
    using PaceOf = std::function<std::shared_ptr<Pace>()>;

    RateLimitedBackend(std::unique_ptr<StorageBackend> backend, PaceOf pace_of)
        : ForwardingBackend(std::move(backend)), pace_of_(std::move(pace_of)) {}

    bool Put(const std::string& name, ByteSource& source) override {
        const std::shared_ptr<Pace> pace = pace_of_();
        SlowSource slow(source, *pace);
        return backend().Put(name, slow);
    }

    void Get(const std::string& name, ByteSink& sink) override {
        const std::shared_ptr<Pace> pace = pace_of_();
        SlowSink slow(sink, *pace);
        backend().Get(name, slow);
    }

  private:
    PaceOf pace_of_;
};

}  // namespace

std::size_t Pace::Piece() const {
    constexpr std::int64_t kPiecesPerSecond = 10;
    return static_cast<std::size_t>(std::max<std::int64_t>(1, rate_ / kPiecesPerSecond));
}

void Pace::Carried(std::size_t bytes) {
    const int wait = Count(bytes);
    if (wait > 0) kro_proc::Sleep(wait);
}

int Pace::Count(std::size_t bytes) {
    constexpr double kMilliseconds = 1000;
    // The maximum delay, in seconds, for which a transfer may compensate by a higher rate. A longer
    // delay counts as a stall. After a stall the count restarts, because the transfer would
    // otherwise send the missed bytes at full speed.
    constexpr double kMaxArrears = 1;
    const std::lock_guard lock(mutex_);
    carried_ += static_cast<std::int64_t>(bytes);
    const auto now = kro_date::SteadyClock::now();
    const double due = static_cast<double>(carried_) / static_cast<double>(rate_);
    const double passed = std::chrono::duration<double>(now - start_).count();
    if (passed - due > kMaxArrears) {
        start_ = now;
        carried_ = 0;
    }
    return static_cast<int>((due - passed) * kMilliseconds);
}

std::unique_ptr<StorageBackend> RateLimited(std::unique_ptr<StorageBackend> backend,
                                            std::int64_t bytes_per_second) {
    return std::make_unique<RateLimitedBackend>(std::move(backend), [bytes_per_second] {
        return std::make_shared<Pace>(bytes_per_second);
    });
}

std::unique_ptr<StorageBackend> RateLimited(std::unique_ptr<StorageBackend> backend,
                                            std::shared_ptr<Pace> pace) {
    return std::make_unique<RateLimitedBackend>(std::move(backend),
                                                [pace = std::move(pace)] { return pace; });
}

}  // namespace quarn2
