#include "quarn2_cp2_server_notes.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "kro/kro_log.h"
#include "kro/str.h"

namespace {

constexpr kro_log::Module kLog("main");

void Print(const std::string& text) {
    std::fprintf(stderr, "quarn2_cp: warning: %s\n", text.c_str());
}

}  // namespace

void Warn(const std::string& text) {
    KRO_LOG(kLog, 4, "%s", text.c_str());
    Print(text);
}

std::string CountLimitWarning(const std::string& count_limit) {
    std::string daily = count_limit;
    str::GetWord(daily, ":");
    if (!daily.empty()) return "";
    return "--count-limit does not contain the number of daily backups: this server deletes every "
           "daily backup "
           "that is not the newest backup of its user, when it starts and when it ends; use "
           "--count-limit FULL:DAILY to keep them";
}

void WarnOfCountLimit(const kro_args::Result& args) {
    const std::string text = CountLimitWarning(args.Param("count-limit", -1));
    if (!text.empty()) Warn(text);
}

void WarnOfEndedInput() {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (poll(&input, 1, 0) <= 0) return;
    Print(
        "standard input is closed, /dev/null or at its end: this command ends immediately and does "
        "not keep the server running. To keep it running, keep standard input open: mkfifo "
        "/run/hold; quarn2_cp "
        "--server ... </run/hold & exec 3>/run/hold");
}

void PrintWaitReason(const std::string& reason) {
    static std::atomic<bool> said{false};
    if (!said.exchange(true)) Print("waiting: " + reason);
}
