// Fuzz target: both sides of the master link. For the server's session, the target checks that the
// result does not depend on how the bytes are split, that every answer is a complete frame, and
// that no line creates free space or leads to a path outside of the info root. For the node client,
// it checks that the client reads a frame exactly or rejects it.
//
// Input: the first byte is "0" for a client of this machine, "1" for a client of another machine,
// "2" for frames that a node client reads.
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <vector>

#include "backends/memory/memory_backend.h"
#include "fuzz.h"
#include "kro/kro_file.h"
#include "kro/kro_proc.h"
#include "quarn2/token.h"
#include "quarn2_cp2_put_node.h"
#include "session_link.h"

namespace {

using fuzz::Require;

const char* const kToken = "memory:link";
constexpr std::int64_t kLimit = 1'000'000;
// Much less than the capacity of a pipe.
constexpr std::size_t kBlockSize = 4096;

void PlaceInfoRoot() {
    fuzz::WorkFolder();
    if (std::filesystem::exists("info/kept")) return;
    std::filesystem::create_directory("info");
    std::ofstream("info/kept") << "one file, so that the root is not empty";
}

// A server with one session.
class Server {
  public:
    Server(unsigned limited, bool remote)
        : storage_(control_.AddStorage(quarn2::GetStorage(quarn2::BackupToken(kToken)))),
          link_(storage_, remote ? std::vector<std::string>{"ssh"} : std::vector<std::string>{}) {
        control_.path = "info";
        control_.size_limit = limited % 2 == 0 ? kLimit : ServerLimits::kNoSize;
        storage_.limit = storage_.free_size = control_.size_limit;
    }

    void Feed(std::string_view bytes) {
        const std::string piece(bytes);
        link_.ClientWrites(piece);
        open_ = open_ && link_.session()->Read(link_.read_end()) != quarn2::Expect::erClose;
        link_.session()->Write(link_.write_end());
        answers_ += link_.Bytes();
    }
    bool open() const { return open_; }
    const std::string& answers() const { return answers_; }
    const GlobalSizeControl& control() const { return control_; }
    const GlobalSizeControl::StorageDesc& storage() const { return storage_; }

  private:
    GlobalSizeControl control_;
    GlobalSizeControl::StorageDesc& storage_;
    SessionLink link_;
    std::string answers_;
    bool open_ = true;
};

void CheckFrames(const std::string& answers) {
    for (const std::string& answer : SessionLink::Cut(answers)) {
        Require(answer.starts_with("OK") || answer.starts_with("ERR "),
                "every answer is a complete frame");
    }
}

void CheckNames(const Server& server) {
    for (const auto& [name, user] : server.storage().users) {
        for (const auto& [date, backup] : user.backups) {
            Require(name.find('/') == name.npos && date.find('/') == date.npos,
                    "users and dates contain no slash");
            Require(backup.size >= 0, "the size of a backup is not negative");
        }
    }
}

void CheckAccount(const Server& server) {
    if (server.control().size_limit != kLimit) return;
    Require(server.storage().free_size <= kLimit,
            "no command increases the free space beyond the limit");
}

void CheckSession(bool remote, fuzz::Input& input) {
    PlaceInfoRoot();
    quarn2::MemoryStore::Named("link")->Reset();
    const unsigned limited = input.Byte();
    const std::string lines = input.Rest();
    Server whole(limited, remote);
    for (std::size_t at = 0; at < lines.size() && whole.open(); at += kBlockSize) {
        whole.Feed(std::string_view(lines).substr(at, kBlockSize));
    }
    CheckFrames(whole.answers());
    CheckNames(whole);
    CheckAccount(whole);
    quarn2::MemoryStore::Named("link")->Reset();
    Server pieces(limited, remote);
    fuzz::InPieces(lines, [&pieces](std::string_view piece) {
        if (pieces.open()) pieces.Feed(piece);
    });
    Require(pieces.answers() == whole.answers(),
            "the answers do not depend on how the input is split");
    Require(pieces.storage().free_size == whole.storage().free_size &&
                pieces.storage().reserved == whole.storage().reserved,
            "the accounting does not depend on how the input is split");
}

// Returns the complete frames before the first truncated frame, as a simple reader finds them.
std::vector<std::string> FramesIn(std::string_view bytes) {
    std::vector<std::string> frames;
    std::uint32_t length = 0;
    while (bytes.size() >= sizeof length) {
        std::memcpy(&length, bytes.data(), sizeof length);
        bytes.remove_prefix(sizeof length);
        if (bytes.size() < length) break;
        frames.emplace_back(bytes.substr(0, length));
        bytes.remove_prefix(length);
    }
    return frames;
}

void CheckNodeSide(fuzz::Input& input) {
    const std::string bytes = input.Take(kBlockSize);
    auto pipe = kro_proc::Pipe();
    Require(write(pipe.second, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
            "the pipe accepts the bytes");
    pipe.second.Close();
    for (const std::string& frame : FramesIn(bytes)) {
        Require(NodeSide::GetResult(pipe.first) == frame, "a complete frame is read exactly");
    }
    Require(!fuzz::Accepts([&pipe] { NodeSide::GetResult(pipe.first); }),
            "a truncated frame is rejected");
}

// Checks how the node client interprets the same frames as answers.
void CheckExchange(const std::string& bytes) {
    const std::string token = kToken;
    const auto length = static_cast<std::uint32_t>(token.size());
    const std::string said =
        std::string(reinterpret_cast<const char*>(&length), sizeof length) + token + bytes;
    auto answers = kro_proc::Pipe();
    const auto commands = kro_proc::Pipe();
    Require(write(answers.second, said.data(), said.size()) == static_cast<ssize_t>(said.size()),
            "the pipe accepts the bytes");
    answers.second.Close();
    kro_thread::SafeLock lock;
    NodeSide node(lock, {answers.first, commands.second});
    for (const std::string& frame : FramesIn(bytes)) {
        std::string answer;
        const bool granted = fuzz::Accepts([&] { answer = node.DoCommand("RELEASE 1\n"); });
        Require(granted == (frame == "OK" || frame.starts_with("OK ")),
                "a command succeeds exactly if its answer begins with OK");
        Require(!granted || answer == frame.substr(std::min<std::size_t>(3, frame.size())),
                "the returned text is the text after OK");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = [] {
        std::signal(SIGPIPE, SIG_IGN);
        setenv("BACKUP_TOKEN", kToken, 1);
        quarn2::RegisterMemoryScheme();
        return true;
    }();
    Require(ready, "the memory storage is registered");
    fuzz::Input input(data, size);
    const unsigned what = input.Byte() % 3;
    if (what == 2) {
        fuzz::Input again = input;
        CheckNodeSide(input);
        CheckExchange(again.Take(kBlockSize));
    } else {
        CheckSession(what == 1, input);
    }
    return 0;
}
