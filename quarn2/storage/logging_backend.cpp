#include "storage/logging_backend.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "base/stored_name.h"
#include "kro/kro_clock.h"
#include "kro/kro_err.h"
#include "kro/kro_log.h"
#include "kro/str.h"

namespace quarn2 {

namespace {

constexpr kro_log::Module kLog("storage");

// Measures the duration of one storage operation and logs its result in one line.
class Operation {
  public:
    explicit Operation(std::string text) : text_(std::move(text)), start_(Clock::now()) {}

    void Ended(const std::string& how) const {
        kLog.Text(kStorageLogLevel, text_ + ": " + how + " in " + Milliseconds());
    }

    // Runs the storage operation `action` and logs the text that `action` returns, or its error.
    template <class Action>
    void Run(const Action& action) const {
        try {
            Ended(action());
        } catch (const kro_err::Error& error) {
            kLog.Text(kStorageLogLevel, text_ + ": " + std::string(error.type()) + " after " +
                                            Milliseconds() + ": " + error.what());
            throw;
        }
    }

  private:
    using Clock = kro_date::SteadyClock;

    std::string Milliseconds() const {
        const auto passed = Clock::now() - start_;
        return str::Str(std::chrono::duration_cast<std::chrono::milliseconds>(passed).count()) +
               " ms";
    }

    std::string text_;
    Clock::time_point start_;
};

// Counts the bytes of a download and forwards all calls to the wrapped sink.
class CountingSink final : public ByteSink {
  public:
    explicit CountingSink(ByteSink& sink) : sink_(sink) {}

    void Expect(std::int64_t size) override { sink_.Expect(size); }
    void Write(std::span<const std::byte> bytes) override {
        sink_.Write(bytes);
        bytes_ += static_cast<std::int64_t>(bytes.size());
    }
    int Descriptor() const override { return sink_.Descriptor(); }
    void Advance(std::int64_t bytes) override {
        sink_.Advance(bytes);
        bytes_ += bytes;
    }

    std::int64_t bytes() const noexcept { return bytes_; }

  private:
    ByteSink& sink_;
    std::int64_t bytes_ = 0;
};

class LoggedBackend final : public StorageBackend {
  public:
    explicit LoggedBackend(std::unique_ptr<StorageBackend> backend)
        : backend_(std::move(backend)) {}

    bool Put(const std::string& name, ByteSource& source) override {
        bool stored = false;
        Operation("Put " + Quoted(name) + ", " + Bytes(source.size())).Run([&] {
            stored = backend_->Put(name, source);
            return stored ? "stored" : "storage full";
        });
        return stored;
    }

    void Get(const std::string& name, ByteSink& sink) override {
        CountingSink counting(sink);
        Operation("Get " + Quoted(name)).Run([&] {
            backend_->Get(name, counting);
            return Bytes(counting.bytes());
        });
    }

    void Remove(const std::string& name) override {
        Operation("Remove " + Quoted(name)).Run([&] {
            backend_->Remove(name);
            return "done";
        });
    }

    Errors RemoveMany(std::span<const std::string> names) override {
        Errors errors;
        const std::string first = names.empty() ? "" : ", first " + Quoted(names.front());
        Operation("Remove " + str::Str(names.size()) + " files" + first).Run([&] {
            errors = backend_->RemoveMany(names);
            return ResultOf(errors);
        });
        return errors;
    }

    std::size_t RemovalBatch() const override { return backend_->RemovalBatch(); }

    void RemoveDir(const std::string& name) override {
        Operation("Remove directory " + Quoted(name)).Run([&] {
            backend_->RemoveDir(name);
            return "done";
        });
    }

    void SyncRemovals(const std::string& name) override { backend_->SyncRemovals(name); }

    void MakeDir(const std::string& name) override {
        Operation("Create directory " + Quoted(name)).Run([&] {
            backend_->MakeDir(name);
            return "done";
        });
    }

    std::vector<std::string> List(const std::string& name) override {
        std::vector<std::string> names;
        Operation("List " + Quoted(name)).Run([&] {
            names = backend_->List(name);
            return Names(names.size());
        });
        return names;
    }

    std::vector<ListedEntry> ListSizes(const std::string& name) override {
        std::vector<ListedEntry> entries;
        Operation("List " + Quoted(name) + " with sizes").Run([&] {
            entries = backend_->ListSizes(name);
            return Names(entries.size());
        });
        return entries;
    }

    std::optional<std::vector<ListedEntry>> ListAllFiles() override {
        std::optional<std::vector<ListedEntry>> files;
        Operation("List all files").Run([&] {
            files = backend_->ListAllFiles();
            return files ? Names(files->size()) : "not possible with one listing";
        });
        return files;
    }

    void Clear() override {
        Operation("Clear").Run([&] {
            backend_->Clear();
            return "done";
        });
    }

  private:
    static std::string Bytes(std::int64_t count) {
        return str::Str(count) + (count == 1 ? " byte" : " bytes");
    }

    static std::string Names(std::size_t count) {
        return str::Str(count) + (count == 1 ? " name" : " names");
    }

    // Returns the number of errors and the text of the first error.
    static std::string ResultOf(const Errors& errors) {
        const auto is_error = [](const std::optional<kro_err::Error>& error) {
            return error.has_value();
        };
        const auto first = std::find_if(errors.begin(), errors.end(), is_error);
        if (first == errors.end()) return "done";
        const auto count = std::count_if(first, errors.end(), is_error);
        return str::Str(count) + " failed, first: " + (*first)->what();
    }

    std::unique_ptr<StorageBackend> backend_;
};

}  // namespace

std::unique_ptr<StorageBackend> Logged(std::unique_ptr<StorageBackend> backend) {
    return std::make_unique<LoggedBackend>(std::move(backend));
}

}  // namespace quarn2
