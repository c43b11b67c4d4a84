#include "quarn2_cp2_misc_control.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "kro/str.h"

namespace {

using Word = ControlCommand::Word;

constexpr std::string_view kRemovesFile = " DELETE";
constexpr std::array<std::pair<Word, std::string_view>, 4> kWords = {
    {{Word::kDelete, "DELETE"},
     {Word::kDeleteAll, "DELETEALL"},
     {Word::kPut, "PUT"},
     {Word::kPutLast, "PUTLAST"}}};

Word ParseWord(std::string_view text) {
    const auto found = std::find_if(kWords.begin(), kWords.end(),
                                    [text](const auto& known) { return known.second == text; });
    return found == kWords.end() ? Word::kUnknown : found->first;
}

std::string NameOf(Word word) {
    const auto found = std::find_if(kWords.begin(), kWords.end(),
                                    [word](const auto& known) { return known.first == word; });
    return std::string(found->second);
}

bool IsPut(Word word) { return word == Word::kPut || word == Word::kPutLast; }

}  // namespace

std::string ControlSocketPath(const std::string& storage) {
    return str::Append("tmp/quarn2_cp.sock", storage, "#");
}

bool FitsControlAddress(const std::string& path) noexcept {
    return path.size() < sizeof(sockaddr_un::sun_path);
}

sockaddr_un AddressToListen(const std::string& path) {
    if (FitsControlAddress(path)) return AddressToConnect(path);
    throw std::runtime_error("The control socket's path " + str::Quoted(path) + " is too long: " +
                             str::Str(path.size()) + " bytes, at most 107 are possible");
}

sockaddr_un AddressToConnect(const std::string& path) noexcept {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path));
    return address;
}

std::string FormatControlCommand(const ControlCommand& command) {
    const std::string text = NameOf(command.word) + " " + command.path;
    return command.removes_file ? text + std::string(kRemovesFile) : text;
}

ControlCommand ParseControlCommand(std::string text) {
    if (text.find('\0') != std::string::npos) {
        throw std::runtime_error("A command with a NUL byte is refused");
    }
    ControlCommand command;
    command.word = ParseWord(str::GetWord(text));
    command.removes_file = IsPut(command.word) && str::EndsWith(text, kRemovesFile);
    if (command.removes_file) text.resize(text.size() - kRemovesFile.size());
    command.path = std::move(text);
    return command;
}

std::string FormatControlAnswer(const std::string& info) { return str::Append("OK", info, " "); }

ControlAnswer ParseControlAnswer(std::string answer) {
    std::string status = str::GetWord(answer);
    return {std::move(status), std::move(answer)};
}
