#include <gtest/gtest.h>

#include "tree.h"

namespace {

constexpr const char* kUsage =
    "Backup utility\n"
    "\n"
    "  -s, --server                Start server\n"
    "      -D, --date VALUE        current backup date\n"
    "      -S, --size-limit VALUE  maximum storage size to use (default: 0)\n"
    "      -P, --path VALUE        local storage path (default: var/backup/tovarn)\n"
    "      -N, --node VALUE        remote node name or IP. Space control client\n"
    "                              (--client) will be started on each of specified\n"
    "                              nodes (may be given several times)\n"
    "      -I, --ssh-key VALUE     ssh key to access to node (default:\n"
    "                              etc/.ssh/master_id)\n"
    "      -R, --rescan            reload backup index files from remote storage\n"
    "  -c, --client                Start client\n"
    "  -p, --put                   Upload file to storage\n"
    "      -I, --info-file VALUE   filename to store backup info\n"
    "          --last_slice        last slice file\n"
    "          --operation         middle slice\n"
    "          --isolated          the last file of backup\n"
    "  -d, --delete                delete selected backup\n"
    "      -f, --force             delete depended backups too\n"
    "  -g, --get                   Download file from storage\n"
    "          --operation         middle slice\n"
    "          --tmp-file VALUE    file to store filename\n"
    "      --clear                 Delete all files from storage\n"
    "      --help                  Show this text\n"
    "      --version               Show the program's version\n";

class Usage : public testing::Test {
  protected:
    Usage() : args_("Backup utility") { DeclareTree(args_); }

    // Parses the words. Returns the printed output and the status of EarlyExit, or -1 if the parser
    // did not throw EarlyExit.
    std::pair<std::string, int> PrintedBy(const std::vector<std::string>& words) {
        testing::internal::CaptureStdout();
        int status = -1;
        try {
            ParseWords(args_, words);
        } catch (const kro_args::EarlyExit& exit) {
            status = exit.status;
        }
        return {testing::internal::GetCapturedStdout(), status};
    }

    kro_args::Args args_;
};

TEST_F(Usage, ShowsTheTreeInLinesThatFitATerminal) { EXPECT_EQ(args_.UsageText(), kUsage); }

TEST_F(Usage, IsPrintedWithATextBelowIt) {
    testing::internal::CaptureStdout();
    args_.Usage("");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), kUsage);
    testing::internal::CaptureStdout();
    args_.Usage("More");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), kUsage + std::string("\nMore\n"));
}

TEST_F(Usage, IsWhatHelpPrintsAnywhere) {
    EXPECT_EQ(PrintedBy({"--help"}), std::pair(std::string(kUsage), 0));
    EXPECT_EQ(PrintedBy({"--put", "x", "--help", "--foo"}), std::pair(std::string(kUsage), 0));
    EXPECT_EQ(PrintedBy({"--", "--help"}), std::pair(std::string(), -1));
}

TEST_F(Usage, IsNotWhatVersionPrints) {
    kro_args::SetProgram("quarn2_cp", "0.1.0");
    EXPECT_EQ(kro_args::ProgramName(), "quarn2_cp");
    EXPECT_EQ(PrintedBy({"--version"}), std::pair(std::string("quarn2_cp 0.1.0\n"), 0));
}

TEST_F(Usage, PutsALongWordOnALineOfItsOwn) {
    kro_args::Args args("b");
    args.AddOption("a", 'a', "short " + std::string(90, 'x') + " end");
    EXPECT_EQ(args.UsageText().substr(3, args.UsageText().find("      --help") - 3),
              "  -a, --a        short\n" + std::string(17, ' ') + std::string(90, 'x') + "\n" +
                  std::string(17, ' ') + "end\n");
}

}  // namespace
