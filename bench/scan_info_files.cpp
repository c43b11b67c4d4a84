// Runs only the start-up scan, over a directory of info files: bench_scan DIRECTORY DATE
#include <cstdio>
#include <exception>

#include "quarn2_cp2_server_model.h"

namespace {

std::size_t CountRecords(const GlobalSizeControl& control) {
    std::size_t records = 0;
    for (const auto& [key, storage] : control.storages) {
        for (const auto& [name, user] : storage.users) records += user.backups.size();
    }
    return records;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: bench_scan DIRECTORY DATE\n", stderr);
        return 2;
    }
    try {
        GlobalSizeControl control;
        control.path = argv[1];
        control.AddStorage(nullptr);
        control.Init(argv[2]);
        std::printf("%zu records\n", CountRecords(control));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_scan: %s\n", error.what());
        return 1;
    }
    return 0;
}
