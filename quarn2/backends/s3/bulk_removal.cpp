#include "bulk_removal.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

#include "base/stored_name.h"
#include "delete_objects.h"
#include "directory.h"
#include "keys.h"
#include "net/parallel_requests.h"

namespace quarn2::s3 {

namespace {

using kro_err::Error;
using kro_err::Kind;

constexpr const char* kDoing = "cannot remove files";

// If a directory contains at most this number of the names to remove, each of these names is
// checked with a separate request. Otherwise the directory is listed.
constexpr std::size_t kFewNames = 3;
// The minimum number of names per page of a directory listing. If the listing has more pages, one
// request per name is cheaper.
constexpr std::size_t kNamesPerPage = 10;
// The minimum number of keys per request. Fewer keys do not justify another parallel request.
constexpr std::size_t kMinKeysOfRequest = 100;

// Returns the common prefix of the keys. Shortens the prefix if it ends inside a UTF-8 character.
std::string CommonPrefix(const std::vector<std::string>& sorted) {
    const std::string& first = sorted.front();
    const std::string& last = sorted.back();
    std::size_t length = static_cast<std::size_t>(
        std::mismatch(
            first.begin(),
            first.begin() + static_cast<std::ptrdiff_t>(std::min(first.size(), last.size())),
            last.begin())
            .first -
        first.begin());
    constexpr unsigned kContinuationMask = 0xC0;
    constexpr unsigned kContinuation = 0x80;
    const auto continues = [&first](std::size_t i) {
        return i < first.size() &&
               (static_cast<unsigned char>(first[i]) & kContinuationMask) == kContinuation;
    };
    while (length > 0 && continues(length)) --length;
    return first.substr(0, length);
}

std::string DirectoryOf(const std::string& key) {
    const std::size_t slash = key.rfind('/');
    return slash == std::string::npos ? std::string() : key.substr(0, slash + 1);
}

}  // namespace

StorageBackend::Errors BulkRemoval::Run(std::span<const std::string> names) {
    names_ = names;
    errors_.assign(names.size(), std::nullopt);
    positions_.clear();
    FindKeys(names);
    RefuseDirectories();
    AbortUploads();
    RemoveObjects();
    return std::move(errors_);
}

void BulkRemoval::FindKeys(std::span<const std::string> names) {
    for (std::size_t i = 0; i < names.size(); ++i) {
        try {
            positions_.emplace(service_.KeyOf(names[i]), i);
        } catch (const Error& error) {
            errors_[i] = error;
        }
    }
}

// Returns the sorted keys, each once, of all names that have not failed.
BulkRemoval::Keys BulkRemoval::Pending() const {
    Keys keys;
    for (const auto& [key, position] : positions_) {
        if (!errors_[position] && (keys.empty() || keys.back() != key)) keys.push_back(key);
    }
    return keys;
}

std::string BulkRemoval::OperationText(const std::string& key) const {
    const auto found = positions_.find(key);
    return "cannot remove " + Quoted(found == positions_.end() ? key : names_[found->second]);
}

void BulkRemoval::Fail(const std::string& key, const Error& error) {
    const auto [begin, end] = positions_.equal_range(key);
    for (auto each = begin; each != end; ++each) {
        if (!errors_[each->second]) errors_[each->second] = error;
    }
}

void BulkRemoval::Step(const Keys& keys, const std::function<void()>& step) {
    try {
        step();
    } catch (const Error& error) {
        for (const std::string& key : keys) Fail(key, error);
    }
}

// --- Directories ---

void BulkRemoval::RefuseDirectories() {
    std::map<std::string, Keys> by_directory;
    Keys single;
    for (const std::string& key : Pending()) by_directory[DirectoryOf(key)].push_back(key);
    for (const auto& [directory, keys] : by_directory) {
        if (keys.size() <= kFewNames) {
            single.insert(single.end(), keys.begin(), keys.end());
        } else {
            Step(keys, [&, &where = directory, &all = keys] { RefuseDirectoriesIn(where, all); });
        }
    }
    Step(single, [&] { RefuseDirectoriesOneByOne(single); });
}

void BulkRemoval::RefuseDirectoriesIn(const std::string& directory, const Keys& keys) {
    const std::size_t max_pages = std::max<std::size_t>(1, keys.size() / kNamesPerPage);
    const std::string prefix = std::max(CommonPrefix(keys), directory);
    const auto directories = DirectoriesOf(service_, prefix, max_pages);
    if (!directories) return RefuseDirectoriesOneByOne(keys);
    for (const std::string& key : keys) {
        if (!directories->contains(key + "/")) continue;
        Fail(key, Error(Kind::kFailed, OperationText(key) + ": it is a directory on the storage"));
    }
}

void BulkRemoval::RefuseDirectoriesOneByOne(const Keys& keys) {
    net::ParallelRequests requests(service_.client(), at_once_);
    for (const std::string& key : keys) {
        Call call = ListingCall(key + "/", false, {});
        call.query.emplace_back("max-keys", "1");
        requests.Start(service_.Signed(std::move(call)), [&](const net::HttpResult& result) {
            if (result.error) std::rethrow_exception(result.error);
            if (!result.reply.IsSuccess()) service_.ThrowRefused(result.reply, kDoing);
            ListingReader reader(service_.what());
            reader.Write(std::as_bytes(std::span(result.reply.body)));
            if (reader.Finish().keys.empty()) return;
            Fail(key,
                 Error(Kind::kFailed, OperationText(key) + ": it is a directory on the storage"));
        });
    }
    requests.Finish();
}

// --- Uploads ---

void BulkRemoval::AbortUploads() {
    const Keys keys = Pending();
    if (keys.empty()) return;
    Step(keys, [&] {
        const std::set<std::string> all(keys.begin(), keys.end());
        for (const auto& [key, error] : unfinished_.AbortOfAll(all, CommonPrefix(keys))) {
            Fail(key, error);
        }
    });
}

// --- Objects ---

void BulkRemoval::RemoveObjects() {
    Keys together;
    Keys single;
    // XML, the format of the request for several keys, cannot represent every key.
    for (std::string& key : Pending()) {
        (is_supported_ && IsXmlText(key) ? together : single).push_back(std::move(key));
    }
    Keys refused = RemoveTogether(together);
    std::move(refused.begin(), refused.end(), std::back_inserter(single));
    if (single.empty()) return;
    // Remove one key first. If the server does not respond or refuses access, the other requests
    // would fail too, so do not send them.
    RemoveOneByOne({single.front()});
    const std::optional<Error> first = errors_[positions_.find(single.front())->second];
    if (first && first->kind() != Kind::kFailed) {
        for (const std::string& key : single) Fail(key, *first);
        return;
    }
    RemoveOneByOne({single.begin() + 1, single.end()});
}

// Returns the keys that must be removed one by one, because the server does not support requests
// for several keys.
BulkRemoval::Keys BulkRemoval::RemoveTogether(const Keys& keys) {
    const std::size_t share = (keys.size() + at_once_ - 1) / at_once_;
    const std::size_t size = std::clamp(share, kMinKeysOfRequest, kMaxKeysOfDelete);
    Keys refused;
    net::ParallelRequests requests(service_.client(), at_once_);
    for (std::size_t begin = 0; begin < keys.size(); begin += size) {
        const auto from = keys.begin() + static_cast<std::ptrdiff_t>(begin);
        Keys part(from, from + static_cast<std::ptrdiff_t>(std::min(size, keys.size() - begin)));
        net::HttpRequest request = service_.Signed(DeleteObjectsCall(part));
        requests.Start(std::move(request),
                       [this, &refused, part = std::move(part)](const net::HttpResult& result) {
                           if (CheckTogether(part, result)) return;
                           refused.insert(refused.end(), part.begin(), part.end());
                       });
    }
    requests.Finish();
    return refused;
}

// Records the errors in the response to a request for several keys. Returns false if the server
// does not support such requests.
bool BulkRemoval::CheckTogether(const Keys& keys, const net::HttpResult& result) {
    if (!result.error && !result.reply.IsSuccess() && IsUnknownRequest(result.reply)) {
        is_supported_ = false;
        return false;
    }
    Step(keys, [&] {
        if (result.error) std::rethrow_exception(result.error);
        if (!result.reply.IsSuccess()) service_.ThrowRefused(result.reply, kDoing);
        for (const DeleteAnswer& left : ReadDeleteAnswer(service_.what(), result.reply.body)) {
            const Error error(
                left.refusal.kind(),
                service_.what() + ": " + OperationText(left.key) + ": " + left.refusal.Text());
            // If the error contains none of the requested keys, it can refer to any of them, so all
            // of them fail.
            if (!positions_.contains(left.key)) throw error;
            Fail(left.key, error);
        }
    });
    return true;
}

void BulkRemoval::RemoveOneByOne(const Keys& keys) {
    net::ParallelRequests requests(service_.client(), at_once_);
    for (const std::string& key : keys) {
        requests.Start(service_.Signed(DeleteCall(key)), [&](const net::HttpResult& result) {
            Step({key}, [&] {
                if (result.error) std::rethrow_exception(result.error);
                CheckRemoved(service_, result.reply, OperationText(key));
            });
        });
    }
    requests.Finish();
}

}  // namespace quarn2::s3
