#include "quarn2_cp2_server_model.h"

#include <algorithm>
#include <stdexcept>

#include "kro/kro_err.h"
#include "kro/kro_log.h"
#include "kro/str.h"

namespace {

constexpr kro_log::Module kLog("main");

// Parses one number of an option. Returns `none` when the number is 0.
template <class Number>
Number LimitOr(Number none, const std::string& text, const std::string& option,
               const std::string& value, const char* expected) {
    std::int64_t number = -1;
    try {
        number = str::Int64(text);
    } catch (const kro_err::Error&) {
        number = -1;
    }
    if (number < 0 || number > std::numeric_limits<Number>::max()) {
        throw std::runtime_error("--" + option + " '" + value + "' cannot be used: expected " +
                                 expected);
    }
    return number == 0 ? none : static_cast<Number>(number);
}

}  // namespace

ServerLimits ServerLimits::Parse(const std::string& count_limit, const std::string& size_limit) {
    constexpr const char* kCounts =
        "FULL or FULL:DAILY, two whole numbers (a FULL of 0 sets no limit)";
    constexpr const char* kBytes = "a whole number of bytes (0 sets no limit)";
    ServerLimits limits;
    std::string daily = count_limit;
    const std::string full = str::GetWord(daily, ":");
    limits.full = LimitOr<std::int32_t>(kNoCount, full, "count-limit", count_limit, kCounts);
    limits.daily = LimitOr<std::int32_t>(0, daily, "count-limit", count_limit, kCounts);
    limits.size = LimitOr<std::int64_t>(kNoSize, size_limit, "size-limit", size_limit, kBytes);
    return limits;
}

std::int64_t GlobalSizeControl::StorageDesc::UserDesc::GetLockedSize() const noexcept {
    auto record = backups.rbegin();
    const std::int64_t newest = record->second.size;
    if (IsFull(*record)) return newest;
    record = std::find_if(record, backups.rend(), IsFull);
    return record == backups.rend() ? newest : SumOfSizes(newest, record->second.size);
}

void GlobalSizeControl::StorageDesc::CountPermanently(std::int64_t size) noexcept {
    limit = LessSize(limit, size);
    free_size = LessSize(free_size, size);
}

void GlobalSizeControl::StorageDesc::ResetReserved() noexcept {
    reserved = 0;
    remote_reserved = 0;
    ++resets;
}

std::int64_t GlobalSizeControl::StorageDesc::NeededFor(std::int64_t size, bool is_remote,
                                                       std::int64_t freed) const noexcept {
    if (unfinished == 0) return size;
    std::int64_t used = SumOfSizes(LessSize(unfinished, freed), remote_reserved);
    if (is_remote) used = SumOfSizes(used, size);
    return std::max(size, LessSize(used, reserved));
}

void GlobalSizeControl::RefreshUnfinished() {
    const std::int64_t bytes = unfinished.Bytes();
    for (auto& [key, desc] : storages) desc.unfinished = bytes;
}

GlobalSizeControl::GlobalSizeControl(const kro_args::Result& args) {
    const ServerLimits limits =
        ServerLimits::Parse(args.Param("count-limit", -1), args.Param("size-limit", -1));
    full_limit = limits.full;
    daily_limit = limits.daily;
    size_limit = limits.size;
    path = args.Param("path", -1);
    KRO_LOG(kLog, 5, "Global size control. Size limit: %lld, limit full: %d, limit daily: %d",
            static_cast<long long>(size_limit), full_limit, daily_limit);
}

GlobalSizeControl::StorageDesc& GlobalSizeControl::AddStorage(
    std::shared_ptr<quarn2::Storage> storage) {
    common_storage = true;
    auto& [key, desc] = *storages.try_emplace("").first;
    desc.storage = std::move(storage);
    desc.limit = size_limit;
    desc.free_size = size_limit;
    desc.reserved = 0;
    desc.owner = this;
    KRO_LOG(kLog, 5, "Add node '%s', size limit: %lld, %p", key.c_str(),
            static_cast<long long>(desc.free_size), static_cast<void*>(&desc));
    return desc;
}

void GlobalSizeControl::Init(const std::string& reference_date) {
    date = reference_date;
    KRO_LOG(kLog, 8, "void GlobalSizeControl::Init(const string&)");
    Scan(date);
}

void GlobalSizeControl::ClearBackupInfo() {
    KRO_LOG(kLog, 8, "void GlobalSizeControl::ClearBackupInfo()");
    for (auto& [key, desc] : storages) {
        desc.ResetReserved();
        desc.limit = size_limit;
        desc.free_size = size_limit;
        for (auto& [name, user] : desc.users) user.backups.clear();
        desc.half_deleted.clear();
    }
}

std::int64_t GlobalSizeControl::MaxUsedSize() const noexcept {
    std::int64_t greatest = std::numeric_limits<std::int64_t>::min();
    for (const auto& [key, desc] : storages) {
        greatest = std::max(greatest, UsedSizeOf(desc));
    }
    return storages.empty() ? 0 : greatest;
}

std::int64_t GlobalSizeControl::UsedSizeOf(const StorageDesc& storage) const noexcept {
    return LessSize(size_limit, storage.free_size);
}

std::optional<std::int64_t> GlobalSizeControl::LimitOrNothing() const noexcept {
    if (size_limit == ServerLimits::kNoSize) return std::nullopt;
    return size_limit;
}
