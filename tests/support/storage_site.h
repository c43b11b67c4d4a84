// The interface of a storage for the test suites, and helpers for tests of storages.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "kro/kro_err.h"
#include "local_files.h"
#include "quarn2/storage.h"
#include "quarn2/token.h"
#include "quarn2_backend/storage_backend.h"
#include "storage/encrypted_backend.h"
#include "temp_dir.h"

// The storage of one test. It is empty at first, and the destructor removes it.
class StorageSite {
  public:
    StorageSite() = default;
    virtual ~StorageSite() = default;
    StorageSite(const StorageSite&) = delete;
    StorageSite& operator=(const StorageSite&) = delete;

    virtual std::string Token() const = 0;

    // The paths of all files on the storage, including files that the storage does not list.
    virtual std::vector<std::string> Everything() const = 0;

    // Leaves the same files as a killed upload of `name`. Returns false if an upload to this
    // storage cannot leave anything.
    virtual bool LeaveLeftover(const std::string& name) = 0;

    // True if the server refuses a file of that name with an error.
    virtual bool RefusesName(const std::string& /*name*/) const { return false; }

    // The maximum number of names in one reply to a listing. For a storage without such a limit,
    // a number of names that needs more than one read of the directory or connection.
    virtual std::size_t NamesPerPage() const { return 100; }

    // Limits the storage to this many bytes, within about 64 KiB. Returns false if the test cannot
    // set a limit. The storage must be empty.
    virtual bool LimitRoom(std::int64_t bytes) = 0;
};

// Waits up to 30 seconds for the condition, because the server may need time to notice that a
// client has disconnected and to clean up.
template <class Condition>
bool SoonTrue(const Condition& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

inline void ExpectSoonNothingBut(const StorageSite& site, const std::string& name) {
    EXPECT_TRUE(SoonTrue([&] { return site.Everything() == std::vector<std::string>{name}; }))
        << testing::PrintToString(site.Everything());
}

// A kind of storage: a suffix for test names and the function that creates a site.
struct StorageKind {
    const char* name;
    std::unique_ptr<StorageSite> (*make)();

    friend std::ostream& operator<<(std::ostream& out, const StorageKind& kind) {
        return out << kind.name;
    }
};

// Makes a StorageKind for testing::Values.
template <class Site>
StorageKind SiteKind(const char* name) {
    return {name, []() -> std::unique_ptr<StorageSite> { return std::make_unique<Site>(); }};
}

// The name that GoogleTest appends to the name of a test of this kind.
template <class Kind>
std::string NameOfKind(const testing::TestParamInfo<Kind>& kind) {
    return kind.param.name;
}

// A source that fails at an offset that the test sets.
class TextSource : public quarn2::ByteSource {
  public:
    explicit TextSource(std::string text) : text_(std::move(text)) {}

    std::int64_t size() const override { return static_cast<std::int64_t>(text_.size()); }

    std::size_t ReadAt(std::int64_t offset, std::span<std::byte> buffer) override {
        if (fail_from >= 0 && offset + static_cast<std::int64_t>(buffer.size()) > fail_from) {
            throw kro_err::Error(kro_err::Kind::kFailed, "the source broke");
        }
        const auto begin = static_cast<std::size_t>(offset);
        const std::size_t count = std::min(buffer.size(), text_.size() - begin);
        if (count > 0) std::memcpy(buffer.data(), text_.data() + begin, count);
        return count;
    }

    void CheckUnchanged() override {
        if (changed) throw kro_err::Error(kro_err::Kind::kFailed, "the source changed");
    }

    std::int64_t fail_from = -1;
    bool changed = false;

  private:
    std::string text_;
};

// The kind of the kro_err::Error that `action` throws; nullopt if it throws none.
template <class Action>
std::optional<kro_err::Kind> KindOf(const Action& action) {
    try {
        action();
    } catch (const kro_err::Error& error) {
        return error.kind();
    }
    return std::nullopt;
}
