// Downloads the files of a backup and tests its archives.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "quarn2/storage.h"
#include "report_archive.h"
#include "report_archiver.h"
#include "report_download.h"
#include "report_files.h"
#include "report_verify.h"

// Checks the content of backups. At most one file of the storage exists locally at a time.
class ContentCheck {
  public:
    struct Settings {
        // Called when another file has been downloaded.
        std::function<void()> file_done = [] {};
        std::chrono::milliseconds idle_timeout = Archiver::kIdleTimeout;
    };
    struct Result {
        std::vector<Problem> problems;
        SizeSum bytes;  // the stored sizes of all files; empty when one cannot be read
    };

    ContentCheck(quarn2::Storage& storage, Settings settings);

    // Downloads and decrypts each file and tests the archives with the program of their format.
    // `is_encrypted`: the backup is encrypted on the storage. Throws kro_err::Error (kUnavailable)
    // when the storage is down.
    Result Check(const std::vector<StoredFile>& files, bool is_encrypted);

    // The testers whose program is not installed. Their archives were only downloaded.
    const std::set<const Tester*>& missing() const noexcept { return missing_; }
    // The numbers of archives that a program has tested, and of all others.
    std::int64_t tested() const noexcept { return tested_; }
    std::int64_t untested() const noexcept { return untested_; }

  private:
    void Fetch(const std::string& name, const std::string& local_name);
    void CheckArchive(const Archive& archive);
    void TestStream(const Archive& archive, const Archiver::Settings& settings);
    void TestFile(const Archive& archive, Archiver::Settings settings);
    void TestByRequests(const Archive& archive, Archiver::Settings settings);
    void Serve(const Archive& archive, Archiver& archiver, int requests, int answers);
    void RecordResult(const Archive& archive, const Archiver::Result& result);

    quarn2::Storage& storage_;
    Settings settings_;
    DownloadDirectory directory_;
    std::set<const Tester*> missing_;
    std::int64_t tested_ = 0;
    std::int64_t untested_ = 0;
    // The following members describe the backup that is being checked.
    bool is_encrypted_ = false;
    std::set<std::string> fetched_;
    std::int64_t bytes_ = 0;
    std::vector<Problem> problems_;
};
