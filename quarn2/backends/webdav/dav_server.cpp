#include "dav_server.h"

#include <exception>
#include <utility>

#include "base/stored_name.h"
#include "kro/kro_file.h"
#include "kro/str.h"

namespace quarn2::webdav {

namespace {

using kro_err::Error;
using kro_err::Kind;
using net::HttpReply;
using net::HttpRequest;
using net::HttpResult;

constexpr std::size_t kDeletionsAtOnce = 8;

std::string Question(Ask ask) {
    std::string properties = "<D:resourcetype/>";
    if (ask != Ask::kType) properties += "<D:getcontentlength/>";
    if (ask == Ask::kAll) properties += "<D:getlastmodified/><D:quota-available-bytes/>";
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
           "<D:propfind xmlns:D=\"DAV:\"><D:prop>" +
           properties + "</D:prop></D:propfind>\n";
}

bool IsAbsent(int status) { return status == kNotFoundStatus || status == kGone; }

}  // namespace

// A DELETE request in progress.
struct DavServer::Deletion {
    explicit Deletion(const std::string& what)
        : sink(what, [this](const DavEntry& entry) {
              if (failed == 0 && entry.status >= 300 && !IsAbsent(entry.status)) {
                  failed = entry.status;
              }
          }) {}

    Target victim;
    int failed = 0;  // the status of the first file that could not be removed
    MultistatusSink sink;
};

DavServer::DavServer(const BackupToken& token, net::ServerSettings settings)
    : address_(token), client_(std::move(settings)) {}

void DavServer::RecordStatus(int status) {
    const bool refused = status == kUnauthorizedStatus || status == kForbidden;
    accepted_ = accepted_ || (status < 500 && !refused);
}

// --- Requests ---

HttpReply DavServer::Do(HttpRequest request) {
    HttpReply reply = client_.Do(std::move(request));
    RecordStatus(reply.status);
    return reply;
}

HttpReply DavServer::Do(const std::string& method, const std::string& url,
                        std::vector<std::string> headers) {
    HttpRequest request;
    request.method = method;
    request.url = url;
    request.headers = std::move(headers);
    return Do(std::move(request));
}

HttpReply DavServer::Propfind(const std::string& url, int depth, Ask ask,
                              const MultistatusSink::Take& take) {
    MultistatusSink sink(what(), take);
    HttpRequest request;
    request.method = "PROPFIND";
    request.url = url;
    request.headers = {"Depth: " + str::Str(depth), "Content-Type: application/xml"};
    request.body = std::make_unique<net::TextBody>(Question(ask));
    request.sink = &sink;
    HttpReply reply = Do(std::move(request));
    sink.Finish();
    return reply;
}

void DavServer::ThrowRefused(const std::string& method, const std::string& name,
                             const HttpReply& reply) const {
    throw Error(KindOf(FailureOf(reply.status, accepted_)),
                what() + ": " + method + " of " + Quoted(name) + " failed with status " +
                    str::Str(reply.status) + Hint(method, reply.status));
}

// --- Lookups and listings ---

Resource DavServer::Query(const std::string& name, Ask ask) {
    Resource found;
    bool seen = false;
    const HttpReply reply = Propfind(address_.File(name), 0, ask, [&](const DavEntry& entry) {
        if (std::exchange(seen, true)) return;
        using enum Resource::Kind;
        found.kind = entry.is_collection ? kCollection : kFile;
        found.length = entry.length;
        found.modified = entry.modified;
        found.available = entry.available;
    });
    if (reply.status == kMultistatus && seen) {
        found.now = reply.Header("date");
        return found;
    }
    if (IsAbsent(reply.status)) return {};
    // Some servers return a 400 or 409 for a name below a file. If the parent is not a collection,
    // nothing exists at this name.
    const bool may_be_below_a_file = reply.status == kBadRequest || reply.status == kConflict;
    if (may_be_below_a_file && !name.empty() && !Query(kro_file::Path(name)).IsCollection()) {
        return {};
    }
    ThrowRefused("PROPFIND", name, reply);
}

Resource::Kind DavServer::List(const std::string& name, Ask ask, const TakeEntry& take) {
    using enum Resource::Kind;
    const std::string prefix = name.empty() ? "" : name + "/";
    Resource::Kind kind = kCollection;
    const auto take_one = [&](const DavEntry& entry) {
        const std::optional<std::string> path = address_.NameOf(entry.href);
        if (!path) return;
        if (*path == name) {
            kind = entry.is_collection ? kCollection : kFile;
        } else if (str::StartsWith(*path, prefix)) {
            std::string component = path->substr(prefix.size());
            // Skip entries of subdirectories, which some servers send although only one level was
            // requested.
            if (component.find('/') == std::string::npos) take(std::move(component), entry);
        }
    };
    for (int attempt = 0;; ++attempt) {
        const HttpReply reply = Propfind(address_.Directory(name), 1, ask, take_one);
        if (reply.status == kMultistatus) return kind;
        const Resource::Kind found = Query(name).kind;
        if (found != kCollection) return found;
        // The collection exists now, although the PROPFIND failed. Retry once, because the
        // collection may have been created between the two requests.
        if (attempt > 0) ThrowRefused("PROPFIND", name, reply);
    }
}

void DavServer::CheckRoot() {
    if (!Query("").IsNothing()) return;
    throw Error(Kind::kNotFound, what() + ": the storage directory does not exist; create it");
}

// --- Removing ---

std::unique_ptr<DavServer::Deletion> DavServer::NewDeletion(const Target& victim) const {
    auto deletion = std::make_unique<Deletion>(what());
    deletion->victim = victim;
    return deletion;
}

void DavServer::CheckDeleted(const Deletion& deletion, const HttpReply& reply) {
    const std::string& name = deletion.victim.name;
    if (reply.IsSuccess() && deletion.failed == 0) return;
    if (IsAbsent(reply.status)) {
        some_absent_ = true;
        return;
    }
    const int status = deletion.failed != 0 ? deletion.failed : reply.status;
    const bool partly = deletion.victim.is_collection &&
                        (deletion.failed != 0 || status == kLocked || status == kFailedDependency);
    if (!partly) ThrowRefused("DELETE", name, reply);
    throw Error(Kind::kFailed, what() + ": cannot remove everything below " + Quoted(name) +
                                   ": status " + str::Str(status) + Hint("DELETE", status));
}

void DavServer::Delete(const std::string& name, bool is_collection) {
    DeleteAll({{name, is_collection}});
}

void DavServer::StartDeletion(const Target& victim, net::ParallelRequests& requests) {
    std::shared_ptr<Deletion> deletion = NewDeletion(victim);
    HttpRequest request;
    request.method = "DELETE";
    request.url =
        victim.is_collection ? address_.Directory(victim.name) : address_.File(victim.name);
    request.sink = &deletion->sink;
    requests.Start(std::move(request), [this, deletion](const HttpResult& result) {
        if (result.error) std::rethrow_exception(result.error);
        RecordStatus(result.reply.status);
        deletion->sink.Finish();
        CheckDeleted(*deletion, result.reply);
    });
}

void DavServer::DeleteAll(const std::vector<Target>& victims) {
    net::ParallelRequests requests(client_, kDeletionsAtOnce);
    for (const Target& victim : victims) StartDeletion(victim, requests);
    requests.Finish();
    // Check the root, because a proxy may report every name as missing when its server is down.
    if (std::exchange(some_absent_, false)) CheckRoot();
}

}  // namespace quarn2::webdav
