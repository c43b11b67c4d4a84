// Fuzz target: the lists beside info files. For ".cleanup", the target checks that the name of each
// removed file contains the prefix of a line, and that a line whose removal failed stays in the
// list. For ".encrypted_indexes", it checks that the list contains each removed file, and that the
// other entries stay.
//
// Input: the first byte is "e" for ".encrypted_indexes", any other for ".cleanup". The target skips
// a ".cleanup" with a valid token that names another storage than the one in memory.
#include <algorithm>
#include <array>
#include <fstream>
#include <set>
#include <sstream>
#include <vector>

#include "backends/memory/memory_backend.h"
#include "fuzz.h"
#include "kro/str.h"
#include "quarn2/names.h"
#include "quarn2/token.h"
#include "quarn2_cp2_misc_cleanup.h"
#include "quarn2_cp2_misc_encrypted.h"

namespace {

using fuzz::Require;
using quarn2::BackupToken;
using Names = std::set<std::string>;
namespace fs = std::filesystem;

const Names& AllNames() {
    static const Names names = {"2026-11-19.web1.info",
                                "2026-11-19.web1.tgz",
                                "2026-11-20.web1.tgz.aes",
                                "2026-11-20.web1.info",
                                "F2026-11-19.web1.tgz.part1",
                                "F2026-11-19.web1.tgz.part2",
                                "I2026-11-20.web1.tgz",
                                "custom.web1.info",
                                "C2026-11-20.web1.1.dar",
                                "other",
                                "other.tgz",
                                ".hidden.info"};
    return names;
}

std::string Load(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

void Save(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::trunc);
    file << text;
}

Names Local() {
    Names names;
    for (const auto& entry : fs::directory_iterator("info")) {
        const std::string name = entry.path().filename();
        if (name != ".cleanup" && name != ".encrypted_indexes") names.insert(name);
    }
    return names;
}

Names Stored() {
    Names names;
    for (const auto& [name, content] : quarn2::MemoryStore::Named("lists")->files()) {
        names.insert(name);
    }
    return names;
}

void PlaceFiles() {
    fuzz::WorkFolder();
    fs::create_directories("info");
    if (!fs::exists("outside")) Save("outside", "not in the folder");
    const Names local = Local();
    const auto store = quarn2::MemoryStore::Named("lists");
    store->Reset();
    for (const std::string& name : AllNames()) {
        if (!local.contains(name)) Save("info/" + name, "");
        store->SetFile(name, "");
    }
}

struct Line {
    std::string text;
    BackupToken token;
    std::string prefix;
};

std::vector<Line> LinesOf(const std::string& list) {
    std::vector<Line> lines;
    std::istringstream input(list);
    for (std::string line; std::getline(input, line);) {
        if (line.empty()) continue;
        std::string prefix = line;
        const std::string token = str::badchars::Unescape(str::GetWord(prefix, "\t"), '\\');
        lines.push_back({line, BackupToken(token), prefix});
    }
    return lines;
}

void CheckGone(const Names& left, const std::vector<Line>& lines) {
    for (const std::string& name : AllNames()) {
        if (left.contains(name)) continue;
        const bool meant = std::any_of(lines.begin(), lines.end(), [&name](const Line& line) {
            return line.token && !line.prefix.empty() && name.find(line.prefix) != name.npos;
        });
        Require(meant, "only files with the prefix of a line are removed");
    }
}

void CheckCleanUp(const std::string& list) {
    const std::vector<Line> lines = LinesOf(list);
    for (const Line& line : lines) {
        if (line.token && line.token.scheme() != "memory") return;
    }
    PlaceFiles();
    Save("info/.cleanup", list);
    CleanUp("info");
    CheckGone(Local(), lines);
    CheckGone(Stored(), lines);
    const std::string rest = Load("info/.cleanup");
    std::string expected;
    for (const Line& line : lines) {
        const bool failed = !line.token || line.prefix.empty();
        if (failed) expected += line.text + "\n";
        Require(!failed || rest.find(line.text) != rest.npos, "a line that failed is kept");
    }
    Require(rest == expected, "no other line is kept");
    Require(fs::exists("info/.cleanup") == !expected.empty(), "an empty list is removed");
}

void CheckIndexes(const std::string& list) {
    PlaceFiles();
    Save("info/.encrypted_indexes", list);
    const auto before = str::Split(list, "\n");
    const std::array<std::string, 2> indexes = {"2026-11-20.web1.tgz.aes", "other.tgz"};
    Require(quarn2::IsEncrypted("info/2026-11-19.web1.info") ==
                before.contains("2026-11-19.web1.tgz.aes"),
            "exactly the listed indexes count as encrypted");
    for (const std::string& index : indexes) DeleteEncryptedIndex("info/" + index);
    Names expected = AllNames();
    auto entries = before;
    for (const std::string& index : indexes) {
        if (before.contains(index)) expected.erase(index);
        entries.erase(index);
    }
    Require(Local() == expected, "exactly the listed files are removed");
    // Skips the next check if the list contains a carriage return, because the program removes it
    // at the end of a value.
    if (list.find('\r') != list.npos) return;
    Require(str::Split(Load("info/.encrypted_indexes"), "\n") == entries, "other entries are kept");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool registered = (quarn2::RegisterMemoryScheme(), true);
    Require(registered, "the memory storage is registered");
    fuzz::Input input(data, size);
    if (input.Byte() == 'e') {
        CheckIndexes(input.Rest());
    } else {
        CheckCleanUp(input.Rest());
    }
    Require(fs::exists("outside") || !fs::exists("info"),
            "no file outside of the directory is removed");
    return 0;
}
