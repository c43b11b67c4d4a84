#include "quarn2_cp2_misc_link.h"

#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "kro/str.h"
#include "quarn2/names.h"

namespace {

constexpr std::size_t kFramePiece = 32;
constexpr const char* kReserve = "RESERVE";
constexpr const char* kComplete = "COMPLETE";
constexpr const char* kDropOne = "DROPONE";
constexpr const char* kRelease = "RELEASE";
constexpr const char* kOk = "OK";
constexpr const char* kRefused = "ERR";

std::string Line(const char* word, const std::string& arguments) {
    return std::string(word) + " " + arguments + "\n";
}

// Throws for a negative size, because it would increase the free space.
std::int64_t ParseSize(const std::string& text) {
    const std::int64_t size = str::Int64(text);
    if (size < 0) throw std::runtime_error(str::Quoted(text) + " is not a size");
    return size;
}

// Throws for unsafe names, because names from a node client become parts of paths when the backup
// is evicted.
void CheckBackupName(const std::string& user, const std::string& date) {
    const std::string name = date + "." + user;
    if (!quarn2::IsSafeName(name)) {
        throw std::runtime_error(str::Quoted(name) + " is not a valid backup name");
    }
}

LinkCommand ParseComplete(std::string arguments) {
    LinkCommand command;
    command.word = LinkCommand::Word::kComplete;
    command.user = str::GetWord(arguments);
    command.date = str::GetWord(arguments);
    command.type = str::GetWord(arguments);
    command.bytes = ParseSize(arguments);
    CheckBackupName(command.user, command.date);
    return command;
}

LinkCommand WithBytes(LinkCommand::Word word, const std::string& argument) {
    LinkCommand command;
    command.word = word;
    command.bytes = ParseSize(argument);
    return command;
}

LinkCommand ParseDropOne(const std::string& argument) {
    LinkCommand command;
    command.word = LinkCommand::Word::kDropOne;
    command.count = str::Int(argument);
    return command;
}

}  // namespace

std::string FormatFrame(const std::string& text) {
    const auto length = static_cast<std::uint32_t>(text.size());
    return std::string(reinterpret_cast<const char*>(&length), sizeof length) + text;
}

std::string ReadFrame(int fd) {
    std::uint32_t length = 0;
    if (read(fd, &length, sizeof length) != static_cast<ssize_t>(sizeof length)) {
        throw std::runtime_error("Failed to get answer size from server");
    }
    std::string text;
    char piece[kFramePiece];
    while (text.size() < length) {
        const std::size_t wanted = std::min(kFramePiece, length - text.size());
        if (read(fd, piece, wanted) != static_cast<ssize_t>(wanted)) {
            throw std::runtime_error("Failed to get answer from server");
        }
        text.append(piece, wanted);
    }
    return text;
}

std::string FormatReserve(std::int64_t bytes) { return Line(kReserve, str::Str(bytes)); }

std::string FormatComplete(const std::string& user, const std::string& date,
                           const std::string& type, const std::string& size) {
    return Line(kComplete, str::Join(std::vector<std::string>{user, date, type, size}, " "));
}

std::string FormatDropOne(std::int32_t count) { return Line(kDropOne, str::Str(count)); }

std::string FormatRelease(std::int64_t bytes) { return Line(kRelease, str::Str(bytes)); }

LinkCommand ParseLinkCommand(std::string line) {
    const std::string word = str::GetWord(line);
    const std::string& arguments = line;
    if (word == kReserve) return WithBytes(LinkCommand::Word::kReserve, arguments);
    if (word == kComplete) return ParseComplete(arguments);
    if (word == kDropOne) return ParseDropOne(arguments);
    if (word == kRelease) return WithBytes(LinkCommand::Word::kRelease, arguments);
    return {};
}

std::string FormatOk() { return kOk; }

std::string FormatOk(std::int32_t number) { return std::string(kOk) + " " + str::Str(number); }

std::string FormatRefusal(const std::string& reason) {
    return std::string(kRefused) + " " + reason;
}

LinkAnswer ParseLinkAnswer(std::string answer) {
    const bool is_ok = str::GetWord(answer) == kOk;
    return {is_ok, answer};
}
