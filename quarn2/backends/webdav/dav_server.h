// What a WebDAV storage asks of its server, request by request.
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

// What lies under a name.
struct Resource {
    enum class Kind { kNothing, kFile, kCollection };

    Kind kind = Kind::kNothing;
    std::int64_t length = -1;
    std::string modified;
    std::string now;  // the server's clock
    std::int64_t available = -1;

    bool IsNothing() const noexcept { return kind == Kind::kNothing; }
    bool IsFile() const noexcept { return kind == Kind::kFile; }
    bool IsCollection() const noexcept { return kind == Kind::kCollection; }
};

// Which properties a question is about: servers compute each.
enum class Ask { kType, kLength, kAll };

// Names are relative to the storage's root, "" is the root.
class DavServer {
  public:
    DavServer(const BackupToken& token, net::ServerSettings settings);

    Resource Look(const std::string& name, Ask ask = Ask::kType);

    // Tells `take` of each entry directly below a collection: its last component and what is known
    // of it. kNothing when there is no such collection and kFile for a file, with nothing told.
    using TakeEntry = std::function<void(std::string, const DavEntry&)>;
    Resource::Kind List(const std::string& name, Ask ask, const TakeEntry& take);

    // kNotFound when the storage's directory does not exist.
    void CheckRoot();

    // A request without a body; `headers` besides.
    net::HttpReply Do(const std::string& method, const std::string& url,
                      std::vector<std::string> headers = {});
    net::HttpReply Do(net::HttpRequest request);

    // Removes a file, or a collection with everything below; nothing there is success.
    void Delete(const std::string& name, bool is_collection);
    // The same for many, several at once. After a failure no more are begun. kNotFound when the
    // storage's directory is missing, too.
    struct Victim {
        std::string name;
        bool is_collection = false;
    };
    void DeleteAll(const std::vector<Victim>& victims);

    // Throws what the answer to a request means.
    [[noreturn]] void Refuse(const std::string& method, const std::string& name,
                             const net::HttpReply& reply) const;

    const DavAddress& address() const noexcept { return address_; }
    const std::string& what() const noexcept { return client_.what(); }

  private:
    struct Deletion;

    net::HttpReply Propfind(const std::string& url, int depth, Ask ask,
                            const MultistatusSink::Take& take);
    std::unique_ptr<Deletion> NewDeletion(const Victim& victim) const;
    void StartDeletion(const Victim& victim, std::exception_ptr& error);
    void CheckDeleted(const Deletion& deletion, const net::HttpReply& reply);
    void Note(int status);

    DavAddress address_;
    net::HttpClient client_;
    bool accepted_ = false;     // the server has once let us in
    bool some_absent_ = false;  // a file to be removed was not there
};

}  // namespace quarn2::webdav
