// quarn2_report: shows what is stored. Takes no lock. Only --verify accesses the storage and writes
// a file, which contains its result.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>
#include <string>
#include <string_view>

#include "kro/kro_args.h"
#include "kro/kro_env.h"
#include "kro/kro_err.h"
#include "kro/kro_launch.h"
#include "report_modes.h"
#include "report_text.h"

namespace {

constexpr const char* kProgram = "quarn2_report";
constexpr int kFailed = 1;
constexpr int kUsage = 2;

void EnterInstallRoot() {
    const std::string root = kro_launch::FindInstallRoot();
    kro_env::SetInstallRoot(root);
    if (chdir(root.c_str()) != 0) {
        throw kro_err::FromErrno("cannot enter install root '" + root + "'");
    }
}

int Run(int argc, char** argv) {
    // A core dump would contain the environment, and the environment of a job may contain the
    // storage token.
    kro_launch::DisableCoreDumps();
    kro_launch::OpenMissingStandardStreams();
    kro_args::SetProgram(kProgram, QUARN2_CP_VERSION);
    const Options options = ParseOptions(argc, argv);
    EnterInstallRoot();
    static const std::map<std::string, void (*)(Site&)> modes = {
        {"status", RunStatus}, {"list", RunList},   {"chain", RunChain},  {"history", RunHistory},
        {"plan", RunPlan},     {"check", RunCheck}, {"verify", RunVerify}};
    Site site(options);
    try {
        modes.at(options.mode)(site);
    } catch (...) {
        site.output.Finish();
        throw;
    }
    return site.output.Finish();
}

// The exit status for an invalid command line. With --check it is 3, because a monitoring system
// interprets 2 as a critical problem of the backups.
int UsageStatus(int argc, char** argv) {
    constexpr int kUnknown = 3;
    const auto is_check = [](const char* word) { return std::string_view(word) == "--check"; };
    return std::any_of(argv, argv + argc, is_check) ? kUnknown : kUsage;
}

void PrintError(const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", kProgram, Escaped(error.what()).c_str());
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const kro_args::EarlyExit& exit) {
        return exit.status;
    } catch (const kro_args::UsageError& error) {
        PrintError(error);
        std::fprintf(stderr, "Try '%s --help'.\n", kProgram);
        return UsageStatus(argc, argv);
    } catch (const std::exception& error) {
        PrintError(error);
        return kFailed;
    }
}
