// Runs many operations on one storage object, as a rescan, an eviction and a node client do:
//   BACKUP_TOKEN=... bench_storage put DIRECTORY | get DIRECTORY | get-each DIRECTORY | list |
//                                  remove | remove-each | clear
// get-each and remove-each run one operation after another.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kro/kro_file.h"
#include "quarn2/storage.h"
#include "quarn2/token.h"

namespace {

std::vector<std::string> Names(quarn2::Storage& storage) {
    std::vector<std::string> names;
    storage.List(names, "");
    return names;
}

std::size_t Put(quarn2::Storage& storage, const std::string& directory) {
    std::size_t count = 0;
    kro_file::Dir entries(directory, 2);
    for (; entries.Read(); ++count) {
        if (!storage.Upload(entries.name(), entries.FullName())) {
            throw kro_err::Error(kro_err::Kind::kFailed, "the storage is full");
        }
    }
    return count;
}

void ThrowFirst(const std::vector<quarn2::FileError>& errors) {
    for (const quarn2::FileError& error : errors) {
        if (error) throw kro_err::Error(*error);
    }
}

// Downloads all files like a rescan: syncs the file system once at the end, not each file.
std::size_t Get(quarn2::Storage& storage, const std::string& directory) {
    storage.DeferSync(true);
    std::vector<quarn2::FileDownload> files;
    for (const std::string& name : Names(storage)) {
        files.push_back({name, kro_file::ConcatPath(directory, name)});
    }
    ThrowFirst(storage.DownloadMany(files));
    kro_file::SyncFileSystem(directory);
    return files.size();
}

std::size_t GetEach(quarn2::Storage& storage, const std::string& directory) {
    storage.DeferSync(true);
    const std::vector<std::string> names = Names(storage);
    for (const std::string& name : names) {
        storage.Download(name, kro_file::ConcatPath(directory, name));
    }
    kro_file::SyncFileSystem(directory);
    return names.size();
}

std::size_t List(quarn2::Storage& storage, const std::string& /*directory*/) {
    return Names(storage).size();
}

std::size_t Remove(quarn2::Storage& storage, const std::string& /*directory*/) {
    const std::vector<std::string> names = Names(storage);
    ThrowFirst(storage.RemoveMany(names));
    return names.size();
}

std::size_t RemoveEach(quarn2::Storage& storage, const std::string& /*directory*/) {
    const std::vector<std::string> names = Names(storage);
    for (const std::string& name : names) storage.RemoveFile(name);
    return names.size();
}

std::size_t Clear(quarn2::Storage& storage, const std::string& /*directory*/) {
    storage.Clear();
    return 0;
}

struct Command {
    std::function<std::size_t(quarn2::Storage&, const std::string&)> run;
    bool takes_directory = false;
};

const std::map<std::string, Command>& Commands() {
    static const std::map<std::string, Command> commands = {
        {"put", {Put, true}}, {"get", {Get, true}}, {"get-each", {GetEach, true}},
        {"list", {List}},     {"remove", {Remove}}, {"remove-each", {RemoveEach}},
        {"clear", {Clear}}};
    return commands;
}

}  // namespace

int main(int argc, char** argv) {
    const auto command = argc < 2 ? Commands().end() : Commands().find(argv[1]);
    const char* const token = std::getenv("BACKUP_TOKEN");
    if (command == Commands().end() || argc != (command->second.takes_directory ? 3 : 2) ||
        token == nullptr) {
        std::fputs(
            "usage: BACKUP_TOKEN=... bench_storage put DIRECTORY | get DIRECTORY | "
            "get-each DIRECTORY | list | remove | remove-each | clear\n",
            stderr);
        return 2;
    }
    try {
        const std::shared_ptr<quarn2::Storage> storage =
            quarn2::GetStorage(quarn2::BackupToken(token));
        std::printf("%zu\n", command->second.run(*storage, argc == 3 ? argv[2] : ""));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_storage: %s\n", error.what());
        return 1;
    }
    return 0;
}
