// The main program. Finds and enters the install root, runs the command and reports its errors.

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "backup_common/quarn2_cp2.h"
#include "kro/kro_args.h"
#include "kro/kro_env.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/kro_hint.h"
#include "kro/kro_launch.h"
#include "kro/kro_log.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr const char* kProgram = "quarn2_cp";

void EnterInstallRoot(const std::string& root) {
    kro_file::MkDirSynced(kro_file::ConcatPath(root, "var"), 0750);
    kro_file::MkDirSynced(kro_file::ConcatPath(root, "tmp"), 0700);
    kro_file::MkDirSynced(kro_file::ConcatPath(root, "etc"), 0750);
    if (chdir(root.c_str()) != 0)
        throw kro_err::FromErrno("cannot enter install root '" + root + "'");
}

// True when --help or --version is the only argument. These options must work for a user without
// access to the install root.
bool AsksForInformationOnly(int argc, char** argv) {
    return argc == 2 &&
           (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "--version") == 0);
}

// Ignores SIGPIPE and SIGXFSZ, so that a write to a closed pipe or beyond a file size limit fails
// with an error that names the file. Sets SIGCHLD to its default action. The program cannot wait
// for its children if the parent process left SIGCHLD ignored.
void SetSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL);
}

int Run(int argc, char** argv) {
    kro_launch::DisableCoreDumps();
    // With a missing stream, a file opened later could get the descriptor of standard output, and
    // the node client would write its protocol messages into that file.
    kro_launch::OpenMissingStandardStreams();
    SetSignals();
    kro_args::SetProgram(kProgram, QUARN2_CP_VERSION);
    const std::string root = kro_launch::FindInstallRoot();
    kro_env::SetInstallRoot(root);
    if (!AsksForInformationOnly(argc, argv)) EnterInstallRoot(root);
    return tovmain(argc, argv);
}

// The error has no text when the node client refused the command and the log contains no reason.
int Report(const std::exception& error) {
    std::string text = error.what();
    if (text.empty()) text = "the node client refused the command; see var/quarn2_cp.log";
    KRO_LOG(kLog, 3, "%s", text.c_str());
    std::fprintf(stderr, "%s: %s\n", kProgram, text.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const kro_args::EarlyExit& exit) {
        return exit.status;
    } catch (const kro_args::UsageError& error) {
        std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", kProgram, error.what(), kProgram);
        return 2;
    } catch (const kro_err::HintedError& error) {
        Report(error);
        std::fprintf(stderr, "%s\n", error.hint().c_str());
        return 1;
    } catch (const std::exception& error) {
        return Report(error);
    }
}
