// A line on a terminal that shows how a long piece of work goes on.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "quarn2/storage.h"

// What has been done, and what there is to do (-1: not known).
struct Progress {
    std::int64_t files = 0;
    std::int64_t all_files = 1;
    std::int64_t bytes = 0;
    std::int64_t all_bytes = -1;
    std::int64_t seconds = 0;
};

// "3 of 10 files, 1.5 GiB, 120.0 MiB/s, 0:42 left"; what is not known is left out.
std::string ProgressText(const Progress& progress);

// Shows the progress on standard error, once a second, when that is a terminal; else nothing.
class ProgressLine final : public quarn2::TransferObserver {
  public:
    explicit ProgressLine(std::int64_t all_files);
    ~ProgressLine() override;
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void Begin(std::int64_t size) override;
    void Advance(std::int64_t bytes) override;
    // One of the files is done with.
    void FileDone();

  private:
    void Show();

    bool shown_on_terminal_;
    bool anything_shown_ = false;
    std::time_t start_;
    std::time_t last_;
    Progress progress_;
};
