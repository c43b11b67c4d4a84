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

bool Has(int argc, char** argv, std::string_view option) {
    return std::any_of(argv, argv + argc,
                       [option](const char* word) { return std::string_view(word) == option; });
}

// Prints the error and returns the exit status: `status`, but 3 with --check, because a monitoring
// system interprets 2 as a critical problem of the backups. A monitoring system shows only standard
// output, so with --check the error is printed there too.
int ReportError(const std::exception& error, int status, int argc, char** argv) {
    constexpr int kUnknown = 3;
    const std::string text = Escaped(error.what());
    std::fprintf(stderr, "%s: %s\n", kProgram, text.c_str());
    if (!Has(argc, argv, "--check")) return status;
    if (!Has(argc, argv, "--json")) std::printf("UNKNOWN: %s\n", text.c_str());
    return kUnknown;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const kro_args::EarlyExit& exit) {
        return exit.status;
    } catch (const kro_args::UsageError& error) {
        const int status = ReportError(error, kUsage, argc, argv);
        std::fprintf(stderr, "Try '%s --help'.\n", kProgram);
        return status;
    } catch (const std::exception& error) {
        return ReportError(error, kFailed, argc, argv);
    }
}
