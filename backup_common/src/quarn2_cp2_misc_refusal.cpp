#include "quarn2_cp2_misc_refusal.h"

#include <unistd.h>

#include <algorithm>
#include <vector>

#include "kro/str.h"

namespace {

constexpr int kErrorLevel = 3;

}  // namespace

std::string RefusalLine(pid_t process) {
    return "The command of process " + str::Str(process) + " was refused: ";
}

std::string FindRefusal(const kro_log::Bookmark& begin, pid_t node_client) {
    const std::vector<kro_log::Line> lines = begin.LinesOf(node_client);
    const std::string own = RefusalLine(getpid());
    const auto refusal =
        std::find_if(lines.rbegin(), lines.rend(),
                     [&own](const kro_log::Line& line) { return str::StartsWith(line.text, own); });
    if (refusal == lines.rend()) return "";
    const auto reason = std::find_if(refusal, lines.rend(), [&refusal](const kro_log::Line& line) {
        return line.thread == refusal->thread && line.level == kErrorLevel;
    });
    return reason == lines.rend() ? "" : reason->text;
}
