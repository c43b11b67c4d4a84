#include "quarn2_cp2_misc_progress.h"

#include <unistd.h>

#include <array>
#include <cstdio>

#include "kro/kro_date.h"
#include "kro/str.h"

namespace {

std::string Bytes(double bytes) {
    constexpr std::array<const char*, 5> kUnits = {"B", "KiB", "MiB", "GiB", "TiB"};
    constexpr double kStep = 1024;
    std::size_t unit = 0;
    for (; bytes >= kStep && unit + 1 < kUnits.size(); ++unit) bytes /= kStep;
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", bytes,
                  kUnits.at(unit));
    return text.data();
}

std::string Time(std::int64_t seconds) {
    constexpr std::int64_t kMinute = 60;
    const std::string rest = str::Str(seconds % kMinute);
    return str::Str(seconds / kMinute) + ":" + (rest.size() < 2 ? "0" : "") + rest;
}

// The remaining time, estimated from the work that is done; -1 when no estimate is possible.
std::int64_t SecondsLeft(const Progress& progress) {
    const bool by_bytes = progress.all_files == 1 && progress.all_bytes > 0;
    const std::int64_t done = by_bytes ? progress.bytes : progress.files;
    const std::int64_t all = by_bytes ? progress.all_bytes : progress.all_files;
    if (done <= 0 || all < done) return -1;
    return static_cast<std::int64_t>(static_cast<double>(progress.seconds) *
                                     static_cast<double>(all - done) / static_cast<double>(done));
}

}  // namespace

std::string ProgressText(const Progress& progress) {
    std::string text = str::Str(progress.files) + " of " + str::Str(progress.all_files) +
                       (progress.all_files == 1 ? " file, " : " files, ") +
                       Bytes(static_cast<double>(progress.bytes));
    if (progress.seconds > 0) {
        const double rate =
            static_cast<double>(progress.bytes) / static_cast<double>(progress.seconds);
        text += ", " + Bytes(rate) + "/s";
    }
    const std::int64_t left = SecondsLeft(progress);
    return left < 0 ? text : text + ", " + Time(left) + " left";
}

ProgressLine::ProgressLine(std::int64_t all_files)
    : shown_on_terminal_(isatty(STDERR_FILENO) == 1), start_(kro_date::SystemNow()), last_(start_) {
    progress_.all_files = all_files;
}

ProgressLine::~ProgressLine() {
    if (anything_shown_) std::fputc('\n', stderr);
}

void ProgressLine::Begin(std::int64_t size) {
    progress_.all_bytes = size;
    if (progress_.all_files != 1) return;
    // Begin is called again for another attempt at the same file, and for the requested file after
    // its info file.
    progress_.bytes = 0;
    start_ = kro_date::SystemNow();
    // Shows nothing during the first second, because the rate is not known yet.
    last_ = start_;
}

void ProgressLine::Advance(std::int64_t bytes) {
    progress_.bytes += bytes;
    Show();
}

void ProgressLine::FileDone() {
    ++progress_.files;
    Show();
}

void ProgressLine::Show() {
    if (!shown_on_terminal_) return;
    const std::time_t now = kro_date::SystemNow();
    if (now == last_) return;
    last_ = now;
    progress_.seconds = now - start_;
    // Returns to the start of the line and clears the rest of an earlier, longer text.
    std::fprintf(stderr, "\r%s\033[K", ProgressText(progress_).c_str());
    std::fflush(stderr);
    anything_shown_ = true;
}
