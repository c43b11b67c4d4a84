// The requests of a WebDAV storage to its server.
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "backends/webdav/dav_names.h"
#include "backends/webdav/multistatus.h"
#include "backends/webdav/statuses.h"
#include "net/http_client.h"

namespace quarn2::webdav {

// The file or collection of a name.
struct Resource {
    enum class Kind { kNothing, kFile, kCollection };

    Kind kind = Kind::kNothing;
    std::int64_t length = -1;
    std::string modified;
    std::string now;  // the server's current time
    std::int64_t available = -1;

    bool IsNothing() const noexcept { return kind == Kind::kNothing; }
    bool IsFile() const noexcept { return kind == Kind::kFile; }
    bool IsCollection() const noexcept { return kind == Kind::kCollection; }
};

// The properties to request. Only the necessary ones are requested, because servers compute each of
// them.
enum class Ask { kType, kLength, kAll };

// Names are relative to the storage's root, "" is the root.
class DavServer {
  public:
    DavServer(const BackupToken& token, net::ServerSettings settings);

    Resource Look(const std::string& name, Ask ask = Ask::kType);

    // Calls `take` with each entry directly below a collection: the last component of its name and
    // its properties. Returns kNothing if the collection does not exist and kFile for a file, both
    // without a call of `take`.
    using TakeEntry = std::function<void(std::string, const DavEntry&)>;
    Resource::Kind List(const std::string& name, Ask ask, const TakeEntry& take);

    // Throws kNotFound if the storage's directory does not exist.
    void CheckRoot();

    // Sends a request without a body, with additional `headers`.
    net::HttpReply Do(const std::string& method, const std::string& url,
                      std::vector<std::string> headers = {});
    net::HttpReply Do(net::HttpRequest request);

    // Removes a file, or a collection with everything below it. Succeeds if it does not exist.
    void Delete(const std::string& name, bool is_collection);
    // The same for many names, several in parallel. Starts no more removals after a failure. Throws
    // kNotFound if a name and the storage's directory do not exist.
    struct Target {
        std::string name;
        bool is_collection = false;
    };
    void DeleteAll(const std::vector<Target>& victims);

    // Throws the error for a failed request.
    [[noreturn]] void ThrowRefused(const std::string& method, const std::string& name,
                                   const net::HttpReply& reply) const;

    const DavAddress& address() const noexcept { return address_; }
    const std::string& what() const noexcept { return client_.what(); }

  private:
    struct Deletion;

    net::HttpReply Propfind(const std::string& url, int depth, Ask ask,
                            const MultistatusSink::Take& take);
    std::unique_ptr<Deletion> NewDeletion(const Target& victim) const;
    void StartDeletion(const Target& victim, std::exception_ptr& error);
    void CheckDeleted(const Deletion& deletion, const net::HttpReply& reply);
    void Note(int status);

    DavAddress address_;
    net::HttpClient client_;
    bool accepted_ = false;     // the server has accepted a request of this user
    bool some_absent_ = false;  // a name to be removed did not exist
};

}  // namespace quarn2::webdav
