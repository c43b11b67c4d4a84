// Fixture with an install root for each test. The root is the current directory, the log contains
// all levels, the storage is in memory, and the clock is fake_clock.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "backends/memory/memory_backend.h"
#include "fake_clock.h"
#include "kro/kro_log.h"
#include "local_files.h"
#include "temp_dir.h"

using Lines = std::vector<std::string>;

// Returns the text of the exception of type Error that the call throws.
template <class Error, class Call>
std::string TextOf(const Call& call) {
    try {
        call();
    } catch (const Error& error) {
        return error.what();
    }
    return "(no exception)";
}

class ProgramSite : public testing::Test {
  protected:
    ProgramSite() {
        std::signal(SIGPIPE, SIG_IGN);
        fake_clock::Reset();
        setenv("TZ", "UTC", 1);
        tzset();
        setenv("BACKUP_TOKEN", "memory:site", 1);
        unsetenv("BACKUP_STORAGE");
        unsetenv("KRO_LOG_LEVEL");
        std::filesystem::current_path(root_.path());
        std::filesystem::create_directories("var");
        std::filesystem::create_directories("tmp");
        quarn2::RegisterMemoryScheme();
        store_->Reset();
        kro_log::Init("quarn2_cp", 9);
    }
    ~ProgramSite() override {
        kro_log::Close();
        store_->Reset();
        std::filesystem::current_path(before_);
    }

    // Returns the lines of the log up to this level, without the part before the level: "5: Put
    // a.tgz".
    static Lines Log(int level = 9) {
        Lines lines;
        std::istringstream log(local_files::Load("var/quarn2_cp.log"));
        const std::string head = "] quarn2_cp main ";
        for (std::string line; std::getline(log, line);) {
            // Skips the log lines of storage calls, because other tests check them.
            if (line.find("] quarn2_cp storage 8: ") != std::string::npos) continue;
            const std::size_t begin = line.find(head);
            const std::string text =
                begin == std::string::npos ? line : line.substr(begin + head.size());
            if (text.empty() || text.front() - '0' <= level) lines.push_back(text);
        }
        return lines;
    }
    static void ClearLog() { std::filesystem::remove("var/quarn2_cp.log"); }

    // Returns the names of the files on the storage.
    Lines Stored() const {
        Lines names;
        for (const auto& [name, content] : store_->files()) names.push_back(name);
        return names;
    }

    // Returns the sorted paths of all files and directories below the directory, relative to it.
    static Lines Below(const std::string& directory) {
        Lines names;
        namespace fs = std::filesystem;
        for (const auto& entry : fs::recursive_directory_iterator(directory)) {
            names.push_back(entry.path().string().substr(directory.size() + 1));
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    // Writes a file and creates its parent directories.
    static void Place(const std::string& path, const std::string& content) {
        const std::filesystem::path above = std::filesystem::path(path).parent_path();
        if (!above.empty()) std::filesystem::create_directories(above);
        local_files::Save(path, content);
    }

    std::shared_ptr<quarn2::MemoryStore> store_ = quarn2::MemoryStore::Named("site");
    TempDir root_;

  private:
    std::filesystem::path before_ = std::filesystem::current_path();
};
