// Sends the requests of a WebDAV storage to its server.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "dav_names.h"
#include "multistatus.h"
#include "net/http_client.h"
#include "net/parallel_requests.h"
#include "statuses.h"

namespace quarn2::webdav {

// The properties of a file or collection.
struct Resource {
    enum class Kind { kNothing, kFile, kCollection };

    Kind kind = Kind::kNothing;
    std::int64_t length = -1;
    std::string modified;
    std::string now;  // the server's time when it sent the response
    std::int64_t available = -1;

    bool IsNothing() const noexcept { return kind == Kind::kNothing; }
    bool IsFile() const noexcept { return kind == Kind::kFile; }
    bool IsCollection() const noexcept { return kind == Kind::kCollection; }
};

// The properties to request with PROPFIND. Only necessary properties are requested, because each
// property costs the server time.
enum class Ask { kType, kLength, kAll };

// Sends the requests of a storage. Names are relative to the storage's root; "" is the root.
class DavServer {
  public:
    DavServer(const BackupToken& token, net::ServerSettings settings);

    Resource Query(const std::string& name, Ask ask = Ask::kType);

    // Lists a collection: calls `take` for each entry directly below it with the last component of
    // the entry's name and the properties of the entry. If the collection does not exist, returns
    // kNothing, and if `name` is a file, returns kFile; `take` is not called in these cases.
    using TakeEntry = std::function<void(std::string, const DavEntry&)>;
    Resource::Kind List(const std::string& name, Ask ask, const TakeEntry& take);

    // Throws kNotFound if the storage's directory does not exist.
    void CheckRoot();

    // Sends a request without a body and returns the response, even if it has an error status.
    // `headers` are sent in addition to the usual headers.
    net::HttpReply Do(const std::string& method, const std::string& url,
                      std::vector<std::string> headers = {});
    net::HttpReply Do(net::HttpRequest request);

    // Removes a file, or a collection with everything below it. Succeeds if nothing exists at this
    // name.
    void Delete(const std::string& name, bool is_collection);
    // Removes many files and collections, several in parallel. Starts no more removals after an
    // error. If one of the names does not exist, checks the storage's directory and throws
    // kNotFound if that does not exist either.
    struct Target {
        std::string name;
        bool is_collection = false;
    };
    void DeleteAll(const std::vector<Target>& victims);

    // Throws the error for a request that the server refused.
    [[noreturn]] void ThrowRefused(const std::string& method, const std::string& name,
                                   const net::HttpReply& reply) const;

    const DavAddress& address() const noexcept { return address_; }
    const std::string& what() const noexcept { return client_.what(); }

  private:
    struct Deletion;

    net::HttpReply Propfind(const std::string& url, int depth, Ask ask,
                            const MultistatusSink::Take& take);
    std::unique_ptr<Deletion> NewDeletion(const Target& victim) const;
    void StartDeletion(const Target& victim, net::ParallelRequests& requests);
    void CheckDeleted(const Deletion& deletion, const net::HttpReply& reply);
    void RecordStatus(int status);

    DavAddress address_;
    net::HttpClient client_;
    bool accepted_ = false;     // true after the server has accepted a request of this user
    bool some_absent_ = false;  // true if one of the names to remove did not exist
};

}  // namespace quarn2::webdav
