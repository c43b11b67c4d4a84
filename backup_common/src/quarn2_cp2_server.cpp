#include "quarn2_cp2_server.h"

#include <poll.h>

#include <memory>
#include <stdexcept>
#include <utility>

#include "kro/kro_date.h"
#include "kro/kro_thread.h"
#include "kro/str.h"
#include "quarn2/names.h"
#include "quarn2_cp2_misc.h"
#include "quarn2_cp2_misc_clear.h"
#include "quarn2_cp2_misc_control.h"
#include "quarn2_cp2_misc_storage.h"
#include "quarn2_cp2_server_model.h"
#include "quarn2_cp2_server_notes.h"
#include "quarn2_cp2_server_rescan.h"
#include "quarn2_cp2_server_start.h"

namespace {

bool IsPort(const std::string& text) {
    constexpr int kMaxPort = 65535;
    return text.size() <= 5 && str::HasDigitsOnly(text) && str::Int(text) > 0 &&
           str::Int(text) <= kMaxPort;
}

// True when `text` can be the host argument of ssh. ssh must not parse it as an option.
bool IsDestination(const std::string& text) {
    return !text.empty() && text.front() != '-' && text.find_first_of(" \t\n") == std::string::npos;
}

// A node is a destination, or NAME:DESTINATION:PORT.
bool IsNode(std::string node) {
    if (!IsDestination(node)) return false;
    if (node.find(':') == std::string::npos) return true;
    str::GetWord(node, ":");
    return IsPort(str::RGetWord(node, ":")) && IsDestination(node);
}

void CheckNode(const std::string& node) {
    if (IsNode(node)) return;
    throw std::runtime_error("--node '" + node +
                             "' cannot be used: expected a host name or address, or "
                             "NAME:DESTINATION:PORT");
}

// Checks all arguments before the daemon starts, because the daemon can report errors only in the
// log.
void CheckArguments(const kro_args::Result& args) {
    ServerLimits::Parse(args.Param("count-limit", -1), args.Param("size-limit", -1));
    const std::string date = args.Param("date", -1);
    if (!date.empty() && date != "custom" && !kro_date::IsDate(date)) {
        throw std::runtime_error("--date '" + date +
                                 "' cannot be used: expected YYYY-MM-DD or custom");
    }
    const std::string storage = args.Param("storage", -1);
    if (!storage.empty() && !quarn2::IsSafeName(storage)) {
        throw std::runtime_error("--storage '" + storage +
                                 "' cannot be used: expected a name without slashes");
    }
    if (!FitsControlAddress(ControlSocketPath(storage))) {
        throw std::runtime_error("--storage '" + storage +
                                 "' cannot be used: the name is too long");
    }
    for (const std::string& node : args.Params("node")) CheckNode(node);
    GetStorageByEnv(GetArgPath(args.Param("path", -1)));
}

}  // namespace

void CommandServer(int /*argc*/, char** /*argv*/, kro_args::ResultPtr args) {
    CheckArguments(*args);
    WarnOfCountLimit(*args);
    WarnOfEndedInput();
    const std::string info_root = GetArgPath(args->Param("path", -1));
    CheckNoBrokenClear(info_root);
    ResHandle handle;
    if (args->Has("rescan")) {
        handle = Rescan(*args);
    } else {
        // Quarn2Lock waits for a rescan that is in progress. A rescan marker that is present
        // afterwards belongs to an interrupted rescan.
        const std::string storage = args->Param("storage", -1);
        handle = Quarn2Lock(ServerFiles(storage).lock, false);
        CheckNoBrokenRescan(info_root, storage);
    }
    handle = SizeControlServerStart(args, std::move(handle));
    // Keeps the server alive until the process that started this command closes standard input.
    kro_thread::SafeLock lock;
    quarn2::Expect loop;
    loop.Add(StandardInput(), POLLIN, std::make_shared<FinishOnClose>(lock));
    loop.Run(-1);
}
