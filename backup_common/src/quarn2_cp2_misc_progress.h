// A progress line on a terminal for long transfers.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "quarn2/storage.h"

// The completed work and the total work. -1 is an unknown value.
struct Progress {
    std::int64_t files = 0;
    std::int64_t all_files = 1;
    std::int64_t bytes = 0;
    std::int64_t all_bytes = -1;
    std::int64_t seconds = 0;
};

// "3 of 10 files, 1.5 GiB, 120.0 MiB/s, 0:42 left"; unknown values are left out.
std::string ProgressText(const Progress& progress);

// Shows the progress on standard error if standard error is a terminal, at most once a second.
class ProgressLine final : public quarn2::TransferObserver {
  public:
    explicit ProgressLine(std::int64_t all_files);
    ~ProgressLine() override;
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void Begin(std::int64_t size) override;
    void Advance(std::int64_t bytes) override;
    // Counts one file as done.
    void FileDone();

  private:
    void Show();

    bool shown_on_terminal_;
    bool anything_shown_ = false;
    std::time_t start_;
    std::time_t last_;
    Progress progress_;
};
