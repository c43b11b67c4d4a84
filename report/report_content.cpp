#include "report_content.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"

namespace {

// The local name of a file. The names on the storage contain names of users, so they are neither
// used locally nor passed to a program.
constexpr const char* kLocal = "archive";
constexpr const char* kRequests = "requests";
constexpr const char* kAnswers = "answers";

// dar runs this command in a shell before it reads a slice. dar replaces %n by the number of the
// slice, or by 0 for the last slice when it does not know the number.
constexpr const char* kRequestSlice =
    R"(echo %n >"$QUARN2_REPORT_DIRECTORY/requests" && )"
    R"(read -r answer <"$QUARN2_REPORT_DIRECTORY/answers" && [ "$answer" = ok ])";

std::string LocalSlice(const std::string& number) {
    return std::string(kLocal) + "." + number + ".dar";
}

// Thrown when a file cannot be read. It ends the check of the backup.
struct Unreadable {
    Problem problem;
};

// A named pipe. The object keeps it open for reading and writing, so that a process that opens the
// pipe or writes to it does not block.
class NamedPipe {
  public:
    explicit NamedPipe(std::string path) : path_(std::move(path)) {
        constexpr mode_t kMode = 0600;
        if (mkfifo(path_.c_str(), kMode) != 0) {
            throw kro_err::FromErrno("Failed to create '" + path_ + "'");
        }
        handle_ = ResHandle(open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        if (!handle_) throw kro_err::FromErrno("Failed to open '" + path_ + "'");
    }
    ~NamedPipe() { unlink(path_.c_str()); }
    NamedPipe(const NamedPipe&) = delete;
    NamedPipe& operator=(const NamedPipe&) = delete;

    int fd() const noexcept { return handle_; }

  private:
    std::string path_;
    ResHandle handle_;
};

void Answer(int answers, bool is_good) {
    const std::string_view text = is_good ? "ok\n" : "no\n";
    if (write(answers, text.data(), text.size()) < 0) {
        throw kro_err::FromErrno(
            "Failed to answer the request of the program that tests the archive");
    }
}

// Returns "" when the archive has no slice with this number.
std::string SliceOf(const Archive& archive, const std::string& number) {
    constexpr std::size_t kMaxDigits = 9;
    if (!str::HasDigitsOnly(number) || number.size() > kMaxDigits) return {};
    const auto index = static_cast<std::size_t>(str::Int(number));
    if (index < 1 || index > archive.slices.size()) return {};
    const std::string& slice = archive.slices[index - 1];
    return slice == archive.name + "." + number + ".dar" ? slice : std::string();
}

std::string NumberOfLast(const Archive& archive) {
    const std::string& last = archive.slices.back();
    return last.substr(archive.name.size() + 1,
                       last.size() - archive.name.size() - std::string_view("..dar").size());
}

}  // namespace

ContentCheck::ContentCheck(quarn2::Storage& storage, Settings settings)
    : storage_(storage), settings_(std::move(settings)) {}

ContentCheck::Result ContentCheck::Check(const std::vector<StoredFile>& files, bool is_encrypted) {
    is_encrypted_ = is_encrypted;
    fetched_.clear();
    problems_.clear();
    bytes_ = 0;
    try {
        for (const Archive& archive : ArchivesOf(files)) CheckArchive(archive);
        for (const StoredFile& file : files) {
            if (fetched_.contains(file.name)) continue;
            // In an encrypted backup, every file except the info file is encrypted. Fetch
            // recognises the info file by its local name.
            Fetch(file.name, std::string(kLocal) + (file.kind == "info" ? ".info" : ""));
        }
    } catch (const Unreadable& error) {
        directory_.Drop();
        problems_.push_back(error.problem);
        return {std::move(problems_), std::nullopt};
    }
    directory_.Drop();
    return {std::move(problems_), bytes_};
}

void ContentCheck::Fetch(const std::string& name, const std::string& local_name) {
    try {
        const std::int64_t size = directory_.Fetch(storage_, name, local_name, is_encrypted_);
        if (!fetched_.insert(name).second) return;
        bytes_ += size;
        settings_.file_done();
    } catch (const kro_err::Error& error) {
        if (error.kind() == kro_err::Kind::kUnavailable) throw;
        throw Unreadable{{"unreadable", name, "cannot be read: " + std::string(error.what())}};
    }
}

void ContentCheck::CheckArchive(const Archive& archive) {
    const std::string program =
        archive.tester == nullptr ? "" : FindProgram(archive.tester->command.front());
    if (program.empty()) {
        ++untested_;
        if (archive.tester != nullptr) missing_.insert(archive.tester);
        return;
    }
    ++tested_;
    Archiver::Settings settings{archive.tester->command, {}, settings_.idle_timeout};
    settings.command.front() = program;
    using Input = Tester::Input;
    if (archive.tester->input == Input::kStream) TestStream(archive, settings);
    if (archive.tester->input == Input::kFile) TestFile(archive, settings);
    if (archive.tester->input == Input::kRequests) TestByRequests(archive, settings);
}

void ContentCheck::TestStream(const Archive& archive, const Archiver::Settings& settings) {
    Archiver archiver(settings);
    for (const std::string& slice : archive.slices) {
        Fetch(slice, kLocal);
        if (!archiver.Feed(directory_.PathOf(kLocal))) break;
    }
    RecordResult(archive, archiver.Finish());
}

void ContentCheck::TestFile(const Archive& archive, Archiver::Settings settings) {
    Fetch(archive.slices.front(), kLocal);
    settings.command.push_back(directory_.PathOf(kLocal));
    Archiver archiver(settings);
    RecordResult(archive, archiver.Finish());
}

void ContentCheck::TestByRequests(const Archive& archive, Archiver::Settings settings) {
    directory_.Drop();
    const NamedPipe requests(directory_.PathOf(kRequests));
    const NamedPipe answers(directory_.PathOf(kAnswers));
    settings.command.insert(settings.command.end(),
                            {directory_.PathOf(kLocal), "-E", kRequestSlice});
    settings.environment = {"QUARN2_REPORT_DIRECTORY=" + directory_.path()};
    Archiver archiver(settings);
    Serve(archive, archiver, requests.fd(), answers.fd());
    RecordResult(archive, archiver.Finish());
}

// Downloads each slice that dar requests. dar reads the last slice first, which contains the
// catalogue, and again at the end, if the archive has several slices.
void ContentCheck::Serve(const Archive& archive, Archiver& archiver, int requests, int answers) {
    std::string local;
    while (const std::optional<std::string> line = archiver.NextLine(requests)) {
        const std::string number = *line == "0" ? NumberOfLast(archive) : *line;
        const std::string slice = SliceOf(archive, number);
        if (!slice.empty() && number != local) Fetch(slice, LocalSlice(number));
        if (!slice.empty()) local = number;
        Answer(answers, !slice.empty());
    }
}

void ContentCheck::RecordResult(const Archive& archive, const Archiver::Result& result) {
    const std::string program = archive.tester->command.front();
    if (result.was_hung) {
        problems_.push_back({"hung", archive.name,
                             "was not tested completely: " + program +
                                 " made no progress and was stopped; test the archive by hand"});
        return;
    }
    if (result.status == 0) return;
    problems_.push_back({"damaged", archive.name,
                         "is damaged: the test of " + program + " ended with status " +
                             str::Str(result.status) +
                             (result.message.empty() ? "" : ": " + result.message)});
}
