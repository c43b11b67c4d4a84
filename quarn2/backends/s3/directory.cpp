#include "directory.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "base/stored_name.h"
#include "cancel_rest.h"
#include "delete_objects.h"
#include "keys.h"
#include "kro/kro_err.h"
#include "kro/str.h"
#include "net/parallel_requests.h"

namespace quarn2::s3 {

namespace {

using kro_err::Error;
using kro_err::Kind;

constexpr int kNotFound = 404;

Listing ListPage(Service& service, const std::string& prefix, bool only_direct,
                 const std::string& next, const std::string& operation) {
    Call call = ListingCall(prefix, only_direct, next);
    ListingReader reader(service.what());
    call.sink = &reader;
    service.Do(std::move(call), operation);
    return reader.Finish();
}

// Tracks the position in a listing of several pages. Throws kFailed if the server repeats a page or
// the listing has more than kMaxPages pages.
class Pages {
  public:
    explicit Pages(const Service& service) : what_(service.what()) {}

    const std::string& next() const noexcept { return next_; }

    // Advances to the page after `page`. Returns false if `page` is the last page.
    bool Advance(const Listing& page) {
        if (page.next.empty()) return false;
        if (page.next == next_ || ++count_ > kMaxPages) {
            throw Error(
                Kind::kFailed,
                what_ + (page.next == next_ ? ": invalid listing: the server repeated a page"
                                            : ": the listing is too long: more than " +
                                                  str::Str(kMaxPages) + " pages"));
        }
        next_ = page.next;
        return true;
    }

  private:
    // The maximum number of pages of a listing. A page contains up to 1000 keys.
    static constexpr int kMaxPages = 5'000;

    std::string what_;
    std::string next_;
    int count_ = 0;
};

// Returns true if the name is allowed for a stored file. Only another program can have stored keys
// with other names ("a//b", "../x"). Listings omit such keys, but the removal of their directory
// removes them.
bool IsName(const std::string& name) {
    try {
        CheckStoredName(name);
        return true;
    } catch (const Error&) {
        return false;
    }
}

// A key that ends with a slash is a directory, which has no size.
void AddEntry(std::vector<ListedEntry>& entries, const ListedKey& listed, std::string_view prefix) {
    std::string_view key = listed.key;
    if (!str::StartsWith(key, prefix)) return;
    key.remove_prefix(prefix.size());
    const bool is_directory = str::EndsWith(key, "/");
    if (is_directory) key.remove_suffix(1);
    const std::optional<std::string> name = NameOf(key);
    if (name && IsName(*name))
        entries.push_back({*name, is_directory ? std::nullopt : listed.size});
}

// S3 allows a file and a directory of the same name. Keeps one entry for each name: the file's.
void RemoveDuplicates(std::vector<ListedEntry>& entries) {
    const auto order = [](const ListedEntry& a, const ListedEntry& b) {
        return a.name != b.name ? a.name < b.name : a.size.has_value() && !b.size.has_value();
    };
    const auto same = [](const ListedEntry& a, const ListedEntry& b) { return a.name == b.name; };
    std::sort(entries.begin(), entries.end(), order);
    entries.erase(std::unique(entries.begin(), entries.end(), same), entries.end());
}

bool FileExists(Service& service, const std::string& name, const std::string& operation) {
    Call call;
    call.method = "HEAD";
    call.key = service.KeyOf(name);
    const net::HttpReply reply = service.Ask(std::move(call));
    if (reply.IsSuccess()) return true;
    if (reply.status != kNotFound) service.ThrowRefused(reply, operation);
    return false;
}

// Removes all objects whose keys begin with a prefix. Lists the keys page by page and sends several
// removal requests in parallel.
class Sweeper {
  public:
    Sweeper(Service& service, std::string prefix, std::size_t at_once, bool& is_supported)
        : service_(service),
          prefix_(std::move(prefix)),
          operation_("cannot empty a directory"),
          is_supported_(is_supported),
          requests_(service.client(), at_once) {}

    void Run() {
        Pages pages(service_);
        bool more = true;
        while (more) {
            const Listing page = ListPage(service_, prefix_, false, pages.next(), operation_);
            more = pages.Advance(page);
            StartPage(page.keys);
        }
        requests_.Finish();
        RemoveRefused();
    }

  private:
    void StartPage(const std::vector<ListedKey>& keys) {
        std::vector<std::string> batch;
        for (const auto& [key, size] : keys) {
            if (!is_supported_ || !IsXmlText(key)) {
                StartOne(key);
                continue;
            }
            batch.push_back(key);
            if (batch.size() == kMaxKeysOfDelete) StartBatch(std::exchange(batch, {}));
        }
        if (!batch.empty()) StartBatch(std::move(batch));
    }

    // Removes the keys of the refused batches one by one. Waits for the first response before the
    // other requests are sent, because they would fail too if the server refuses the first request.
    void RemoveRefused() {
        for (const std::string& key : refused_) {
            StartOne(key);
            if (&key == &refused_.front()) requests_.Finish();
        }
        requests_.Finish();
    }

    // Removes a key with a separate DELETE request. This is necessary if XML, the format of batch
    // requests, cannot represent the key, or if the server does not support batch requests.
    void StartOne(const std::string& key) {
        StartCall(DeleteCall(key), [this](const net::HttpReply& reply) {
            CheckRemoved(service_, reply, operation_);
        });
    }

    void StartBatch(std::vector<std::string> keys) {
        Call call = DeleteObjectsCall(keys);
        StartCall(std::move(call), [this, keys = std::move(keys)](const net::HttpReply& reply) {
            CheckBatch(keys, reply);
        });
    }

    void CheckBatch(const std::vector<std::string>& keys, const net::HttpReply& reply) {
        if (!reply.IsSuccess() && IsUnknownRequest(reply)) {
            is_supported_ = false;
            refused_.insert(refused_.end(), keys.begin(), keys.end());
            return;
        }
        if (!reply.IsSuccess()) service_.ThrowRefused(reply, operation_);
        const std::vector<DeleteAnswer> left = ReadDeleteAnswer(service_.what(), reply.body);
        if (left.empty()) return;
        service_.ThrowRefused(left.front().refusal, "cannot remove " + Quoted(left.front().key));
    }

    template <class Check>
    void StartCall(Call call, const Check& check) {
        requests_.Start(service_.Signed(std::move(call)), [check](const net::HttpResult& result) {
            if (result.error) std::rethrow_exception(result.error);
            check(result.reply);
        });
    }

    Service& service_;
    std::string prefix_;
    std::string operation_;
    bool& is_supported_;
    std::vector<std::string> refused_;  // keys of batches that the server refused
    net::ParallelRequests requests_;
};

// Removes one file with three parallel requests, which save round trips: one deletes the file, one
// searches for a directory of the same name, and one lists the unfinished uploads of the file.
class FileRemoval {
  public:
    FileRemoval(Service& service, Unfinished& unfinished, const std::string& name)
        : service_(service),
          unfinished_(unfinished),
          name_(name),
          key_(service.KeyOf(name)),
          operation_("cannot remove " + Quoted(name)),
          below_(service.what()) {}

    void Run() {
        {
            const CancelRest guard(service_.client());
            Start(DeleteCall(key_), removed_);
            Call below = ListingCall(key_ + "/", false, {});
            below.query.emplace_back("max-keys", "1");
            below.sink = &below_;
            Start(std::move(below), listed_);
            Start(unfinished_.PageCall(key_, {}), uploads_);
            while (service_.client().running() > 0) service_.client().Wait();
        }
        CheckRemoved(service_, ReplyOf(removed_), operation_);
        CheckNoDirectory();
        AbortUploads();
    }

  private:
    void Start(Call call, net::HttpResult& result) {
        service_.client().Start(service_.Signed(std::move(call)),
                                [&result](net::HttpResult ended) { result = std::move(ended); });
    }

    static const net::HttpReply& ReplyOf(const net::HttpResult& result) {
        if (result.error) std::rethrow_exception(result.error);
        return result.reply;
    }

    void CheckNoDirectory() {
        const net::HttpReply& reply = ReplyOf(listed_);
        if (!reply.IsSuccess()) service_.ThrowRefused(reply, operation_);
        if (below_.Finish().keys.empty()) return;
        throw Error(Kind::kFailed, Quoted(name_) + " on the storage is a directory");
    }

    void AbortUploads() {
        const Uploads page = unfinished_.PageOf(ReplyOf(uploads_));
        const bool any =
            std::any_of(page.uploads.begin(), page.uploads.end(),
                        [this](const UnfinishedUpload& upload) { return upload.key == key_; });
        if (any || page.more) unfinished_.AbortOf(key_);
    }

    Service& service_;
    Unfinished& unfinished_;
    const std::string& name_;
    std::string key_;
    std::string operation_;
    ListingReader below_;
    net::HttpResult removed_;
    net::HttpResult listed_;
    net::HttpResult uploads_;
};

}  // namespace

Call ListingCall(const std::string& prefix, bool only_direct, const std::string& next) {
    Call call;
    call.query = {{"list-type", "2"}, {"encoding-type", "url"}, {"prefix", prefix}};
    if (only_direct) call.query.emplace_back("delimiter", "/");
    if (!next.empty()) call.query.emplace_back("continuation-token", next);
    return call;
}

std::vector<ListedEntry> ListDirectory(Service& service, const std::string& name) {
    const std::string operation = "cannot list " + Quoted(name);
    const std::string prefix = service.KeyOfDirectory(name);
    std::vector<ListedEntry> entries;
    ListingLimit limit(service.what());
    Pages pages(service);
    bool any = false;
    bool more = true;
    while (more) {
        const Listing page = ListPage(service, prefix, true, pages.next(), operation);
        const auto add = [&](const ListedKey& listed) {
            limit.Count(listed.key.size());
            AddEntry(entries, listed, prefix);
            any = true;
        };
        for (const ListedKey& listed : page.keys) add(listed);
        for (const std::string& key : page.directories) add({key, std::nullopt});
        more = pages.Advance(page);
    }
    if (!any && !name.empty()) {
        if (FileExists(service, name, operation)) return {{name, std::nullopt}};
        throw Error(Kind::kNotFound, "no directory " + Quoted(name) + " on the storage");
    }
    RemoveDuplicates(entries);
    return entries;
}

std::optional<std::vector<ListedEntry>> ListAll(Service& service, std::size_t max_pages) {
    const std::string prefix = service.KeyOfDirectory("");
    std::vector<ListedEntry> files;
    ListingLimit limit(service.what());
    Pages pages(service);
    for (std::size_t count = 0; count < max_pages; ++count) {
        const Listing page =
            ListPage(service, prefix, false, pages.next(), "cannot list all files");
        for (const ListedKey& listed : page.keys) {
            limit.Count(listed.key.size());
            if (!str::EndsWith(listed.key, "/")) AddEntry(files, listed, prefix);
        }
        if (!pages.Advance(page)) return files;
    }
    return std::nullopt;
}

void CheckBucket(Service& service) {
    if (service.bucket_seen()) return;
    Call call = ListingCall(service.address().prefix, false, {});
    call.query.emplace_back("max-keys", "1");
    service.Do(std::move(call), "cannot use bucket " + Quoted(service.address().bucket));
}

std::optional<std::set<std::string>> DirectoriesOf(Service& service, const std::string& prefix,
                                                   std::size_t max_pages) {
    std::set<std::string> directories;
    Pages pages(service);
    for (std::size_t count = 0; count < max_pages; ++count) {
        const Listing page = ListPage(service, prefix, true, pages.next(), "cannot remove files");
        directories.insert(page.directories.begin(), page.directories.end());
        if (!pages.Advance(page)) return directories;
    }
    return std::nullopt;
}

void RemoveOne(Service& service, Unfinished& unfinished, const std::string& name) {
    FileRemoval(service, unfinished, name).Run();
}

void RemoveBelow(Service& service, const std::string& prefix, std::size_t at_once,
                 bool& is_supported) {
    Sweeper(service, prefix, at_once, is_supported).Run();
}

}  // namespace quarn2::s3
