// Fuzz target: both sides of the control socket. A node client serves an arbitrary command. The
// target checks that the client removes a local file only if the storage has its content, and that
// the waiting command can parse the answer. On the other side, it checks that the put command
// accepts no answer without a valid name and size.
//
// Input: the first byte selects the answer of the server on the master link. The command follows.
// If the first byte is "?", the rest is an answer to the put command.
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <map>
#include <sstream>

#include "backends/memory/memory_backend.h"
#include "base/stored_name.h"
#include "fuzz.h"
#include "kro/kro_proc.h"
#include "kro/str.h"
#include "quarn2_cp2_put_answer.h"
#include "quarn2_cp2_put_node.h"

namespace {

using fuzz::Require;
namespace fs = std::filesystem;

const char* const kToken = "memory:commands";

// Slices, an index and info files, as a backup job creates them.
const std::map<std::string, std::string>& Files() {
    static const std::map<std::string, std::string> files = {
        {"F2026-11-19.web1.tgz", "full"},
        {"I2026-11-20.web1.tgz.part1", "one"},
        {"I2026-11-20.web1.tgz.part2", "two"},
        {"2026-11-20.web1.tgz", "index"},
        {"C2026-11-20.web1.1.dar", "custom"},
        {"web2/2026-11-20/F2026-11-20.web2.tgz", "in a directory"},
        {"2026-11-19.web1.info", "last-slice=F2026-11-19.web1.tgz\nsize=7\ntype=full"},
        {"2026-11-20.web1.info",
         "base=F2026-11-19.web1.tgz\nlast-slice=I2026-11-20.web1.tgz.part2\nsize=9\n"
         "type=incremental"},
        {"a b", "a blank"},
    };
    return files;
}

bool Has(const std::string& path, const std::string& content) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return file.good() && text.str() == content;
}

void PlaceFiles() {
    fuzz::WorkFolder();
    fs::create_directories("web2/2026-11-20");
    fs::create_directories("tmp");
    for (const auto& [path, content] : Files()) {
        if (!Has(path, content)) std::ofstream(path) << content;
    }
}

std::string Frame(const std::string& text) {
    const auto length = static_cast<std::uint32_t>(text.size());
    return std::string(reinterpret_cast<const char*>(&length), sizeof length) + text;
}

// A master link whose pipe already contains all answers of the server when the client sends its
// first line.
class Link {
  public:
    explicit Link(unsigned how) {
        static constexpr const char* kAnswers[] = {"OK 2", "OK", "ERR No space left.", "", "OK x"};
        std::string said = Frame(kToken);
        for (int i = 0; i < 24; ++i) said += Frame(kAnswers[how % std::size(kAnswers)]);
        Require(
            write(answers_.second, said.data(), said.size()) == static_cast<ssize_t>(said.size()),
            "the pipe accepts the server's answers");
        answers_.second.Close();
    }
    MasterLink ends() const { return {answers_.first, commands_.second}; }

  private:
    std::pair<ResHandle, ResHandle> answers_ = kro_proc::Pipe();
    std::pair<ResHandle, ResHandle> commands_ = kro_proc::Pipe();
};

void CheckAnswer(const std::string& word, std::string answer) {
    Require(str::GetWord(answer) == "OK", "an accepted command is answered with OK");
    if (word != "PUT" && word != "PUTLAST") return;
    const Taken taken = ParseAnswer(answer);
    Require(fuzz::Accepts([&] { quarn2::CheckStoredName(taken.name); }),
            "the answer to a put contains a valid stored name");
    Require(taken.bytes >= 0, "the answer to a put contains a valid size");
}

// Checks that each missing local file was put: its content is on the storage.
void CheckFiles(const std::string& word, const quarn2::MemoryStore& store) {
    if (word.starts_with("DELETE")) return;
    for (const auto& [path, content] : Files()) {
        if (fs::exists(path)) continue;
        const auto stored = store.files();
        const std::string name = fs::path(path).filename();
        const auto found =
            stored.find(path.find('/') == path.npos ? name : "web2/2026-11-20/" + name);
        Require(found != stored.end() && found->second == content,
                "a local file is removed only after it is stored");
    }
}

void CheckCommand(unsigned how, const std::string& command) {
    std::string argument = command;
    const std::string word = str::GetWord(argument);
    // The target must not touch files outside of its own folder.
    if (argument.starts_with('/') || argument.find("..") != argument.npos) return;
    PlaceFiles();
    const auto store = quarn2::MemoryStore::Named("commands");
    store->Reset();
    {
        const Link link(how);
        kro_thread::SafeLock lock;
        NodeSide node(lock, link.ends());
        std::string answer;
        if (fuzz::Accepts([&] { answer = node.Serve(command); })) CheckAnswer(word, answer);
    }
    CheckFiles(word, *store);
}

void CheckParsed(const std::string& answer) {
    Taken taken;
    if (!fuzz::Accepts([&] { taken = ParseAnswer(answer); })) return;
    Require(!taken.name.empty() && taken.name.find(' ') == taken.name.npos,
            "a stored name is one word");
    Require(answer.starts_with(taken.name) && answer.ends_with(taken.key_hash),
            "the name and the key hash are parts of the answer");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = [] {
        std::signal(SIGPIPE, SIG_IGN);
        quarn2::RegisterMemoryScheme();
        return true;
    }();
    Require(ready, "the memory storage is registered");
    fuzz::Input input(data, size);
    const unsigned how = input.Byte();
    if (how == '?') {
        CheckParsed(input.Rest());
    } else {
        CheckCommand(how, input.Rest());
    }
    return 0;
}
