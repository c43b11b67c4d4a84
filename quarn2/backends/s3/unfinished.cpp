#include "unfinished.h"

#include <mutex>
#include <set>
#include <utility>

#include "base/listing_limit.h"
#include "kro/kro_err.h"
#include "net/parallel_requests.h"

namespace quarn2::s3 {

namespace {

using kro_err::Error;

constexpr const char* kListing = "cannot list unfinished uploads";
// Maximum age of the list of unfinished uploads that AbortKnownOf() uses for small files. Listing
// them for every small file would take as long as its upload. A list of this age is recent enough,
// because no process uploads a file again within 2 seconds after its upload was killed.
constexpr std::chrono::seconds kListingAge{2};

constexpr std::size_t kAtOnce = 4;
constexpr int kMethodNotAllowed = 405;
constexpr int kNotImplemented = 501;

struct Running {
    std::mutex mutex;
    std::set<std::string> ids;
};

Running& AllRunning() {
    static Running running;
    return running;
}

Call AbortCall(const UnfinishedUpload& upload) {
    Call call;
    call.method = "DELETE";
    call.key = upload.key;
    call.query = {{"uploadId", upload.id}};
    return call;
}

void CheckAborted(const Service& service, const net::HttpResult& result) {
    if (result.error) std::rethrow_exception(result.error);
    // A missing upload is not an error, because another process may have aborted it.
    if (result.reply.IsSuccess()) return;
    const Refusal refusal = RefusalOf(result.reply);
    if (refusal.IsMissing()) return;
    service.ThrowRefused(refusal, "cannot abort an unfinished upload");
}

}  // namespace

RunningUpload::RunningUpload(std::string id) : id_(std::move(id)) {
    const std::lock_guard lock(AllRunning().mutex);
    AllRunning().ids.insert(id_);
}

RunningUpload::~RunningUpload() {
    const std::lock_guard lock(AllRunning().mutex);
    AllRunning().ids.erase(id_);
}

bool RunningUpload::IsRunning(const std::string& id) {
    const std::lock_guard lock(AllRunning().mutex);
    return AllRunning().ids.contains(id);
}

void Unfinished::AbortOf(const std::string& key) {
    known_.erase(key);
    std::vector<UnfinishedUpload> uploads = List(key);
    // Removes the uploads of other, longer keys from the list, because the listing contains the
    // uploads of all keys that begin with `key`.
    std::erase_if(uploads, [&key](const UnfinishedUpload& upload) { return upload.key != key; });
    Abort(uploads);
}

void Unfinished::AbortKnownOf(const std::string& key) {
    const auto now = kro_date::SteadyClock::now();
    if (!listed_ || now - *listed_ > kListingAge) {
        Refresh();
        listed_ = now;
    }
    const auto found = known_.find(key);
    if (found == known_.end()) return;
    std::vector<UnfinishedUpload> uploads;
    for (const std::string& id : found->second) uploads.push_back({key, id});
    known_.erase(found);
    Abort(uploads);
}

std::map<std::string, Error> Unfinished::AbortOfAll(const std::set<std::string>& keys,
                                                    const std::string& prefix) {
    std::map<std::string, Error> errors;
    net::ParallelRequests requests(service_.client(), kAtOnce);
    for (const std::string& key : keys) known_.erase(key);
    for (const UnfinishedUpload& upload : List(prefix)) {
        if (!keys.contains(upload.key) || RunningUpload::IsRunning(upload.id)) continue;
        requests.Start(service_.Signed(AbortCall(upload)),
                       [this, &errors, key = upload.key](const net::HttpResult& result) {
                           try {
                               CheckAborted(service_, result);
                           } catch (const Error& error) {
                               errors.emplace(key, error);
                           }
                       });
    }
    requests.Finish();
    return errors;
}

void Unfinished::AbortBelow(const std::string& prefix) { Abort(List(prefix)); }

void Unfinished::Refresh() {
    known_.clear();
    for (const UnfinishedUpload& upload : List(service_.address().prefix)) Remember(upload);
}

Call Unfinished::PageCall(const std::string& prefix, const UnfinishedUpload& last) const {
    Call call;
    call.query = {{"encoding-type", "url"}, {"prefix", prefix}, {"uploads", ""}};
    if (!last.id.empty()) {
        call.query.emplace_back("key-marker", last.key);
        call.query.emplace_back("upload-id-marker", last.id);
    }
    return call;
}

Uploads Unfinished::PageOf(const net::HttpReply& reply) const {
    if (reply.status == kMethodNotAllowed || reply.status == kNotImplemented) return {};
    if (!reply.IsSuccess()) service_.ThrowRefused(reply, kListing);
    return ReadUploads(service_.what(), reply.body);
}

// Lists the unfinished uploads whose keys begin with `prefix`, on all pages. Requests the next page
// with the key and id of the last upload on the current page. The markers that servers return for
// this purpose are not used, because servers encode them differently.
std::vector<UnfinishedUpload> Unfinished::List(const std::string& prefix) const {
    std::vector<UnfinishedUpload> all;
    ListingLimit limit(service_.what());
    UnfinishedUpload last;
    for (;;) {
        const Uploads page = PageOf(service_.Ask(PageCall(prefix, last)));
        for (const UnfinishedUpload& upload : page.uploads)
            limit.Count(upload.key.size() + upload.id.size());
        all.insert(all.end(), page.uploads.begin(), page.uploads.end());
        if (!page.more || page.uploads.empty()) return all;
        const UnfinishedUpload& end = page.uploads.back();
        if (end.key == last.key && end.id == last.id) {
            throw Error(kro_err::Kind::kFailed,
                        service_.what() + ": invalid listing: the server repeated a page");
        }
        last = end;
    }
}

void Unfinished::Abort(const std::vector<UnfinishedUpload>& uploads) {
    net::ParallelRequests requests(service_.client(), kAtOnce);
    for (const UnfinishedUpload& upload : uploads) {
        if (RunningUpload::IsRunning(upload.id)) continue;
        requests.Start(service_.Signed(AbortCall(upload)),
                       [this](const net::HttpResult& result) { CheckAborted(service_, result); });
    }
    requests.Finish();
}

bool TryToAbort(Service& service, const UnfinishedUpload& upload) noexcept {
    // A failed attempt is repeated only if it took at most this long, because the second one would
    // probably take as long.
    constexpr std::chrono::seconds kQuick{1};
    const auto begin = kro_date::SteadyClock::now();
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (kro_date::SteadyClock::now() - begin > kQuick) return false;
        try {
            const net::HttpReply reply = service.AskOnNewConnection(AbortCall(upload));
            if (reply.IsSuccess() || RefusalOf(reply).IsMissing()) return true;
        } catch (const std::exception&) {
            // Ignore this error. The error that ended the upload is reported instead.
        }
    }
    return false;
}

}  // namespace quarn2::s3
