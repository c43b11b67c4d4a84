// An SFTP server in memory with faults that a test selects. It answers each request at once. The
// client reads the answers in pieces of any size.
#pragma once

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "backends/sftp/packet.h"
#include "backends/sftp/session.h"
#include "kro/kro_err.h"

namespace fake_sftp {

using quarn2::sftp::Code;
using quarn2::sftp::Fields;
using quarn2::sftp::Request;
using quarn2::sftp::Type;

inline constexpr std::uint32_t kFile = 0100640;
inline constexpr std::uint32_t kDirectory = 040750;

inline std::string Text(std::span<const std::byte> bytes) {
    std::string text;
    for (const std::byte byte : bytes) text += static_cast<char>(byte);
    return text;
}

// The state that outlives a connection.
struct Disk {
    std::map<std::string, std::string> files;
    std::set<std::string> directories = {"/root"};
    std::set<std::string> extensions;
    bool refuse_writes = false;
    std::uint64_t free_blocks = 1 << 20;
    int requests_left = -1;        // until the connection breaks; -1: never
    std::size_t longest_read = 0;  // maximum bytes per read; 0: as requested
    bool backwards = false;        // answers read requests in the opposite order
    std::string growing;           // a file that another client writes to
    int growths_left = -1;         // how many more times the file can grow; -1: no limit
    std::uint64_t told_size = 0;   // the reported size of all files; 0: their real size
    // Refuses to create a file without the truncate flag. With this flag, truncates a file that
    // exists, even if the client requires that it does not exist.
    bool needs_truncate = false;
    bool writes_back = false;  // stores a file's data when the client closes the file
    bool late_time = false;    // sets the modification time when the client closes the file
    // The content of another client's files. When the tested client closes a file of the same name,
    // this content replaces the file.
    std::map<std::string, std::string> replaced;
    // The status code and the message of refused writes.
    Code write_code = Code::kFailure;
    std::string write_text = "Failure";
    std::map<std::string, std::string> unwritten;  // data of files that are not closed yet
    std::map<std::string, std::uint32_t> times;
    // A new handle is the lowest free number from this one on. With -1, the handles are paths.
    int first_handle = -1;
    // Opens files only when the client waits for an answer, after all requests that the client has
    // sent before, as if the server executed requests in parallel.
    bool opens_late = false;
    std::vector<Type> requests;
};

class Server final : public quarn2::sftp::Stream {
  public:
    explicit Server(Disk& disk, std::size_t piece = 1 << 20) : disk_(disk), piece_(piece) {}

    void Write(std::span<const std::byte> bytes) override {
        Fields packet(bytes.subspan(4));
        const auto type = static_cast<Type>(packet.U8());
        id_ = packet.U32();
        disk_.requests.push_back(type);
        if (disk_.requests_left == 0) Gone();
        if (disk_.requests_left > 0) --disk_.requests_left;
        Answer(type, packet);
    }

    std::size_t Read(std::span<std::byte> buffer, int /*extra_seconds*/) override {
        OpenLate();
        while (!late_.empty()) {
            out_ += late_.back();
            late_.pop_back();
        }
        if (out_.empty()) Gone();
        const std::size_t count = std::min({buffer.size(), piece_, out_.size()});
        for (std::size_t i = 0; i < count; ++i) buffer[i] = static_cast<std::byte>(out_[i]);
        out_.erase(0, count);
        return count;
    }

    void CheckAlive() override {}

    // Appends bytes to the answers.
    void Say(const std::string& bytes) { out_ += bytes; }

  private:
    [[noreturn]] static void Gone() {
        throw kro_err::Error(kro_err::Kind::kUnavailable, "the connection broke");
    }

    void Send(Request request) { out_ += Text(request.Finish(id_)); }
    void Status(Code code, const std::string& text = "Failure") {
        Send(std::move(Request(Type::kStatus).U32(static_cast<std::uint32_t>(code)).Text(text)));
    }
    void Done(bool good) { Status(good ? Code::kOk : Code::kFailure); }

    void Answer(Type type, Fields& packet) {
        switch (type) {
            case Type::kInit:
                return ExchangeVersions();
            case Type::kStat:
            case Type::kLstat:
                return Look(packet.Text());
            case Type::kFstat:
                return Look(PathOf(packet.Text()));
            case Type::kOpen:
                return OpenOrDefer(packet);
            case Type::kWrite:
                return Store(packet);
            case Type::kRead:
                return Give(packet);
            case Type::kClose:
                return Close(packet.Text());
            case Type::kRemove:
                return Erase(packet.Text());
            case Type::kRename:
                return Rename(packet, false);
            case Type::kMkDir:
                return Done(disk_.directories.insert(packet.Text()).second);
            case Type::kExtended:
                return Extended(packet);
            default:
                return Status(Code::kUnsupported);
        }
    }

    void ExchangeVersions() {
        Request hello(Type::kVersion);
        for (const std::string& name : disk_.extensions) hello.Text(name).Text("1");
        id_ = 3;
        Send(std::move(hello));
    }

    std::string NewHandle(const std::string& path) {
        if (disk_.first_handle < 0) return path;
        int number = disk_.first_handle;
        while (open_.contains(std::to_string(number))) ++number;
        open_[std::to_string(number)] = path;
        return std::to_string(number);
    }
    // Returns an empty path if no file is open with this handle.
    std::string PathOf(const std::string& handle) const {
        if (disk_.first_handle < 0) return handle;
        const auto found = open_.find(handle);
        return found == open_.end() ? "" : found->second;
    }

    void Look(const std::string& path) {
        if (path.empty()) return Done(false);
        if (path == disk_.growing && disk_.growths_left != 0) {
            disk_.files[path] += "more";
            if (disk_.growths_left > 0) --disk_.growths_left;
        }
        const bool file = disk_.files.contains(path);
        if (!file && !disk_.directories.contains(path)) return Status(Code::kNoSuchFile);
        Request answer(Type::kAttrs);
        const std::uint64_t size = file ? disk_.files[path].size() : 0;
        answer.U32(0x1 | 0x4 | 0x8).U64(disk_.told_size != 0 ? disk_.told_size : size);
        const std::uint32_t time = disk_.times.contains(path) ? disk_.times[path] : 1000;
        Send(std::move(answer.U32(file ? kFile : kDirectory).U32(time).U32(time)));
    }

    void Close(const std::string& handle) {
        const std::string path = PathOf(handle);
        if (path.empty()) return Done(false);
        open_.erase(handle);
        if (disk_.unwritten.contains(path)) {
            disk_.files[path] = disk_.unwritten[path];
            disk_.unwritten.erase(path);
        }
        if (disk_.late_time) disk_.times[path] = 1060;
        if (disk_.replaced.contains(path)) disk_.files[path] = disk_.replaced[path];
        Done(true);
    }

    void OpenOrDefer(Fields& packet) {
        const std::string path = packet.Text();
        const std::uint32_t flags = packet.U32();
        if (!disk_.opens_late) return Open(path, flags);
        deferred_.push_back({id_, path, flags});
    }

    void OpenLate() {
        for (const Opening& opening : std::exchange(deferred_, {})) {
            id_ = opening.id;
            Open(opening.path, opening.flags);
        }
    }

    void Open(const std::string& path, std::uint32_t flags) {
        const bool exists = disk_.files.contains(path);
        if ((flags & quarn2::sftp::kOpenCreate) != 0) {
            if (!disk_.directories.contains(path.substr(0, path.rfind('/')))) {
                return Status(Code::kNoSuchFile);
            }
            const bool truncates = (flags & quarn2::sftp::kOpenTruncate) != 0;
            if (disk_.needs_truncate ? !truncates : exists) return Status(Code::kFailure);
            disk_.files[path].clear();
        } else if (!exists && !disk_.directories.contains(path)) {
            return Status(Code::kNoSuchFile);
        }
        Send(std::move(Request(Type::kHandle).Text(NewHandle(path))));
    }

    void Store(Fields& packet) {
        const std::string path = PathOf(packet.Text());
        const std::uint64_t offset = packet.U64();
        const std::string data = Text(packet.Bytes());
        if (path.empty() || disk_.directories.contains(path)) return Done(false);
        if (disk_.refuse_writes) return Status(disk_.write_code, disk_.write_text);
        std::string& content = disk_.writes_back ? disk_.unwritten[path] : disk_.files[path];
        content.resize(std::max(content.size(), offset + data.size()));
        content.replace(offset, data.size(), data);
        Done(true);
    }

    void Give(Fields& packet) {
        const std::string& content = disk_.files[PathOf(packet.Text())];
        const std::uint64_t offset = packet.U64();
        std::size_t count = packet.U32();
        if (offset >= content.size()) return Status(Code::kEof);
        if (disk_.longest_read > 0) count = std::min(count, disk_.longest_read);
        Request answer(Type::kData);
        answer.Text(content.substr(offset, count));
        if (disk_.backwards) {
            late_.push_back(Text(answer.Finish(id_)));
        } else {
            Send(std::move(answer));
        }
    }

    void Erase(const std::string& path) {
        Status(disk_.files.erase(path) > 0 ? Code::kOk : Code::kNoSuchFile);
    }

    void Rename(Fields& packet, bool replace) {
        const std::string from = packet.Text();
        const std::string to = packet.Text();
        if (!disk_.files.contains(from)) return Status(Code::kNoSuchFile);
        if (!replace && disk_.files.contains(to)) return Status(Code::kFailure);
        if (disk_.directories.contains(to)) return Status(Code::kFailure);
        disk_.files[to] = disk_.files[from];
        disk_.files.erase(from);
        Done(true);
    }

    void Extended(Fields& packet) {
        const std::string name = packet.Text();
        if (!disk_.extensions.contains(name)) return Status(Code::kUnsupported);
        if (name == "posix-rename@openssh.com") return Rename(packet, true);
        if (name == "fsync@openssh.com") return Done(!PathOf(packet.Text()).empty());
        if (name != "statvfs@openssh.com") return Status(Code::kUnsupported);
        Request answer(Type::kExtendedReply);
        answer.U64(4096).U64(4096).U64(1 << 20);
        answer.U64(disk_.free_blocks).U64(disk_.free_blocks);
        Send(std::move(answer.U64(100).U64(50).U64(50).U64(0).U64(0).U64(255)));
    }

    struct Opening {
        std::uint32_t id;
        std::string path;
        std::uint32_t flags;
    };

    Disk& disk_;
    std::map<std::string, std::string> open_;  // the paths of the numbered handles
    std::vector<Opening> deferred_;
    std::size_t piece_;
    std::uint32_t id_ = 0;
    std::string out_;
    std::vector<std::string> late_;
};

}  // namespace fake_sftp
