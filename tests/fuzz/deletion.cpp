// Fuzz target: the deletion of a backup with an arbitrary info file, as a storage may return it.
// The target checks that, for all names in the file, the deletion removes no local file outside of
// the backup's own folder, and the info file of another backup only if the given info file names
// the user of that backup. It also checks that, if the given info file contains only "last-slice",
// a successful deletion removes this slice from the storage.
//
// Input: the first byte selects the directory of the info file: "d" the backup's own directory, any
// other the info root, which also contains other backups. The info file follows.
#include <fstream>
#include <sstream>

#include "backends/memory/memory_backend.h"
#include "fuzz.h"
#include "kro/str.h"
#include "quarn2/token.h"
#include "quarn2_cp2_misc_delete.h"

namespace {

using fuzz::Require;
namespace fs = std::filesystem;

constexpr std::size_t kMaxSlices = 3;

const char* const kOutside[] = {"outside.tgz", "beside/2026-11-20.web1.info", "beside/x.tgz",
                                "info/web2/2026-11-20/2026-11-20.web2.info"};

void Save(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::trunc);
    file << text;
}

void PlaceFiles() {
    fuzz::WorkFolder();
    for (const char* const path : kOutside) {
        if (!fs::exists(path)) Save(std::string("./") + path, "not of this backup");
    }
    for (const char* const name : {"2026-11-20.web1.tgz", "2026-11-20.web3.info"}) {
        if (!fs::exists(std::string("info/") + name)) Save(std::string("info/") + name, "index");
    }
    // The folder of a user "C". The file names of custom backups' slices begin with this letter.
    fs::create_directories("info/C");
    const auto store = quarn2::MemoryStore::Named("deletion");
    store->Reset();
    for (const char* const name :
         {"F2026-11-20.web1.tgz", "I2026-11-20.web1.tgz.part1", "2026-11-20.web1.tgz",
          "2026-11-20.web1.info", "F2026-11-20.web1.1.dar", "web1/2026-11-20/2026-11-20.web1.info",
          "web1/2026-11-20/F2026-11-20.web1.tgz"}) {
        store->SetFile(name, "stored");
    }
}

// Returns false for expensive inputs: with a large slice number, the deletion may try up to a
// hundred thousand names, one after the other.
bool IsCheap(const std::string& info) {
    std::size_t slices = 0;
    for (std::size_t at = info.find("role-"); at != info.npos; at = info.find("role-", at + 1)) {
        ++slices;
    }
    const auto digits = [](char c) { return c >= '0' && c <= '9'; };
    std::size_t row = 0;
    for (const char c : info) {
        row = digits(c) ? row + 1 : 0;
        if (row == 4) return false;
    }
    return slices <= kMaxSlices;
}

// Must be called after a successful deletion. If "last-slice" is the only key of the info file, the
// storage must not have this slice any more. With more keys, the deletion may keep files.
void CheckSlice(const std::string& info) {
    const auto entries = str::Split(info, "\n");
    const auto named = entries.find("last-slice");
    if (entries.size() != 1 || named == entries.end() || !named->second.ends_with(".tgz")) return;
    Require(!quarn2::MemoryStore::Named("deletion")->files().contains(named->second),
            "a deleted backup has no slice on the storage");
}

void Check(const std::string& path, const std::string& info) {
    PlaceFiles();
    Save(path, info);
    const auto storage = quarn2::GetStorage(quarn2::BackupToken("memory:deletion"));
    const bool deleted = fuzz::Accepts([&] { Delete(storage, path, false); });
    for (const char* const other : kOutside) {
        Require(fs::exists(other), "no file outside of the backup's directory is removed");
    }
    Require(fs::exists("info/2026-11-20.web3.info") || info.find("web3") != info.npos,
            "the info file of another backup is removed only if the deleted one names it");
    if (deleted) CheckSlice(info);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool registered = (quarn2::RegisterMemoryScheme(), true);
    Require(registered, "the memory storage is registered");
    fuzz::Input input(data, size);
    const bool own_folder = input.Byte() == 'd';
    const std::string info = input.Rest();
    if (!IsCheap(info)) return 0;
    Check(own_folder ? "info/web1/2026-11-20/2026-11-20.web1.info" : "info/2026-11-20.web1.info",
          info);
    return 0;
}
