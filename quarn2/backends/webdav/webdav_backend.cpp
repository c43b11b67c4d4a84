#include "webdav_backend.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

#include "base/stored_name.h"
#include "dav_folder.h"
#include "dav_names.h"
#include "dav_server.h"
#include "kro/kro_file.h"
#include "kro/kro_proc.h"
#include "kro/str.h"

namespace quarn2 {

namespace {

using kro_err::Error;
using kro_err::Kind;
using net::HttpReply;
using net::HttpRequest;
using webdav::Ask;
using webdav::DavEntry;
using webdav::DavFolders;
using webdav::DavServer;
using webdav::Resource;
using Auth = net::ServerSettings::Auth;

// Maximum number of attempts of an upload. A concurrent upload of the same name can mistake the
// temporary file for an abandoned file and remove it.
constexpr int kAttempts = 4;
// Maximum number of attempts to find a file. While another process replaces the file, it can be
// missing for a moment.
constexpr int kLooks = 10;
constexpr int kRecheckMs = 20;
// The cleanup after a failed upload gets 1/kCleanupShare of the storage's timeout, at most
// kMaxCleanup seconds. This time is short, because the failed upload has already taken a long time,
// and the next upload of the same name removes a remaining temporary file.
constexpr int kMaxCleanup = 5;
constexpr int kCleanupShare = 4;

net::ServerSettings Settings(const BackupToken& token) {
    Auth auth = Auth::kNone;
    if (!token.user().empty()) {
        auth = token.Param("auth") == "digest" ? Auth::kDigest : Auth::kBasic;
    }
    return net::SettingsOf(token, "WebDAV", auth);
}

// Returns the value of the Content-Length header. Returns -1 if the header is missing, or if the
// response has a transfer encoding, because the length is meaningless then.
std::int64_t ContentLength(const HttpReply& reply) {
    if (!reply.Header("transfer-encoding").empty()) return -1;
    const std::string text = reply.Header("content-length");
    std::int64_t length = -1;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, length);
    return result.ec == std::errc() && result.ptr == end ? length : -1;
}

[[noreturn]] void ThrowNotFound(const std::string& name) {
    throw Error(Kind::kNotFound, "no file " + Quoted(name) + " on the storage");
}

// Throws kFailed if a component of the name has the form of a temporary name, because listings
// would omit such a file, and a later upload would remove it.
void CheckForm(std::string_view name) {
    while (!name.empty()) {
        const std::string_view component = name.substr(0, name.find('/'));
        if (webdav::IsTemporaryEntry(component)) {
            throw Error(Kind::kFailed, "name " + Quoted(component) +
                                           " is not allowed on a WebDAV storage: it has the "
                                           "reserved form of a temporary name");
        }
        name.remove_prefix(std::min(component.size() + 1, name.size()));
    }
}

[[noreturn]] void ThrowIsDirectory(const std::string& name) {
    throw Error(Kind::kFailed, Quoted(name) + " on the storage is a directory");
}

class WebdavBackend final : public StorageBackend {
  public:
    explicit WebdavBackend(const BackupToken& token)
        : token_(token), server_(token, Settings(token)), folders_(server_) {}

    bool Put(const std::string& name, ByteSource& source) override;
    void Get(const std::string& name, ByteSink& sink) override;
    void Remove(const std::string& name) override;
    void RemoveDir(const std::string& name) override;
    void MakeDir(const std::string& name) override;
    std::vector<std::string> List(const std::string& name) override {
        return NamesOf(Entries(name, Ask::kType));
    }
    std::vector<ListedEntry> ListSizes(const std::string& name) override {
        return Entries(name, Ask::kLength);
    }
    void Clear() override;

  private:
    // The result of an upload. kLost: the temporary file or its directory no longer exists.
    enum class Stored { kYes, kNoRoom, kLost };

    Stored Store(const std::string& name, ByteSource& source);
    Stored SendChecked(const std::string& temporary, ByteSource& source);
    Stored Send(const std::string& temporary, ByteSource& source);
    Stored Refused(const std::string& temporary, const HttpReply& reply, std::int64_t size);
    // Returns the length of the temporary file on the server. Returns nullopt if the file does not
    // exist, and -1 if the server does not report its length.
    std::optional<std::int64_t> LengthOf(const std::string& temporary, std::int64_t expected);
    HttpReply Move(const std::string& temporary, const std::string& name);
    Stored Rename(const std::string& temporary, const std::string& name);
    bool BrokeOff(const std::string& temporary, std::int64_t size);
    void CleanUp(const std::string& temporary) noexcept;
    std::vector<ListedEntry> Entries(const std::string& name, Ask ask);
    bool HidesDottedNames();
    void RemakeRoot();
    void GetChecked(const std::string& name, ByteSink& sink);
    bool IsBeingReplaced(const std::string& name);

    BackupToken token_;
    DavServer server_;
    DavFolders folders_;
    bool waits_for_invitation_ = true;
};

// --- Put ---

bool WebdavBackend::Put(const std::string& name, ByteSource& source) {
    CheckForm(name);
    const auto [directory, file] = kro_file::SplitPath(name);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        try {
            folders_.PrepareToWrite(directory, file);
        } catch (const webdav::NoRoomForDirectory&) {
            return false;
        }
        const Stored stored = Store(name, source);
        if (stored != Stored::kLost) return stored == Stored::kYes;
        folders_.Forget(directory);
    }
    throw Error(Kind::kUnavailable, server_.what() + ": the temporary file of " + Quoted(name) +
                                        " was removed repeatedly during the upload");
}

WebdavBackend::Stored WebdavBackend::Store(const std::string& name, ByteSource& source) {
    const std::string temporary = webdav::NewTemporaryName(name);
    try {
        Stored stored = SendChecked(temporary, source);
        if (stored == Stored::kYes) {
            source.CheckUnchanged();
            stored = Rename(temporary, name);
        }
        if (stored == Stored::kNoRoom) CleanUp(temporary);
        return stored;
    } catch (...) {
        CleanUp(temporary);
        folders_.Forget(kro_file::Path(name));
        throw;
    }
}

// Uploads the temporary file and checks its length on the server. Some servers do not handle
// "Expect: 100-continue": they report success without reading the body and store nothing. In this
// case the file is sent again without this header.
WebdavBackend::Stored WebdavBackend::SendChecked(const std::string& temporary, ByteSource& source) {
    const std::int64_t size = source.size();
    const bool waits = waits_for_invitation_ && size >= net::kWorthWaiting;
    Stored stored = Send(temporary, source);
    if (stored != Stored::kYes) return stored;
    std::optional<std::int64_t> length = LengthOf(temporary, size);
    if (waits && length.value_or(0) == 0) {
        waits_for_invitation_ = false;
        stored = Send(temporary, source);
        if (stored != Stored::kYes) return stored;
        length = LengthOf(temporary, size);
    }
    if (!length) return Stored::kLost;
    if (*length >= 0 && *length != size) {
        throw Error(Kind::kUnavailable, server_.what() + ": stored " + str::Str(*length) +
                                            " instead of " + str::Str(size) + " bytes in " +
                                            Quoted(temporary));
    }
    return Stored::kYes;
}

WebdavBackend::Stored WebdavBackend::Send(const std::string& temporary, ByteSource& source) {
    HttpRequest request;
    request.method = "PUT";
    request.url = server_.address().File(temporary);
    request.headers = {"Content-Type: application/octet-stream"};
    request.body = std::make_unique<net::SourceBody>(source);
    request.waits_for_invitation = waits_for_invitation_;
    const HttpReply reply = server_.Do(std::move(request));
    return reply.IsSuccess() ? Stored::kYes : Refused(temporary, reply, source.size());
}

// Determines why the server refused an upload. Servers report a missing directory as 409, some as
// 404, and nginx as 500. nginx also reports a full disk as 500.
WebdavBackend::Stored WebdavBackend::Refused(const std::string& temporary, const HttpReply& reply,
                                             std::int64_t size) {
    if (reply.status == webdav::kNoRoom) return Stored::kNoRoom;
    const bool no_directory =
        reply.status == webdav::kConflict || reply.status == webdav::kNotFoundStatus;
    if (reply.status < 500 && !no_directory) server_.ThrowRefused("PUT", temporary, reply);
    const Resource above = server_.Query(kro_file::Path(temporary), Ask::kAll);
    if (!above.IsCollection()) return Stored::kLost;
    const bool too_little = above.available >= 0 && above.available < size;
    const bool no_room = (reply.status >= webdav::kServerError && too_little) ||
                         (reply.status == webdav::kServerError && BrokeOff(temporary, size));
    if (no_room) return Stored::kNoRoom;
    server_.ThrowRefused("PUT", temporary, reply);
}

// Removes the partial copy that nginx leaves when it cannot complete an upload. Returns true if the
// copy is shorter than the upload, because then the disk was full.
bool WebdavBackend::BrokeOff(const std::string& temporary, std::int64_t size) {
    const auto [directory, file] = kro_file::SplitPath(temporary);
    std::vector<DavServer::Target> remains;
    bool shorter = false;
    server_.List(
        directory, Ask::kLength,
        [&, above = directory, start = file + "."](const std::string& entry, const DavEntry& what) {
            if (!str::StartsWith(entry, start)) return;
            remains.push_back({kro_file::ConcatPath(above, entry), false});
            shorter = shorter || (what.length >= 0 && what.length < size);
        });
    server_.DeleteAll(remains);
    return shorter;
}

// Queries the length with HEAD. If it is not the expected length, queries it again with PROPFIND,
// because some servers report 0 for every file in the response to HEAD.
std::optional<std::int64_t> WebdavBackend::LengthOf(const std::string& temporary,
                                                    std::int64_t expected) {
    const HttpReply reply = server_.Do("HEAD", server_.address().File(temporary));
    if (reply.status == webdav::kNotFoundStatus) return std::nullopt;
    const std::int64_t told = reply.status == webdav::kOk ? ContentLength(reply) : -1;
    if (told == expected) return told;
    const Resource found = server_.Query(temporary, Ask::kLength);
    if (!found.IsFile()) return std::nullopt;
    return found.length >= 0 ? found.length : told;
}

// Renames the temporary file to `name`. A MOVE with "Overwrite: T" can replace a directory with all
// its contents. The first MOVE therefore has "Overwrite: F", and the second MOVE is sent only if
// the target is not a directory.
HttpReply WebdavBackend::Move(const std::string& temporary, const std::string& name) {
    const auto move = [&](const char* overwrite) {
        return server_.Do("MOVE", server_.address().File(temporary),
                          {"Destination: " + server_.address().File(name),
                           std::string("Overwrite: ") + overwrite});
    };
    HttpReply reply = move("F");
    if (reply.status != webdav::kPreconditionFailed) return reply;
    if (server_.Query(name).IsCollection()) ThrowIsDirectory(name);
    return move("T");
}

WebdavBackend::Stored WebdavBackend::Rename(const std::string& temporary, const std::string& name) {
    for (int attempt = 1;; ++attempt) {
        const HttpReply reply = Move(temporary, name);
        const int status = reply.status;
        if (status == webdav::kOk || status == 201 || status == 204) return Stored::kYes;
        if (status == webdav::kNoRoom) return Stored::kNoRoom;
        if (server_.Query(name).IsCollection()) ThrowIsDirectory(name);
        if (server_.Query(temporary).IsNothing()) return Stored::kLost;
        // Retry after these statuses. A server that removes the old file before it renames the new
        // file can fail if two MOVE requests do this at the same time.
        const bool stumbled = status == webdav::kNotFoundStatus || status == webdav::kConflict ||
                              status == webdav::kServerError ||
                              status == webdav::kPreconditionFailed;
        if (!stumbled || attempt == kAttempts) server_.ThrowRefused("MOVE", name, reply);
    }
}

void WebdavBackend::CleanUp(const std::string& temporary) noexcept {
    try {
        net::ServerSettings settings = Settings(token_);
        settings.timeout = std::clamp(settings.timeout / kCleanupShare, 1, kMaxCleanup);
        DavServer(token_, std::move(settings)).Delete(temporary, false);
    } catch (const std::exception&) {
        // Ignore the error, because the next upload of the same name removes the temporary file.
        return;
    }
}

// --- Get ---

// Writes the body of a response to the sink, but only if the response certainly contains a file and
// not the index page of a directory.
class BodySink final : public net::ReplySink {
  public:
    // `known` is true if PROPFIND has confirmed that the name is a file. `length` is the length of
    // the file (-1: unknown).
    BodySink(ByteSink& sink, bool known, std::int64_t length)
        : sink_(sink), known_(known), length_(length) {}

    void Begin(const HttpReply& reply) override {
        const std::int64_t told = ContentLength(reply);
        // A response without a date and without an ETag can be a page that the server generates for
        // a directory.
        const bool made_up = reply.Header("last-modified").empty() && reply.Header("etag").empty();
        doubtful_ = !known_ && (made_up || told < 0);
        if (doubtful_ || reply.status != webdav::kOk) {
            throw Error(Kind::kUnavailable, "the response does not contain a file");
        }
        if (told >= 0) length_ = told;
        chunked_ = reply.Header("transfer-encoding") == "chunked";
        if (length_ >= 0) sink_.Expect(length_);
    }

    void Write(std::span<const std::byte> bytes) override {
        done_ += static_cast<std::int64_t>(bytes.size());
        if (length_ >= 0 && done_ > length_) {
            throw Error(Kind::kUnavailable, "the server sent more bytes than the file contains");
        }
        sink_.Write(bytes);
    }

    bool doubtful() const noexcept { return doubtful_; }
    bool IsWhole() const noexcept { return length_ < 0 ? chunked_ : done_ == length_; }

  private:
    ByteSink& sink_;
    bool known_;
    std::int64_t length_;
    std::int64_t done_ = 0;
    bool chunked_ = false;
    bool doubtful_ = false;
};

HttpReply Fetch(DavServer& server, const std::string& name, BodySink& file) {
    HttpRequest request;
    request.url = server.address().File(name);
    request.sink = &file;
    HttpReply reply = server.Do(std::move(request));
    if (reply.IsSuccess() && !file.IsWhole()) {
        throw Error(Kind::kUnavailable,
                    server.what() + ": " + "the download of " + Quoted(name) + " ended early");
    }
    return reply;
}

void WebdavBackend::Get(const std::string& name, ByteSink& sink) {
    BodySink file(sink, false, -1);
    try {
        const HttpReply reply = Fetch(server_, name, file);
        if (reply.IsSuccess()) return;
        if (reply.status == webdav::kUnauthorizedStatus || reply.status >= 500) {
            server_.ThrowRefused("GET", name, reply);
        }
    } catch (const Error&) {
        if (!file.doubtful()) throw;
    }
    GetChecked(name, sink);
}

// Downloads a file after PROPFIND has confirmed that the name is a file, because servers answer a
// GET of a directory with an index page, a redirection or an error. Retries for a short time,
// because a file can be missing or inaccessible for a moment while the server replaces it.
void WebdavBackend::GetChecked(const std::string& name, ByteSink& sink) {
    for (int attempt = 1;; ++attempt) {
        const bool last = attempt == kLooks;
        const Resource found = server_.Query(name, Ask::kLength);
        if (found.IsFile()) {
            BodySink file(sink, true, found.length);
            const HttpReply reply = Fetch(server_, name, file);
            if (reply.IsSuccess()) return;
            const bool moved =
                reply.status == webdav::kNotFoundStatus || reply.status == webdav::kForbidden;
            if (!moved || last) server_.ThrowRefused("GET", name, reply);
        }
        if (found.IsCollection() || last || !IsBeingReplaced(name)) ThrowNotFound(name);
        kro_proc::Sleep(kRecheckMs);
    }
}

// Returns true if the directory contains a file with this name or a temporary file for this name.
bool WebdavBackend::IsBeingReplaced(const std::string& name) {
    const auto [directory, file] = kro_file::SplitPath(name);
    bool found = false;
    server_.List(directory, Ask::kType,
                 [&found, wanted = file](const std::string& entry, const DavEntry& what) {
                     const bool is_it = entry == wanted || webdav::IsTemporaryOf(entry, wanted);
                     found = found || (is_it && !what.is_collection);
                 });
    return found;
}

// --- Remove, directories and Clear ---

void WebdavBackend::Remove(const std::string& name) {
    const auto [directory, file] = kro_file::SplitPath(name);
    if (!folders_.PrepareToRemove(directory, file)) {
        const Resource found = server_.Query(name);
        if (found.IsCollection()) ThrowIsDirectory(name);
        if (found.IsNothing()) return server_.CheckRoot();
    }
    server_.Delete(name, false);
}

void WebdavBackend::RemoveDir(const std::string& name) {
    const Resource found = server_.Query(name);
    if (found.IsNothing()) server_.CheckRoot();
    if (!found.IsCollection()) return;
    folders_.ForgetAll();
    server_.Delete(name, true);
}

void WebdavBackend::MakeDir(const std::string& name) {
    CheckForm(name);
    try {
        folders_.Make(name);
    } catch (const webdav::NoRoomForDirectory&) {
        throw Error(Kind::kFailed, server_.what() + ": no space for directory " + Quoted(name));
    }
}

std::vector<ListedEntry> WebdavBackend::Entries(const std::string& name, Ask ask) {
    std::vector<ListedEntry> entries;
    const Resource::Kind kind =
        server_.List(name, ask, [&entries](std::string entry, const DavEntry& what) {
            if (webdav::IsTemporaryEntry(entry)) return;
            // Ignores the length that some servers report for a collection.
            const bool has_size = !what.is_collection && what.length >= 0;
            entries.push_back(
                {std::move(entry), has_size ? std::optional(what.length) : std::nullopt});
        });
    using enum Resource::Kind;
    if (kind == kCollection) return entries;
    if (kind == kFile) return {{name, std::nullopt}};
    if (name.empty()) server_.CheckRoot();
    throw Error(Kind::kNotFound, "no directory " + Quoted(name) + " on the storage");
}

void WebdavBackend::Clear() {
    folders_.ForgetAll();
    std::vector<DavServer::Target> victims;
    const Resource::Kind kind =
        server_.List("", Ask::kType, [&victims](std::string entry, const DavEntry& what) {
            victims.push_back({std::move(entry), what.is_collection});
        });
    if (kind != Resource::Kind::kCollection) server_.CheckRoot();
    server_.DeleteAll(victims);
    if (HidesDottedNames()) RemakeRoot();
}

// Returns true if the server, like nginx, does not list names that begin with a dot. Uploads a
// probe file to find out.
bool WebdavBackend::HidesDottedNames() {
    const std::string probe = ".probe" + kro_file::Name(webdav::NewTemporaryName("x"));
    HttpRequest request;
    request.method = "PUT";
    request.url = server_.address().File(probe);
    request.body = std::make_unique<net::TextBody>("");
    const HttpReply reply = server_.Do(std::move(request));
    if (!reply.IsSuccess()) return false;
    bool seen = false;
    server_.List("", Ask::kType, [&](const std::string& entry, const DavEntry& /*what*/) {
        seen = seen || entry == probe;
    });
    server_.Delete(probe, false);
    return !seen;
}

// Removes files that the server does not list: removes the storage's root and creates it again. If
// the server cannot remove the root, for example because it is a mount point, it still removes the
// files in it.
void WebdavBackend::RemakeRoot() {
    server_.Do("DELETE", server_.address().Directory(""));
    if (!server_.Query("").IsNothing()) return;
    const HttpReply made = server_.Do("MKCOL", server_.address().Directory(""));
    if (!made.IsSuccess() && !server_.Query("").IsCollection())
        server_.ThrowRefused("MKCOL", "", made);
}

// --- The scheme ---

BackendScheme Scheme(const std::string& name) {
    BackendScheme scheme{*FindTokenScheme(name)};
    scheme.keeps_connections = true;
    scheme.open = [](const BackupToken& token) { return std::make_unique<WebdavBackend>(token); };
    return scheme;
}

}  // namespace

BackendScheme WebdavScheme() { return Scheme("webdav"); }

BackendScheme WebdavHttpScheme() { return Scheme("webdav+http"); }

}  // namespace quarn2
