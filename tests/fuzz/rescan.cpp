// Fuzz target: a rescan of a storage that returns arbitrary listings and contents. The target
// checks that, for all names, the rescan changes nothing outside of the info root and of the
// directory for removed files, and that each downloaded file has a valid name.
//
// Input: its lines are the responses of the storage. Each listing and each downloaded file consumes
// the lines up to the next empty line. The first byte selects the info root: "p" that of a user
// below var/backup, any other a plain one.
#include <fstream>
#include <memory>
#include <set>
#include <span>
#include <vector>

#include "arguments.h"
#include "fuzz.h"
#include "kro/kro_err.h"
#include "kro/str.h"
#include "quarn2/names.h"
#include "quarn2_backend/registry.h"
#include "quarn2_backend/storage_backend.h"
#include "quarn2_cp2_server_rescan.h"

namespace {

using fuzz::Require;
namespace fs = std::filesystem;
using Names = std::set<std::string>;

// The rest of the input. All opened storages share it.
fuzz::Input*& Script() {
    static fuzz::Input* script = nullptr;
    return script;
}

class Hostile final : public quarn2::StorageBackend {
  public:
    bool Put(const std::string& /*name*/, quarn2::ByteSource& /*source*/) override { return true; }
    void Get(const std::string& name, quarn2::ByteSink& sink) override {
        const std::string text = Script()->Until("\n\n");
        if (text.empty()) throw kro_err::Error(kro_err::Kind::kNotFound, "no file " + name);
        sink.Write(std::as_bytes(std::span(text)));
    }
    void Remove(const std::string& /*name*/) override {}
    void RemoveDir(const std::string& /*name*/) override {}
    void MakeDir(const std::string& /*name*/) override {}
    std::vector<std::string> List(const std::string& name) override {
        // The listing of a file contains the file's own path. A line "=" stands for this path.
        std::vector<std::string> names;
        for (std::string line = Script()->Line(); !line.empty(); line = Script()->Line()) {
            names.push_back(line == "=" ? name : line);
        }
        if (names.empty()) throw kro_err::Error(kro_err::Kind::kNotFound, "nothing at " + name);
        return names;
    }
    void Clear() override {}
};

void Register() {
    quarn2::BackendScheme scheme;
    scheme.scheme = "hostile";
    // Sends one request at a time, because all requests read the same script.
    scheme.default_parallel = 1;
    scheme.fault = [](const quarn2::BackupToken&) { return std::string(); };
    scheme.open = [](const quarn2::BackupToken&) { return std::make_unique<Hostile>(); };
    quarn2::RegisterScheme(std::move(scheme));
    setenv("BACKUP_TOKEN", "hostile:x?arch_password=p", 1);
}

// Creates the folders of a rescan, and files beside them.
const std::string& Folder() {
    static const std::string folder = [] {
        fs::create_directories(fuzz::WorkFolder() + "/root/var/backup/tovarn");
        fs::create_directories(fuzz::WorkFolder() + "/root/tmp");
        fs::create_directories(fuzz::WorkFolder() + "/root/plain/info");
        std::ofstream("root/outside.info") << "not of the info root";
        std::ofstream("root/plain/outside.info") << "not of the info root";
        std::ofstream("root/var/outside.info") << "not of the info root";
        fs::current_path("root");
        return fs::current_path().string();
    }();
    return folder;
}

Names Below(const std::string& directory, const std::string& but) {
    Names names;
    for (auto entry = fs::recursive_directory_iterator(directory);
         entry != fs::recursive_directory_iterator(); ++entry) {
        const std::string path = entry->path().lexically_relative(directory);
        if (path == but) entry.disable_recursion_pending();
        names.insert(path);
    }
    return names;
}

// Returns the names without the lock file and without the directory for files that the rescan
// removed.
Names WithoutOwn(Names names, const std::string& mark) {
    const std::string removed = "var/quarn2_cp.removed" + mark;
    names.erase("var/quarn2_cp.lock" + mark);
    names.erase("var/quarn2_cp.events");
    std::erase_if(names, [&removed](const std::string& name) {
        return name == removed || str::StartsWith(name, removed + "/");
    });
    return names;
}

void CheckFetched(const std::string& root) {
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        Require(quarn2::IsSafeName(entry.path().filename()), "a downloaded file has a safe name");
        Require(!entry.is_symlink(), "a downloaded file is not a symbolic link");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool registered = (Register(), true);
    Require(registered && !Folder().empty(), "the storage is registered");
    fuzz::Input input(data, size);
    const bool user_data = input.Byte() == 'p';
    Script() = &input;
    // With a user's info root, the rescan works on the folder above it.
    const std::string root = user_data ? "var/backup/u" : "plain/info";
    const std::string cleaned = user_data ? "var/backup" : root;
    fs::create_directories("var/backup/tovarn");
    fs::create_directories(root);
    const Names before = Below(".", cleaned);
    std::vector<std::string> words = {"--rescan", "--path", Folder() + "/" + root};
    if (user_data) words.insert(words.end(), {"--storage", "u"});
    const kro_args::ResultPtr args = Arguments(words);
    fuzz::Accepts([&args] { Rescan(*args); });
    const std::string mark = user_data ? "#u" : "";
    Require(WithoutOwn(Below(".", cleaned), mark) == WithoutOwn(before, mark),
            "nothing changes outside of the info root");
    Require(fs::exists("var/backup/tovarn"), "an administrator's info root is kept");
    CheckFetched(cleaned);
    fs::remove_all(cleaned);
    fs::remove_all("var/quarn2_cp.removed" + mark);
    return 0;
}
